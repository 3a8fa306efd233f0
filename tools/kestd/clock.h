/// The clock that limits and shares are counted by.
#pragma once

#include <chrono>
#include <cstdint>

namespace kest::service
{

/// Steady clock.
inline std::int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace kest::service
