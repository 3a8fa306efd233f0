/// The numbers that lie in the bytes of a block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "contents/table.h"

namespace kest::contents
{

struct rawNumber {
    std::uint64_t value = 0;
    unsigned bits = 0; ///< how wide it is
};

/// The number of a row.
/// @param at, length  where its bytes lie, inside the block
/// @return nothing when its further bits lie outside, or it is wider than 64 bits
[[nodiscard]] std::optional<rawNumber> rawNumberOf(const row& field, std::span<const std::uint8_t> block,
                                                   std::size_t at, std::size_t length);

/// @return the number as two's complement of its width
[[nodiscard]] std::int64_t signedValue(const rawNumber& number);

} // namespace kest::contents
