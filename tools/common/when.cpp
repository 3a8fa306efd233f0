#include "tools/common/when.h"

#include <chrono>
#include <ctime>
#include <fmt/core.h>
#include <string_view>

#include "base/duration.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

constexpr std::int64_t msPerSecond = 1000;

/// A time before now; a number alone is none.
bool parseAgo(std::string_view text, std::int64_t& ms)
{
    std::uint64_t agoNs = 0;
    if (!readDuration(text, 0, agoNs)) {
        return false;
    }
    ms = nowMs() - static_cast<std::int64_t>(agoNs / nsPerMs);
    return true;
}

bool parseDate(const std::string& text, std::int64_t& ms)
{
    for (const char* format : {"%Y-%m-%d", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M:%SZ"}) {
        std::tm parts{};
        const char* end = strptime(text.c_str(), format, &parts);
        if (end != nullptr && *end == 0) {
            const std::tm written = parts;
            ms = static_cast<std::int64_t>(timegm(&parts)) * msPerSecond;
            // not so on February 30
            return written.tm_mday == parts.tm_mday && written.tm_sec == parts.tm_sec;
        }
    }
    return false;
}

} // namespace

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string timeText(std::int64_t ms)
{
    const std::int64_t fraction = ((ms % msPerSecond) + msPerSecond) % msPerSecond;
    const auto seconds = static_cast<std::time_t>((ms - fraction) / msPerSecond);
    std::tm parts{};
    if (gmtime_r(&seconds, &parts) == nullptr) {
        return fmt::format("{} ms", ms);
    }
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                       parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, fraction);
}

std::int64_t parseTime(const std::string& text, const std::string& what)
{
    std::int64_t ms = 0;
    if (!parseAgo(text, ms) && !parseDate(text, ms)) {
        throw wrongUse(fmt::format(
            "{} '{}': expected a time such as 2024-05-01, 2024-05-01T12:00:00Z, 90s, 15m, 2h or 7d", what, text));
    }
    return ms;
}

} // namespace kest::tools
