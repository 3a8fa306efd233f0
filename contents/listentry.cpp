#include "contents/listentry.h"

#include <algorithm>
#include <string_view>

#include "contents/bitfield.h"

namespace kest::contents
{
namespace
{

std::uint64_t headerNumber(const listRule& rule, std::string_view name, std::span<const std::uint8_t> header)
{
    const auto* const found =
        std::find_if(rule.header.begin(), rule.header.end(), [name](const row& each) { return each.name == name; });
    if (name.empty() || found == rule.header.end()) {
        return 0;
    }
    const auto number = rawNumberOf(*found, header, found->at, found->length);
    return number ? number->value : 0;
}

} // namespace

std::optional<listEntry> entryAt(const listRule& rule, const window& list, std::size_t at,
                                 std::span<const std::uint8_t> image)
{
    if (rule.headerLength > list.end - at) {
        return std::nullopt;
    }
    const auto header = image.subspan(at, rule.headerLength);
    listEntry found{.type = headerNumber(rule, rule.typeField, header),
                    .length = headerNumber(rule, rule.lengthField, header)};
    const std::size_t begin = at + rule.headerLength;
    found.isLast = found.type == rule.lastType || headerNumber(rule, rule.lastField, header) != 0;
    found.fits = found.length <= list.end - begin;
    const std::size_t end = found.fits ? begin + static_cast<std::size_t>(found.length) : list.end;
    found.value = {.begin = begin, .end = end, .isCut = !found.fits};
    found.whole = {.begin = at, .end = end, .isCut = !found.fits};
    return found;
}

} // namespace kest::contents
