#include "base/utf8.h"

#include <algorithm>

namespace kest
{

namespace
{

std::size_t lengthByFirstByte(unsigned char first)
{
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first < 0xE0) {
        return 2;
    }
    if (first >= 0xE0 && first < 0xF0) {
        return 3;
    }
    return first >= 0xF0 && first < 0xF5 ? 4 : 0;
}

/// Whether a longer sequence stands for what a shorter one could, for half of a UTF-16 pair, or for no character.
bool overlongOrBeyond(unsigned char first, unsigned char second)
{
    return (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) || (first == 0xF0 && second < 0x90) ||
           (first == 0xF4 && second > 0x8F);
}

bool continues(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

} // namespace

std::size_t utf8Length(std::string_view text)
{
    const auto byte = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const std::size_t length = lengthByFirstByte(byte(0));
    if (length > text.size()) {
        return 0;
    }
    for (std::size_t index = 1; index < length; ++index) {
        if (!continues(text[index])) {
            return 0;
        }
    }
    return length > 2 && overlongOrBeyond(byte(0), byte(1)) ? 0 : length;
}

std::size_t brokenUtf8Length(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t whole = std::min(lengthByFirstByte(first), text.size());
    if (whole < 2 || !continues(text[1]) || overlongOrBeyond(first, static_cast<unsigned char>(text[1]))) {
        return 1;
    }
    return whole > 2 && continues(text[2]) ? 3 : 2;
}

char32_t codePoint(std::string_view character)
{
    const auto first = static_cast<unsigned char>(character.front());
    if (character.size() == 1) {
        return first;
    }
    char32_t point = first & (0x7FU >> character.size());
    for (const char byte : character.substr(1)) {
        point = point << 6 | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    return point;
}

} // namespace kest
