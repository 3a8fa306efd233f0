/// What toml++ 3.3 takes for granted about a text, and does the undefined without.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace kest::sim
{

struct textTrouble {
    std::size_t line, column; ///< from 1, in bytes
    std::string_view what; ///< was found: "a string of several lines"
};

/// Finds the first place of a text that must not reach the parser: a table's header that does not begin with a name, a
/// character beyond ASCII outside a comment, a string of several lines (in which the first two could not be told from
/// what they look like).
std::optional<textTrouble> findTextTrouble(std::string_view text);

} // namespace kest::sim
