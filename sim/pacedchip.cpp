#include "sim/pacedchip.h"

namespace kest::sim
{

namespace
{

void stretch(const chip& of, busClock& clock) { clock.now += of.pace().stretchUs * std::uint64_t{1000}; }

// Every second byte has a wrong bit, which is a guess: data sheets promise nothing above the fastest clock.
std::uint8_t garbled(chip& of, std::uint8_t byte)
{
    constexpr std::uint64_t whether = 0, which = 1;
    const chance choice = of.choiceOnTheWire();
    return choice.below(whether, 2) == 0 ? byte : static_cast<std::uint8_t>(byte ^ 1U << choice.below(which, 8));
}

} // namespace

bool startPaced(chip& of, direction way, busClock& clock, chipFaults& faults)
{
    if (!of.pace().follows(clock.bitLasting) && !of.pace().garbles) {
        return false;
    }
    const bool acknowledged = of.start(way, clock, faults);
    if (acknowledged && way == direction::write) {
        stretch(of, clock);
    }
    return acknowledged;
}

bool takePaced(chip& of, std::uint8_t byte, busClock& clock)
{
    const bool acknowledged = of.take(of.pace().follows(clock.bitLasting) ? byte : garbled(of, byte), clock);
    if (acknowledged) {
        stretch(of, clock);
    }
    return acknowledged;
}

std::uint8_t givePaced(chip& of, busClock& clock, chipFaults& faults)
{
    stretch(of, clock);
    const std::uint8_t byte = of.give(clock, faults);
    return of.pace().follows(clock.bitLasting) ? byte : garbled(of, byte);
}

bool losesBit(chip& stretching)
{
    constexpr std::uint32_t oneIn = 4;
    return stretching.choiceOnTheWire().below(0, oneIn) == 0;
}

} // namespace kest::sim
