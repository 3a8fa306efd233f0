/// Strings as FRU information has them: the type says how the characters are packed.
///
/// Document: Platform Management FRU Information Storage Definition v1.0, type/length byte format.
#pragma once

#include <cstdint>
#include <span>

#include "contents/decodedvalue.h"

namespace kest::contents
{

enum class packing : std::uint8_t {
    binary,
    bcdPlus, ///< two characters a byte, the first in the high nibble: digits, blank, dash and point
    sixBit, ///< four characters in three bytes, the first in the lowest bits: 0x20 to 0x5F
    language, ///< Latin-1 in English, else UTF-16, little-endian
};

[[nodiscard]] constexpr packing packingOf(std::uint8_t typeLength) { return static_cast<packing>(typeLength >> 6); }
[[nodiscard]] constexpr std::size_t lengthOf(std::uint8_t typeLength) { return typeLength & 0x3FU; }

/// @param english  the language is English, or does not apply. @return UTF-8 text; bytes for packing::binary
[[nodiscard]] decodedValue unpackText(packing how, std::span<const std::uint8_t> bytes, bool english);

} // namespace kest::contents
