/// The part of `reader` that shows the bytes without a meaning.
#include "contents/decodedvalue.h"
#include "contents/reader.h"

namespace kest::contents
{
namespace
{

/// So many equal bytes 00 or FF in a row, at the end of others, are a fill.
constexpr std::size_t leastFill = 8;

/// @return where the run of one byte, 00 or FF, that ends at `end` begins; `end` when it is none or too short
std::size_t fillBegin(std::span<const std::uint8_t> image, std::size_t begin, std::size_t end)
{
    const std::uint8_t value = image[end - 1];
    std::size_t first = end;
    while (first > begin && image[first - 1] == value) {
        --first;
    }
    const bool isFill = (value == 0 || value == 0xFF) && (first == begin || end - first >= leastFill);
    return isFill ? first : end;
}

node otherBytes(std::span<const std::uint8_t> image, std::size_t begin, std::size_t end)
{
    const auto bytes = image.subspan(begin, end - begin);
    return {.name = "other.at" + std::to_string(begin),
            .label = "Not known",
            .value = std::vector<std::uint8_t>(bytes.begin(), bytes.end()),
            .text = spacedHex(bytes),
            .offset = begin,
            .length = bytes.size(),
            .is = verdict::unknown};
}

node fillNode(std::span<const std::uint8_t> image, std::size_t begin, std::size_t end)
{
    return {.name = "other.at" + std::to_string(begin),
            .label = "Fill",
            .text = std::to_string(end - begin) + " of " + spacedHex(image.subspan(begin, 1)),
            .offset = begin,
            .length = end - begin};
}

} // namespace

std::optional<node> reader::others() const
{
    node all{.name = "other", .label = "Other bytes"};
    for (const auto& [first, behind] : m_covered.gaps(m_image.size())) {
        const std::size_t fill = fillBegin(m_image, first, behind);
        if (fill > first) {
            all.children.push_back(otherBytes(m_image, first, fill));
        }
        if (fill < behind) {
            all.children.push_back(fillNode(m_image, fill, behind));
        }
    }
    return all.children.empty() ? std::nullopt : std::optional(std::move(all));
}

} // namespace kest::contents
