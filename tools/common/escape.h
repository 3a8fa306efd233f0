/// Makes texts from devices, clients and files safe to show: they can't control a terminal or look like other texts.
#pragma once

#include <string>
#include <string_view>

namespace kest::tools
{

/// Shows printable UTF-8 as it is. Control characters, malformed UTF-8, invisible characters and those that change the
/// direction of writing become "\xHH" for each byte; a backslash becomes "\\".
[[nodiscard]] std::string escaped(std::string_view text);

/// A word as a shell takes it, for commands that are printed: in single quotes if a character in it has a meaning to a
/// shell.
[[nodiscard]] std::string shellWord(std::string_view word);

} // namespace kest::tools
