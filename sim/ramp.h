/// An even change of the temperature around a sensor.
#pragma once

#include <cstdint>

namespace kest::sim
{

/// In whole numbers: a host whose processor multiplies and adds in one step rounds a sum of doubles otherwise.
struct temperatureRamp {
    std::int32_t fromMicroCelsius = 0, toMicroCelsius = 0;
    std::uint64_t begin = 0; ///< bus time, ns
    std::uint64_t lastingNs = 0;

    [[nodiscard]] std::uint64_t end() const { return begin + lastingNs; }
    /// The temperature at a bus time, rounded towards that of the begin; before the begin and after the end, theirs.
    [[nodiscard]] std::int32_t at(std::uint64_t now) const;
};

} // namespace kest::sim
