#include "contents/packedtext.h"

#include <algorithm>
#include <string_view>

namespace kest::contents
{
namespace
{

using byteSpan = std::span<const std::uint8_t>;

decodedValue bcdPlus(byteSpan bytes)
{
    constexpr std::string_view characters = "0123456789 -.";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        for (const unsigned nibble : {static_cast<unsigned>(byte) >> 4, byte & 0xFU}) {
            if (nibble >= characters.size()) {
                return damagedBytes(bytes, "a digit of its BCD plus text is reserved");
            }
            text += characters[nibble];
        }
    }
    return textValue(text);
}

decodedValue sixBit(byteSpan bytes)
{
    std::string text;
    unsigned held = 0;
    unsigned bits = 0;
    for (const std::uint8_t byte : bytes) {
        held |= static_cast<unsigned>(byte) << bits;
        for (bits += 8; bits >= 6; bits -= 6) {
            text += static_cast<char>(' ' + (held & 0x3F));
            held >>= 6;
        }
    }
    return textValue(text);
}

void appendUtf8(std::string& text, char32_t character)
{
    const auto byte = [&text](char32_t value) { text += static_cast<char>(static_cast<unsigned char>(value)); };
    if (character < 0x80) {
        byte(character);
    } else if (character < 0x800) {
        byte(0xC0 | character >> 6);
        byte(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        byte(0xE0 | character >> 12);
        byte(0x80 | (character >> 6 & 0x3F));
        byte(0x80 | (character & 0x3F));
    } else {
        byte(0xF0 | character >> 18);
        byte(0x80 | (character >> 12 & 0x3F));
        byte(0x80 | (character >> 6 & 0x3F));
        byte(0x80 | (character & 0x3F));
    }
}

bool isControl(char32_t character) { return character < 0x20 || (character >= 0x7F && character < 0xA0); }

decodedValue controlFound(byteSpan bytes) { return damagedBytes(bytes, "it has a control character"); }

/// The bytes before NUL characters at the end. @param size  bytes of a character
byteSpan withoutNul(byteSpan bytes, std::size_t size)
{
    const auto isNul = [](std::uint8_t byte) { return byte == 0; };
    while (bytes.size() >= size && std::ranges::all_of(bytes.last(size), isNul)) {
        bytes = bytes.first(bytes.size() - size);
    }
    return bytes;
}

decodedValue latin1(byteSpan bytes)
{
    std::string text;
    for (const std::uint8_t byte : withoutNul(bytes, 1)) {
        if (isControl(byte)) {
            return controlFound(bytes);
        }
        appendUtf8(text, byte);
    }
    return textValue(text);
}

decodedValue utf16(byteSpan bytes)
{
    constexpr char32_t firstHigh = 0xD800;
    constexpr char32_t firstLow = 0xDC00;
    constexpr char32_t behindLow = 0xE000;
    const auto unit = [bytes](std::size_t at) -> char32_t { return bytes[at] | char32_t{bytes[at + 1]} << 8; };
    if (bytes.size() % 2 != 0) {
        return damagedBytes(bytes, "its text of two-byte characters has an odd length");
    }
    std::string text;
    const std::size_t end = withoutNul(bytes, 2).size();
    for (std::size_t at = 0; at < end; at += 2) {
        const char32_t first = unit(at);
        if (isControl(first)) {
            return controlFound(bytes);
        }
        if (first < firstHigh || first >= behindLow) {
            appendUtf8(text, first);
            continue;
        }
        const char32_t second = first < firstLow && end - at >= 4 ? unit(at + 2) : 0;
        if (second < firstLow || second >= behindLow) {
            return damagedBytes(bytes, "its text of two-byte characters has half a surrogate pair");
        }
        appendUtf8(text, 0x10000 + ((first - firstHigh) << 10) + (second - firstLow));
        at += 2;
    }
    return textValue(text);
}

} // namespace

decodedValue unpackText(packing how, byteSpan bytes, bool english)
{
    switch (how) {
    case packing::binary:
        return {.value = std::vector<std::uint8_t>(bytes.begin(), bytes.end()), .text = spacedHex(bytes)};
    case packing::bcdPlus:
        return bcdPlus(bytes);
    case packing::sixBit:
        return sixBit(bytes);
    default:
        return english ? latin1(bytes) : utf16(bytes);
    }
}

} // namespace kest::contents
