#include "sim/texttables.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kest::sim
{

namespace
{

using tableList = std::vector<textTable> textTables::*;
constexpr std::array<std::pair<std::string_view, tableList>, 3> headers{{
    {"[[bus]]", &textTables::buses},
    {"[[chip]]", &textTables::chips},
    {"[[fault]]", &textTables::faults},
}};
constexpr std::string_view blanks{" \t\r"};

/// @param line  from its first bracket on
/// @return null when it is no header of a machine file's table
tableList listOf(std::string_view line)
{
    for (const auto& [header, list] : headers) {
        if (line.starts_with(header)) {
            const std::size_t next = line.find_first_not_of(blanks, header.size());
            return next == std::string_view::npos || line[next] == '#' ? list : nullptr;
        }
    }
    return nullptr;
}

} // namespace

std::optional<textTables> findTables(std::string_view text)
{
    textTables found{.head = text, .buses = {}, .chips = {}, .faults = {}};
    std::string_view* open = &found.head;
    std::uint32_t number = 0;
    for (std::size_t at = 0, end = 0; at < text.size(); at = end) {
        end = std::min(text.find('\n', at), text.size() - 1) + 1;
        ++number;
        const std::string_view line = text.substr(at, end - at - (text[end - 1] == '\n' ? 1 : 0));
        const std::size_t bracket = line.find_first_not_of(blanks);
        if (bracket == std::string_view::npos || line[bracket] != '[') {
            continue;
        }
        const tableList list = listOf(line.substr(bracket));
        if (list == nullptr) {
            return std::nullopt;
        }
        *open = open->substr(0, at - static_cast<std::size_t>(open->data() - text.data()));
        (found.*list).push_back({text.substr(at), {number, static_cast<std::uint32_t>(bracket + 1)}});
        open = &(found.*list).back().text;
    }
    return found;
}

} // namespace kest::sim
