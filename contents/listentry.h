/// Entries of lists: a header with type and length, then a value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "contents/area.h"
#include "contents/table.h"

namespace kest::contents
{

struct listEntry {
    window whole{};
    window value{};
    std::uint64_t type = 0;
    std::uint64_t length = 0; ///< as the header has it
    bool isLast = false;
    bool fits = true; ///< the value ends inside the list; else `value` is not to be read
};

/// @param at  inside the list
/// @return nothing when the list ends inside the entry's header
[[nodiscard]] std::optional<listEntry> entryAt(const listRule& rule, const window& list, std::size_t at,
                                               std::span<const std::uint8_t> image);

} // namespace kest::contents
