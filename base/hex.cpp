#include "base/hex.h"

namespace kest
{

void appendHexDigits(std::string& to, std::span<const std::uint8_t> bytes)
{
    const std::size_t had = to.size();
    to.resize(had + 2 * bytes.size());
    char* at = to.data() + had;
    for (const std::uint8_t byte : bytes) {
        *at++ = lowerHexDigits[byte >> 4];
        *at++ = lowerHexDigits[byte & 0xF];
    }
}

std::string hexDigits(std::span<const std::uint8_t> bytes)
{
    std::string text;
    appendHexDigits(text, bytes);
    return text;
}

std::optional<std::vector<std::uint8_t>> bytesOfHexDigits(std::string_view digits)
{
    if (digits.size() % 2 != 0) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes(digits.size() / 2);
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        const std::size_t high = lowerHexDigits.find(digits[2 * index]);
        const std::size_t low = lowerHexDigits.find(digits[2 * index + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos) {
            return std::nullopt;
        }
        bytes[index] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return bytes;
}

} // namespace kest
