/// What everybody on a bus shares: directions, the clock, and the bits of conditions and bytes.
#pragma once

#include <cstdint>

namespace kest::sim
{

enum class direction : std::uint8_t {
    write,
    read
};

/// A bus's time, in nanoseconds. A chip that stretches SCL moves it on.
struct busClock {
    std::uint64_t now = 0;
    std::uint64_t bitLasting = 2500;
};

/// Bits of a START, a STOP, and a byte with its acknowledge.
constexpr std::uint64_t bitsOfCondition = 1, bitsOfByte = 9;

} // namespace kest::sim
