/// The words for shells that complete a command line.
#pragma once

#include <string>
#include <vector>

#include "tools/common/commandline.h"

namespace kest::tools
{

/// Lines for a shell: each word that can stand in the place of the last one and begins as that does; or ":files" or
/// ":folders" alone, where the shell knows better. Reads the configuration that the words name, for the names of devices
/// and buses, and uses no bus. A name that would not stay one line is left out.
/// @param words  of the command line behind the program's name; the last one may be unfinished, or empty
[[nodiscard]] std::vector<std::string> completionLines(const commandLine& line, const std::vector<std::string>& words);

} // namespace kest::tools
