#include "contents/decodedvalue.h"

#include <utility>

#include "base/hex.h"

namespace kest::contents
{

decodedValue damagedBytes(std::span<const std::uint8_t> bytes, std::string problem)
{
    return {.value = std::vector<std::uint8_t>(bytes.begin(), bytes.end()),
            .text = spacedHex(bytes),
            .is = verdict::damaged,
            .problem = std::move(problem)};
}

decodedValue textValue(std::string text) { return {.value = text, .text = text}; }

std::string spacedHex(std::span<const std::uint8_t> bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        if (!text.empty()) {
            text += ' ';
        }
        appendHexByte(text, byte, upperHexDigits);
    }
    return text;
}

} // namespace kest::contents
