#include "platform/host/errorlog/text.h"

#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <iterator>

#include "base/hex.h"
#include "base/utf8.h"

namespace kest::host
{

namespace
{

constexpr char32_t replacementCharacter = 0xFFFD;

/// Adds a character beyond ASCII as one or two units of UTF-16.
void addUnits(std::string& text, std::uint32_t point)
{
    constexpr std::uint32_t firstOfPairs = 0x10000;
    if (point >= firstOfPairs) {
        fmt::format_to(std::back_inserter(text), "\\u{:04x}\\u{:04x}", 0xD800 + ((point - firstOfPairs) >> 10),
                       0xDC00 + ((point - firstOfPairs) & 0x3FF));
    } else {
        fmt::format_to(std::back_inserter(text), "\\u{:04x}", point);
    }
}

void addPlain(std::string& text, char character)
{
    constexpr std::string_view escaped = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    const std::size_t found = escaped.find(character);
    if (found != escaped.npos) {
        text.append(1, '\\').append(1, letters[found]);
    } else if (static_cast<unsigned char>(character) < 0x20) {
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
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return quoted += '"';
}

std::string cleanText(std::string_view text)
{
    std::string clean;
    clean.reserve(text.size());
    while (!text.empty()) {
        const auto first = static_cast<unsigned char>(text.front());
        const bool isKept = (first >= 0x20 && first != 0x7F) || first == '\n' || first == '\t';
        std::size_t length = isKept ? utf8Length(text) : 0;
        if (length > 0) {
            clean += text.substr(0, length);
        } else {
            clean += "\\x";
            appendHexByte(clean, first, upperHexDigits);
            length = 1;
        }
        text.remove_prefix(length);
    }
    return clean;
}

} // namespace kest::host
