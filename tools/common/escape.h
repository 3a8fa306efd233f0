/// Texts that came from devices, clients or files are shown so that they can't do anything to a terminal or pass for
/// others.
#pragma once

#include <string>
#include <string_view>

namespace kest::tools
{

/// Shows printable UTF-8 as it is; control characters, malformed UTF-8, invisible characters and those that turn the
/// writing direction as "\xHH" for each byte, the backslash as "\\".
[[nodiscard]] std::string escaped(std::string_view text);

/// A word as a shell takes it: as it is when nothing in it means anything to a shell, else in single quotes. For
/// commands that are printed.
[[nodiscard]] std::string shellWord(std::string_view word);

} // namespace kest::tools
