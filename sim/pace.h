/// How fast a chip is, and how it makes itself waited for.
#pragma once

#include <cstdint>

namespace kest::sim
{

/// Why a chip holds SCL: it needs time for each byte. A memory or register chip rarely does; small controllers that
/// play one do.
struct chipPace {
    std::uint32_t maxKhz = 1000; ///< the fastest clock that it follows
    bool garbles = false; ///< above that clock it answers with wrong bits; else it doesn't answer
    std::uint32_t stretchUs = 0; ///< for each byte, addresses included

    /// @param bitNs  of the clock on its bus, rounded down as bus time does it
    [[nodiscard]] constexpr bool follows(std::uint64_t bitNs) const { return bitNs >= 1'000'000 / maxKhz; }

    bool operator==(const chipPace&) const = default;
};

/// Highest value of a machine file.
constexpr std::uint32_t longestStretchUs = 1'000'000;

} // namespace kest::sim
