/// Times as people write them: "500ms", "2s", "1.5s", "5min".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/clock.h"

namespace kest
{

constexpr std::uint64_t nsPerDay = 86'400 * nsPerSecond;

/// Reads a time: a decimal number, with or without a fraction, and a unit: ns, us, ms, s, min (or m), h, d. No sign, no
/// blanks, no exponent. What is less than a nanosecond is dropped.
/// @param plainNs  the unit of a number that has none, ns; 0: such a number is no time
/// @return false for a text that is no time, or one that 64 bits don't hold
[[nodiscard]] bool readDuration(std::string_view text, std::uint64_t plainNs, std::uint64_t& nanoseconds);

/// "500ms", "2s", "5min", "1d": in the largest unit that leaves a whole number.
[[nodiscard]] std::string durationText(std::uint64_t nanoseconds);

} // namespace kest
