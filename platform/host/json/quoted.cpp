#include "platform/host/json/quoted.h"

#include <cstdint>

#include "base/hex.h"
#include "base/utf8.h"

namespace kest::host
{

namespace
{

constexpr std::uint32_t replacementCharacter = 0xFFFD;

/// Adds one unit of UTF-16.
void addUnit(std::string& text, std::uint32_t unit)
{
    text += "\\u";
    appendHexByte(text, static_cast<std::uint8_t>(unit >> 8), lowerHexDigits);
    appendHexByte(text, static_cast<std::uint8_t>(unit), lowerHexDigits);
}

/// Adds a character as one or two units.
void addUnits(std::string& text, std::uint32_t point)
{
    constexpr std::uint32_t firstOfPairs = 0x10000;
    if (point < firstOfPairs) {
        addUnit(text, point);
        return;
    }
    addUnit(text, 0xD800 + ((point - firstOfPairs) >> 10));
    addUnit(text, 0xDC00 + ((point - firstOfPairs) & 0x3FF));
}

void addPlain(std::string& text, char character)
{
    constexpr std::string_view escaped = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    const std::size_t found = escaped.find(character);
    if (found != escaped.npos) {
        text.append(1, '\\').append(1, letters[found]);
    } else if (static_cast<unsigned char>(character) < 0x20 || character == 0x7F) {
        addUnits(text, static_cast<unsigned char>(character));
    } else {
        text += character;
    }
}

} // namespace

std::string quotedText(std::string_view text)
{
    std::string quoted = "\"";
    while (!text.empty()) {
        const std::size_t length = utf8Length(text);
        if (length == 1) {
            addPlain(quoted, text.front());
        } else {
            addUnits(quoted, length == 0 ? replacementCharacter : codePoint(text.substr(0, length)));
        }
        text.remove_prefix(length == 0 ? brokenUtf8Length(text) : length);
    }
    return quoted += '"';
}

} // namespace kest::host
