/// The part of `reader` that shows the bytes without a meaning, and bits of them.
#include "contents/decodedvalue.h"
#include "contents/reader.h"

namespace kest::contents
{
namespace
{

/// So many equal bytes 00 or FF in a row, at the end of others, are a fill.
constexpr std::size_t leastFill = 8;
constexpr std::size_t bitsOfByte = 8;

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

node otherBits(std::span<const std::uint8_t> image, std::size_t at, std::uint8_t mask)
{
    const auto bits = static_cast<std::uint8_t>(image[at] & mask);
    return {.name = "other.bitsAt" + std::to_string(at),
            .label = "Bits not known",
            .value = std::int64_t{bits},
            .text = "0x" + spacedHex({&bits, 1}),
            .offset = at,
            .length = 1,
            .is = verdict::unknown};
}

/// The bits of one byte of a number that has `bits` bits from `bit` up.
/// @param significance  0 for the lowest byte
std::uint8_t maskOf(std::size_t bit, std::size_t bits, std::size_t significance)
{
    std::uint8_t mask = 0;
    for (std::size_t each = 0; each < bitsOfByte; ++each) {
        const std::size_t place = significance * bitsOfByte + each;
        if (place >= bit && place < bit + bits) {
            mask = static_cast<std::uint8_t>(mask | 1U << each);
        }
    }
    return mask;
}

} // namespace

void reader::cover(const row& field, const window& block, const node& value)
{
    if (value.bits == 0) {
        m_covered.add(value.offset, value.length);
    }
    for (std::size_t index = 0; value.bits != 0 && index < value.length; ++index) {
        const std::size_t significance = field.order == byteOrder::big ? value.length - 1 - index : index;
        if (const std::uint8_t mask = maskOf(value.bit, value.bits, significance); mask != 0) {
            m_covered.addBits(value.offset + index, mask);
        }
    }
    for (const place& piece : field.more) {
        if (piece.at < block.size()) {
            m_covered.addBits(block.begin + piece.at, maskOf(piece.bit, piece.bits, 0));
        }
    }
    if (field.fine.at != 0 && field.fine.at < block.size()) {
        const std::uint8_t bits = field.fine.bits == 0 ? bitsOfByte : field.fine.bits;
        m_covered.addBits(block.begin + field.fine.at, maskOf(field.fine.bit, bits, 0));
    }
}

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
    for (const auto& [at, mask] : m_covered.openBits()) {
        if ((m_image[at] & mask) != 0) {
            all.children.push_back(otherBits(m_image, at, mask));
        }
    }
    return all.children.empty() ? std::nullopt : std::optional(std::move(all));
}

} // namespace kest::contents
