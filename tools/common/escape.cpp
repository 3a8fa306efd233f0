#include "tools/common/escape.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace kest::tools
{
namespace
{

struct range {
    char32_t first;
    char32_t last;
};

// Characters that show nothing, join others or change the direction of writing.
constexpr std::array<range, 10> hidden{{{0x0000, 0x001F},
                                        {0x007F, 0x009F},
                                        {0x00AD, 0x00AD},
                                        {0x0300, 0x036F},
                                        {0x061C, 0x061C},
                                        {0x200B, 0x200F},
                                        {0x2028, 0x202E},
                                        {0x2060, 0x206F},
                                        {0xFE00, 0xFEFF},
                                        {0xFFF0, 0x10FFFF}}};

/// Length of the well-formed UTF-8 character at the start of `text` that may be shown; 0 when there is none.
std::size_t shownCharacter(std::string_view text)
{
    const auto byteAt = [text](std::size_t index) {
        return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
    };
    const unsigned first = byteAt(0);
    std::size_t length = 0;
    char32_t value = 0;
    if (first < 0x80) {
        length = 1;
        value = first;
    } else if (first >= 0xC2 && first < 0xE0) {
        length = 2;
        value = first & 0x1FU;
    } else if (first >= 0xE0 && first < 0xF0) {
        length = 3;
        value = first & 0x0FU;
    }
    for (std::size_t index = 1; index < length; ++index) {
        if ((byteAt(index) & 0xC0U) != 0x80) {
            return 0;
        }
        value = (value << 6U) | (byteAt(index) & 0x3FU);
    }
    const bool wellFormed = length != 0 && (length < 3 || (value >= 0x800 && (value < 0xD800 || value > 0xDFFF)));
    const bool shown =
        wellFormed && std::ranges::none_of(hidden, [value](range r) { return value >= r.first && value <= r.last; });
    return shown ? length : 0;
}

} // namespace

std::string escaped(std::string_view text)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string result;
    while (!text.empty()) {
        const std::size_t length = shownCharacter(text);
        if (text.front() == '\\') {
            result += "\\\\";
        } else if (length != 0) {
            result += text.substr(0, length);
        } else {
            const auto byte = static_cast<unsigned char>(text.front());
            result += {'\\', 'x', digits[byte >> 4U], digits[byte & 15U]};
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return result;
}

std::string shellWord(std::string_view word)
{
    constexpr std::string_view harmless = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_@%+=:,./-";
    if (!word.empty() && word.find_first_not_of(harmless) == std::string_view::npos) {
        return std::string(word);
    }
    std::string quoted = "'";
    for (const char letter : word) {
        quoted +=
            // no backslash: escaped() doubles it
            letter == '\'' ? std::string("'\"'\"'") : std::string(1, letter);
    }
    return quoted + "'";
}

} // namespace kest::tools
