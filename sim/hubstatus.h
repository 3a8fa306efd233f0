/// How a 922 hub's latest command or transfer ended.
#pragma once

#include <cstdint>

namespace kest::sim
{

enum class hubStatus : std::uint8_t {
    done = 0,
    malformedCommand = 1,
    noAnswer = 2,
    subBusSdaHeld = 3,
    subBusSclHeld = 4,
    arbitrationLost = 5,
    subBusTimeout = 6,
    noSuchPort = 7,
    tooLong = 8,
    outOfReset = 15,
};

/// In words, also for a number that is none of them.
const char* textOf(hubStatus status);

} // namespace kest::sim
