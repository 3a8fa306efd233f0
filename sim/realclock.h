/// Real time as a machine sees it.
#pragma once

#include <cstdint>

namespace kest::sim
{

/// Nanoseconds from any begin, which never go back.
struct realClock {
    virtual ~realClock() = default;
    virtual std::uint64_t nowNs() = 0;
    /// Waits until nowNs() has reached a time.
    virtual void sleepUntil(std::uint64_t nanoseconds) = 0;
};

} // namespace kest::sim
