#include "sim/tomltext.h"

#include <algorithm>

namespace kest::sim
{

namespace
{

struct found {
    std::size_t at;
    std::string_view what;
};

// "[" or "[[", blanks, and then a name, a quoted one included, or the ']' of an empty one, which the parser refuses
// itself.
std::optional<found> checkHeader(std::string_view line)
{
    constexpr std::string_view blank{" \t"};
    constexpr std::string_view namesBegin{"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-\"']"};
    const std::size_t begin = line.find_first_not_of(blank);
    std::optional<found> trouble;
    if (begin != std::string_view::npos && line[begin] == '[') {
        const std::size_t brackets = line.substr(begin).starts_with("[[") ? 2 : 1;
        const std::size_t name = line.find_first_not_of(blank, begin + brackets);
        if (name == std::string_view::npos || namesBegin.find(line[name]) == std::string_view::npos) {
            trouble = found{begin, "a '[' without the name of a table"};
        }
    }
    return trouble;
}

std::optional<found> checkLine(std::string_view line)
{
    std::optional<found> trouble = checkHeader(line);
    // of the string we are in
    char quote = 0;
    for (std::size_t i = 0; !trouble && i < line.size() && (quote != 0 || line[i] != '#'); ++i) {
        const char c = line[i];
        if (static_cast<unsigned char>(c) >= 0x80) {
            trouble = found{i, "a character beyond ASCII outside a comment"};
        } else if (quote == 0 && (line.substr(i).starts_with("\"\"\"") || line.substr(i).starts_with("'''"))) {
            trouble = found{i, "a string of several lines"};
        } else if (quote == '"' && c == '\\') {
            ++i;
        } else if (quote == 0 ? c == '"' || c == '\'' : c == quote) {
            quote = quote == 0 ? c : 0;
        }
    }
    return trouble;
}

} // namespace

std::optional<textTrouble> findTextTrouble(std::string_view text)
{
    std::optional<textTrouble> trouble;
    for (std::size_t number = 1; !trouble && !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        if (const auto first = checkLine(text.substr(0, end))) {
            trouble = textTrouble{number, first->at + 1, first->what};
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return trouble;
}

} // namespace kest::sim
