/// Single values: from the bytes of a field to what is shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "contents/decodedvalue.h"
#include "contents/knownfields.h"

namespace kest::contents
{

/// A field's bytes, and the block that they lie in: the further bits of a number lie elsewhere in it.
struct fieldBytes {
    std::span<const std::uint8_t> block{};
    std::size_t at = 0; ///< at + length lies inside the block
    std::size_t length = 0;

    [[nodiscard]] std::span<const std::uint8_t> own() const { return block.subspan(at, length); }
};

/// Reads a row of a kind that is neither a checksum nor a structure.
[[nodiscard]] decodedValue decodeValue(const row& field, const fieldBytes& bytes, const knownFields& known);

} // namespace kest::contents
