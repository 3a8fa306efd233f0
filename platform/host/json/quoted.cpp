#include "platform/host/json/quoted.h"

#include <array>
#include <cstdint>
#include <cstring>

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

constexpr std::uint64_t inEachByte(std::uint8_t value) { return 0x0101010101010101U * value; }

/// Whether eight bytes are all plain. A byte that is not gets its highest bit in one of the terms; among plain ones no
/// term carries from one byte to the next.
bool arePlain(std::uint64_t bytes)
{
    const std::uint64_t atLeast7f = bytes | (bytes + inEachByte(1));
    const std::uint64_t below20 = bytes - inEachByte(0x20);
    const std::uint64_t quotes = (bytes ^ inEachByte('"')) - inEachByte(1);
    const std::uint64_t backslashes = (bytes ^ inEachByte('\\')) - inEachByte(1);
    return ((atLeast7f | below20 | quotes | backslashes) & inEachByte(0x80)) == 0;
}

/// @return how many characters at the start of `text` are plain
std::size_t plainLength(std::string_view text)
{
    std::size_t length = 0;
    for (std::uint64_t bytes = 0; text.size() - length >= sizeof bytes; length += sizeof bytes) {
        std::memcpy(&bytes, text.data() + length, sizeof bytes);
        if (!arePlain(bytes)) {
            break;
        }
    }
    while (length < text.size() && plainBytes[static_cast<unsigned char>(text[length])]) {
        ++length;
    }
    return length;
}

/// By byte, the letter behind a backslash that stands for it; 0 for all others.
constexpr std::array<char, 256> escapeLetters = [] {
    constexpr std::string_view escaped = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    std::array<char, 256> found{};
    for (std::size_t index = 0; index < escaped.size(); ++index) {
        found[static_cast<unsigned char>(escaped[index])] = letters[index];
    }
    return found;
}();

/// Adds the character at the start of `text`, which is not plain. @return how many bytes it has
std::size_t addOther(std::string& to, std::string_view text)
{
    if (const char letter = escapeLetters[static_cast<unsigned char>(text.front())]; letter != 0) {
        to += {'\\', letter};
        return 1;
    }
    const std::size_t length = utf8Length(text);
    addUnits(to, length == 0 ? replacementCharacter : codePoint(text.substr(0, length)));
    return length == 0 ? brokenUtf8Length(text) : length;
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
        // most texts are plain all along, or have long pieces that are
        const std::size_t plain = plainLength(text);
        to.append(text.data(), plain);
        text.remove_prefix(plain);
        if (!text.empty()) {
            text.remove_prefix(addOther(to, text));
        }
    }
    to += '"';
}

} // namespace kest::host
