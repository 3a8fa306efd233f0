/// The system's monotonic clock, for machines in real time.
#pragma once

#include "sim/realclock.h"

namespace kest::sim
{

class systemClock final : public realClock
{
public:
    std::uint64_t nowNs() override;
    void sleepUntil(std::uint64_t nanoseconds) override;
};

} // namespace kest::sim
