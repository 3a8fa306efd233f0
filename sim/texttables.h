/// The tables of a machine file's text, found without parsing it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace kest::sim
{

/// Where a table begins in its file, from 1.
struct tablePlace {
    std::uint32_t line = 0, column = 0;

    bool operator==(const tablePlace&) const = default;
};

/// From the line on which a table begins to the one on which the next begins.
struct textTable {
    std::string_view text;
    tablePlace place;
};

/// Each line of a machine file that begins with a bracket begins a table: no value of one goes on that way.
struct textTables {
    std::string_view head; ///< before the first table
    std::vector<textTable> buses, chips, faults;
};

/// @return none when a table is not written as [[bus]], [[chip]] or [[fault]] on a line of its own
std::optional<textTables> findTables(std::string_view text);

} // namespace kest::sim
