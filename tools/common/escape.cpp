#include "tools/common/escape.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "base/utf8.h"

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

/// Length of the UTF-8 character at the start of `text`, which is not empty; 0 when it is malformed or not to be shown.
std::size_t shownCharacter(std::string_view text)
{
    const std::size_t length = utf8Length(text);
    if (length == 0) {
        return 0;
    }
    const char32_t point = codePoint(text.substr(0, length));
    const bool isHidden = std::ranges::any_of(hidden, [point](range r) { return point >= r.first && point <= r.last; });
    return isHidden ? 0 : length;
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
            // without a backslash, which escaped() would double
            letter == '\'' ? std::string("'\"'\"'") : std::string(1, letter);
    }
    return quoted + "'";
}

} // namespace kest::tools
