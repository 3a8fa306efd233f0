/// The clock of a simulated bus.
#pragma once

#include <algorithm>
#include <cstdint>

namespace kest::sim
{

/// A faster clock is asked for in vain.
constexpr std::uint32_t fastestKhz = 1000;

/// The clock of a transaction, kHz. @param asked  0: the bus's own
constexpr std::uint32_t clockKhz(std::uint32_t asked, std::uint32_t own)
{
    return std::clamp(asked == 0 ? own : asked, std::uint32_t{1}, fastestKhz);
}

} // namespace kest::sim
