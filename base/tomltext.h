/// Finds texts on which the TOML parser (toml++ 3.3) would run into undefined behaviour.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace kest
{

struct textTrouble {
    std::size_t line, column; ///< from 1, in bytes
    std::string_view what; ///< names it: "a string of several lines"
};

/// Finds the first place of a text that must not reach the parser: a table's header that does not begin with a name, or
/// a character beyond ASCII outside a comment. A string of several lines is refused, too: inside one the other two could
/// not be recognised.
std::optional<textTrouble> findTextTrouble(std::string_view text);

} // namespace kest
