/// Points in time as texts.
#pragma once

#include <cstdint>
#include <string>

namespace kest::tools
{

/// Wall clock, ms since 1970 UTC.
[[nodiscard]] std::int64_t nowMs();

/// "2024-05-01T12:00:00.250Z". A time that no calendar has is shown as its number of milliseconds.
[[nodiscard]] std::string timeText(std::int64_t ms);

/// Reads "2024-05-01", "2024-05-01T12:00", "2024-05-01T12:00:00Z" (UTC), or a time ago: "90s", "15m", "2h", "7d".
/// Throws a `failure` (exit code 2).
[[nodiscard]] std::int64_t parseTime(const std::string& text, const std::string& what);

} // namespace kest::tools
