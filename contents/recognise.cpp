#include "contents/recognise.h"

#include <algorithm>
#include <numeric>

#include "contents/formatlist.h"

namespace kest::contents
{
namespace
{

using imageBytes = std::span<const std::uint8_t>;

bool carriesBytes(std::string_view wanted, std::size_t at, imageBytes image)
{
    return at <= image.size() && wanted.size() <= image.size() - at &&
           std::equal(wanted.begin(), wanted.end(), image.begin() + static_cast<std::ptrdiff_t>(at),
                      [](char one, std::uint8_t other) { return static_cast<std::uint8_t>(one) == other; });
}

bool sumsToZero(imageBytes bytes) { return (std::accumulate(bytes.begin(), bytes.end(), 0U) & 0xFFU) == 0; }

bool holds(const signature& rule, imageBytes image)
{
    if (!rule.bytes.empty()) {
        return carriesBytes(rule.bytes, rule.at, image);
    }
    if (rule.at >= image.size()) {
        return false;
    }
    if (rule.zeroSum != 0) {
        return rule.zeroSum <= image.size() - rule.at && sumsToZero(image.subspan(rule.at, rule.zeroSum));
    }
    std::size_t at = rule.at;
    if (rule.pointerUnit != 0) {
        if (image[rule.at] == 0) {
            return false;
        }
        at = image[rule.at] * rule.pointerUnit + rule.plus;
    }
    if (at >= image.size()) {
        return false;
    }
    const unsigned value = image[at] & rule.mask;
    return value >= rule.least && value <= rule.most;
}

bool carries(std::span<const signature> rules, imageBytes image)
{
    return !rules.empty() &&
           std::all_of(rules.begin(), rules.end(), [&](const signature& rule) { return holds(rule, image); });
}

} // namespace

bool carriesFormat(const format& which, imageBytes image)
{
    return image.size() >= which.least &&
           (which.signatures.empty() || carries(which.signatures, image) || carries(which.otherwise, image));
}

std::vector<const format*> recognise(imageBytes image)
{
    std::vector<const format*> found;
    for (const format* each : formats()) {
        if (carriesFormat(*each, image)) {
            found.push_back(each);
        }
    }
    return found;
}

const format* findFormat(std::string_view name)
{
    const auto all = formats();
    const auto found = std::find_if(all.begin(), all.end(), [&](const format* each) { return each->name == name; });
    return found == all.end() ? nullptr : *found;
}

} // namespace kest::contents
