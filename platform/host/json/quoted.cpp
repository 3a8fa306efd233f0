#include "platform/host/json/quoted.h"

#include <array>
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

/// Whether a JSON text has a character as it is, by the character's byte.
constexpr std::array<bool, 256> plainBytes = [] {
    std::array<bool, 256> plain{};
    for (std::size_t byte = 0x20; byte < 0x7F; ++byte) {
        plain[byte] = byte != '"' && byte != '\\';
    }
    return plain;
}();

/// @return how many characters at the start of `text` are plain
std::size_t plainLength(std::string_view text)
{
    std::size_t length = 0;
    while (length < text.size() && plainBytes[static_cast<unsigned char>(text[length])]) {
        ++length;
    }
    return length;
}

/// Adds a character of one byte that is not plain.
void addEscaped(std::string& text, char character)
{
    constexpr std::string_view escaped = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    const std::size_t found = escaped.find(character);
    if (found != escaped.npos) {
        text.append(1, '\\').append(1, letters[found]);
    } else {
        addUnits(text, static_cast<unsigned char>(character));
    }
}

} // namespace

std::string quotedText(std::string_view text)
{
    std::string quoted;
    appendQuoted(quoted, text);
    return quoted;
}

void appendQuoted(std::string& to, std::string_view text)
{
    to += '"';
    while (!text.empty()) {
        // most texts are plain all along
        const std::size_t plain = plainLength(text);
        to.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        const std::size_t length = utf8Length(text);
        if (length == 1) {
            addEscaped(to, text.front());
        } else {
            addUnits(to, length == 0 ? replacementCharacter : codePoint(text.substr(0, length)));
        }
        text.remove_prefix(length == 0 ? brokenUtf8Length(text) : length);
    }
    to += '"';
}

} // namespace kest::host
