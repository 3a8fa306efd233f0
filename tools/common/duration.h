/// Times as users write them: "500ms", "2s", "1.5s", "5min".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/clock.h"

namespace kest::tools
{

constexpr std::uint64_t nsPerDay = 86'400 * nsPerSecond;

/// What a time may be.
struct durationLimits {
    /// The unit of a number that has none, ns; 0: such a number is refused.
    std::uint64_t plainNs = nsPerSecond;
    std::uint64_t leastNs = 0;
    std::uint64_t mostNs = nsPerDay;
};

/// Reads a time: a decimal number, with or without a fraction, and a unit: ns, us, ms, s, min (or m), h, d. No sign, no
/// blanks, no exponent. What is less than a nanosecond is dropped.
/// @param what  names the time in the error: "--wait"
/// @return nanoseconds. Throws a `failure` (exit code 2) that names text, units and limits.
[[nodiscard]] std::uint64_t parseDuration(const std::string& text, const std::string& what,
                                          const durationLimits& limits = {});

/// The same without a complaint. @return false for a text that is no time, or one that 64 bits don't hold
[[nodiscard]] bool readDuration(std::string_view text, std::uint64_t plainNs, std::uint64_t& nanoseconds);

/// "500ms", "2s", "5min", "1d": in the largest unit that leaves a whole number.
[[nodiscard]] std::string durationText(std::uint64_t nanoseconds);

} // namespace kest::tools
