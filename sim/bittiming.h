/// How a bit divides into its low and its high part, and why every minimum of the bus standard holds with that.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kest::sim
{

/// Clocks up to 100 kHz are of Standard-mode, which wants long high parts.
constexpr std::uint64_t standardModeBitNs = 10'000;

/// SCL is low first: a half of a bit up to 100 kHz, and three fifths of it above. SDA moves in the middle of this part.
/// The bus is free for as long between a STOP and a START.
constexpr std::uint64_t lowPartNs(std::uint64_t bitNs)
{
    return bitNs >= standardModeBitNs ? bitNs / 2 : bitNs * 3 / 5;
}

/// The rest of the bit. It is also the set-up time of a repeated START and of a STOP, and the hold time of a START.
constexpr std::uint64_t highPartNs(std::uint64_t bitNs) { return bitNs - lowPartNs(bitNs); }

/// A repeated START takes a bit as a released SDA does, and the hold time.
constexpr std::uint64_t repeatedStartNs(std::uint64_t bitNs) { return bitNs + highPartNs(bitNs); }

/// Minima of a mode of the bus, in nanoseconds. Source: NXP UM10204, revision 6, table 10.
struct busMinima {
    std::uint64_t bitNs; ///< of the mode's fastest clock
    std::uint64_t low, high, setUpStart, holdStart, setUpStop, busFree, setUpData;
};
inline constexpr std::array busModes{
    busMinima{.bitNs = 10'000,
              .low = 4700,
              .high = 4000,
              .setUpStart = 4700,
              .holdStart = 4000,
              .setUpStop = 4000,
              .busFree = 4700,
              .setUpData = 250},
    busMinima{.bitNs = 2500,
              .low = 1300,
              .high = 600,
              .setUpStart = 600,
              .holdStart = 600,
              .setUpStop = 600,
              .busFree = 1300,
              .setUpData = 100},
    busMinima{.bitNs = 1000,
              .low = 500,
              .high = 260,
              .setUpStart = 260,
              .holdStart = 260,
              .setUpStop = 260,
              .busFree = 500,
              .setUpData = 50},
};

/// Whether a mode's fastest clock keeps its minima, each with a margin.
constexpr bool keepsMinima(const busMinima& mode, std::uint64_t marginNs)
{
    const std::uint64_t low = lowPartNs(mode.bitNs) - marginNs, high = highPartNs(mode.bitNs) - marginNs;
    return low >= mode.low && low >= mode.busFree && lowPartNs(mode.bitNs) / 2 - marginNs >= mode.setUpData &&
           high >= mode.high && high >= mode.setUpStart && high >= mode.holdStart && high >= mode.setUpStop;
}

} // namespace kest::sim
