/// Times as users write them: "500ms", "2s", "1.5s", "5min".
#pragma once

#include <cstdint>
#include <string>

#include "base/duration.h"

namespace kest::tools
{

/// What a time may be.
struct durationLimits {
    /// The unit of a number that has none, ns; 0: such a number is refused.
    std::uint64_t plainNs = nsPerSecond;
    std::uint64_t leastNs = 0;
    std::uint64_t mostNs = nsPerDay;
};

/// Reads a time as readDuration() does.
/// @param what  names the time in the error: "--wait"
/// @return nanoseconds. Throws a `failure` (exit code 2) that names text, units and limits.
[[nodiscard]] std::uint64_t parseDuration(const std::string& text, const std::string& what,
                                          const durationLimits& limits = {});

} // namespace kest::tools
