#include "sim/ramp.h"

#include <algorithm>
#include <bit>

namespace kest::sim
{

std::int32_t temperatureRamp::at(std::uint64_t now) const
{
    const std::uint64_t passedNs = now - std::min(begin, now);
    if (passedNs >= lastingNs) {
        return toMicroCelsius;
    }
    const auto change = std::int64_t{toMicroCelsius} - fromMicroCelsius;
    // 17 bits less of a day leave 31 of them, and a change has 31, too; a short one keeps all its bits
    const int spare = std::max(static_cast<int>(std::bit_width(lastingNs)) - 31, 0);
    const auto passed = static_cast<std::int64_t>(passedNs >> spare);
    const auto all = static_cast<std::int64_t>(lastingNs >> spare);
    return static_cast<std::int32_t>(fromMicroCelsius + change * passed / all);
}

} // namespace kest::sim
