/// One area of FRU information with texts, taken apart and put together again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "contents/editresult.h"
#include "contents/table.h"

namespace kest::contents
{

constexpr std::size_t fruUnitBytes = 8; ///< lengths and offsets in FRU information count these

/// A text with the byte before it: its coding in bits 6 and 7, its length in the others.
struct fruText {
    std::uint8_t typeLength = 0xC0;
    byteString bytes;
};

/// An area in pieces.
struct fruArea {
    const row* as = nullptr; ///< its block
    byteString head; ///< before the texts
    std::vector<fruText> texts;
    std::size_t length = 0; ///< bytes; 0 for an area that is made
    std::string damage = {}; ///< empty: none
};

/// The row of the texts of an area's block.
[[nodiscard]] const row& fruTexts(const row& area);

/// Takes an area apart. @param bytes  from its first byte to the end of the image
[[nodiscard]] fruArea readFruArea(const row& area, std::span<const std::uint8_t> bytes);

/// A new area without texts, in English.
[[nodiscard]] fruArea newFruArea(const row& area);

/// Names of the fields that can be set, without the area's; of custom ones the first.
[[nodiscard]] std::vector<std::string> fruAreaFields(const row& area);

/// Sets one field. @param field  its name without the area's: "serial", "custom1"
/// @return a refusal; empty: done
[[nodiscard]] editResult setInFruArea(fruArea& area, std::string_view field, const fieldSetting& setting);

/// The bytes of an area up to the mark behind its last text: without padding and checksum.
[[nodiscard]] byteString fruAreaContent(const fruArea& area);

/// @return a byte that makes the sum of all of them 0
[[nodiscard]] std::uint8_t fruZeroSum(std::span<const std::uint8_t> bytes);

} // namespace kest::contents
