#include "tools/kestctl/bytedifferences.h"

#include <algorithm>
#include <span>

#include "tools/common/files.h"

namespace kest::tools
{

std::vector<std::uint32_t> differences(const comparison& both)
{
    std::vector<std::uint32_t> offsets;
    for (std::size_t at = 0; at < both.present.size(); ++at) {
        if (both.present[at] != both.other[at]) {
            offsets.push_back(static_cast<std::uint32_t>(at));
        }
    }
    return offsets;
}

std::string diffLines(const comparison& both, const std::vector<std::uint32_t>& offsets)
{
    constexpr std::uint32_t width = 16;
    std::string text;
    std::uint32_t next = 0;
    for (const std::uint32_t at : offsets) {
        if (at < next) {
            continue;
        }
        const std::uint32_t start = at / width * width;
        const std::size_t count = std::min<std::size_t>(width, both.present.size() - start);
        text += "- " + hexLines(both.range.offset + start, std::span(both.present).subspan(start, count));
        text += "+ " + hexLines(both.range.offset + start, std::span(both.other).subspan(start, count));
        next = start + width;
    }
    return text;
}

} // namespace kest::tools
