#include "contents/candidate.h"

#include <algorithm>

#include "contents/formatlist.h"

namespace kest::contents
{
namespace
{

/// Bytes of an image, some of which are known.
struct partlyKnown {
    std::span<const std::uint8_t> bytes;
    std::size_t offset;

    [[nodiscard]] bool has(std::size_t at) const { return at >= offset && at - offset < bytes.size(); }
    [[nodiscard]] std::uint8_t operator[](std::size_t at) const { return bytes[at - offset]; }
};

/// Sums and pointers count as open: one unknown byte is enough for that.
bool canHold(const signature& rule, const partlyKnown& image)
{
    if (!rule.bytes.empty()) {
        for (std::size_t index = 0; index < rule.bytes.size(); ++index) {
            const std::size_t at = rule.at + index;
            if (image.has(at) && image[at] != static_cast<std::uint8_t>(rule.bytes[index])) {
                return false;
            }
        }
        return true;
    }
    if (rule.zeroSum != 0 || rule.pointerUnit != 0 || !image.has(rule.at)) {
        return true;
    }
    const unsigned value = image[rule.at] & rule.mask;
    return value >= rule.least && value <= rule.most;
}

bool canCarry(std::span<const signature> rules, const partlyKnown& image)
{
    return !rules.empty() && std::ranges::all_of(rules, [&](const signature& rule) { return canHold(rule, image); });
}

} // namespace

bool canHaveFormat(std::span<const std::uint8_t> known, std::size_t offset)
{
    const partlyKnown image{known, offset};
    return std::ranges::any_of(formats(), [&](const format* each) {
        return canCarry(each->signatures, image) || canCarry(each->otherwise, image);
    });
}

} // namespace kest::contents
