/// A chip at the clock of its bus: what a chip that is too fast for it does, and clock stretching.
#pragma once

#include "sim/chip.h"

#include <cstdint>

namespace kest::sim
{

// As the chip's own start(), take() and give(). The clock moves on by what the chip stretches: after each byte that it
// acknowledges, and before each that it sends.

bool startPaced(chip& of, direction way, busClock& clock, chipFaults& faults);
bool takePaced(chip& of, std::uint8_t byte, busClock& clock);
std::uint8_t givePaced(chip& of, busClock& clock, chipFaults& faults);

/// Whether an adapter that stretches badly misses the first bit behind a stretched clock. One in four is a guess: it
/// depends on where in the adapter's own clock SCL rises.
bool losesBit(chip& stretching);

/// A byte whose first bit was taken twice: the last one is lost.
constexpr std::uint8_t withFirstBitTwice(std::uint8_t byte)
{
    return static_cast<std::uint8_t>((byte & 0x80) | byte >> 1);
}

} // namespace kest::sim
