#include "sim/systemclock.h"

#include "base/clock.h"

#include <cerrno>

#include <time.h>

namespace kest::sim
{

std::uint64_t systemClock::nowNs() { return clockNs(CLOCK_MONOTONIC); }

void systemClock::sleepUntil(std::uint64_t nanoseconds)
{
    timespec until{};
    until.tv_sec = static_cast<time_t>(nanoseconds / nsPerSecond);
    until.tv_nsec = static_cast<long>(nanoseconds % nsPerSecond);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {}
}

} // namespace kest::sim
