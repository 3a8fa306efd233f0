/// Bytes of a field from the text that a user gives for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "contents/table.h"

namespace kest::contents
{

using byteString = std::vector<std::uint8_t>;

/// How the text of a field becomes bytes.
enum class valueKind : std::uint8_t {
    text, ///< printable ASCII
    number, ///< decimal, or hexadecimal after 0x; most significant byte first
    stationAddress, ///< a MAC address of one station
    dateText, ///< "06/10/2016 01:57:31"
    minuteCount, ///< date and time as minutes since 1996, least significant byte first
    countryCode, ///< two capital letters, as in ISO 3166-1
    choice, ///< one of some texts, or its number
    hexBytes,
};

/// What a field takes.
struct valueRule {
    valueKind kind = valueKind::text;
    std::size_t leastBytes = 1;
    std::size_t mostBytes = 255; ///< a number has exactly this many bytes
    std::span<const named> names = {}; ///< of a choice
};

/// @return what a settable row of a format's table takes
[[nodiscard]] valueRule ruleOf(const row& field);

/// @return the bytes, with a whole refusal in `complaint` when the text is none of the rule's values: it says what would
/// be allowed
struct encodedValue {
    byteString bytes;
    std::string complaint; ///< empty: the value is good
};
[[nodiscard]] encodedValue encodeValue(const valueRule& rule, std::string_view text);

} // namespace kest::contents
