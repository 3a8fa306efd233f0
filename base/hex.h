/// Hexadecimal digits.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kest
{

constexpr std::string_view lowerHexDigits = "0123456789abcdef";
constexpr std::string_view upperHexDigits = "0123456789ABCDEF";

/// Adds the two digits of a byte. @param digits  lowerHexDigits or upperHexDigits
inline void appendHexByte(std::string& to, std::uint8_t byte, std::string_view digits)
{
    to += {digits[byte >> 4], digits[byte & 0xF]};
}

/// Adds two lower-case digits for each byte.
void appendHexDigits(std::string& to, std::span<const std::uint8_t> bytes);

/// @return two lower-case digits for each byte
std::string hexDigits(std::span<const std::uint8_t> bytes);

/// @return the bytes that hexDigits() wrote; nothing when the text is not of that form
std::optional<std::vector<std::uint8_t>> bytesOfHexDigits(std::string_view digits);

} // namespace kest
