/// The system's clocks as numbers.
#pragma once

#include <cstdint>

#include <ctime>

namespace kest
{

constexpr std::uint64_t nsPerSecond = 1'000'000'000;
constexpr std::uint64_t nsPerMs = 1'000'000;

/// @param clock  CLOCK_REALTIME, CLOCK_MONOTONIC, ... @return its time, ns. A signal handler may call it.
inline std::uint64_t clockNs(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * nsPerSecond + static_cast<std::uint64_t>(now.tv_nsec);
}

/// @return the steady clock's time, ms; for time-outs and shares
inline std::int64_t steadyMs() { return static_cast<std::int64_t>(clockNs(CLOCK_MONOTONIC) / nsPerMs); }

} // namespace kest
