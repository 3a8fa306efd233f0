#include "base/tomltext.h"

#include <algorithm>

namespace kest
{

namespace
{

struct found {
    std::size_t at;
    std::string_view what;
};

// After "[" or "[[" and blanks must come a name, which may be quoted, or the ']' of an empty one: the parser itself refuses
// that.
std::optional<found> checkHeader(std::string_view line)
{
    constexpr std::string_view blank{" \t"};
    constexpr std::string_view namesBegin{"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-\"']"};
    const std::size_t begin = line.find_first_not_of(blank);
    if (begin == std::string_view::npos || line[begin] != '[') {
        return std::nullopt;
    }
    const std::size_t brackets = line.substr(begin).starts_with("[[") ? 2 : 1;
    const std::size_t name = line.find_first_not_of(blank, begin + brackets);
    if (name == std::string_view::npos || namesBegin.find(line[name]) == std::string_view::npos) {
        return found{begin, "a '[' without the name of a table"};
    }
    return std::nullopt;
}

std::optional<found> checkLine(std::string_view line)
{
    if (const auto trouble = checkHeader(line)) {
        return trouble;
    }
    // of the string that `i` is in; 0 outside of strings
    char quote = 0;
    for (std::size_t i = 0; i < line.size() && (quote != 0 || line[i] != '#'); ++i) {
        const char c = line[i];
        if (static_cast<unsigned char>(c) >= 0x80) {
            return found{i, "a character beyond ASCII outside a comment"};
        }
        if (quote == 0 && (line.substr(i).starts_with("\"\"\"") || line.substr(i).starts_with("'''"))) {
            return found{i, "a string of several lines"};
        }
        if (quote == '"' && c == '\\') {
            ++i;
        } else if (quote == 0 ? c == '"' || c == '\'' : c == quote) {
            quote = quote == 0 ? c : 0;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<textTrouble> findTextTrouble(std::string_view text)
{
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        if (const auto first = checkLine(text.substr(0, end))) {
            return textTrouble{number, first->at + 1, first->what};
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return std::nullopt;
}

} // namespace kest
