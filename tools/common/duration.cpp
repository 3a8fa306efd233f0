#include "tools/common/duration.h"

#include <fmt/core.h>

#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

/// "seconds" of nsPerSecond.
std::string nameOfPlain(std::uint64_t plainNs)
{
    return plainNs == nsPerSecond ? "seconds" : plainNs == nsPerMs ? "milliseconds" : durationText(plainNs);
}

failure badDuration(const std::string& text, const std::string& what, const std::string& expected)
{
    return wrongUse(fmt::format("{} '{}': expected {}", what, text, expected));
}

} // namespace

std::uint64_t parseDuration(const std::string& text, const std::string& what, const durationLimits& limits)
{
    std::uint64_t nanoseconds = 0;
    if (!readDuration(text, limits.plainNs, nanoseconds)) {
        throw badDuration(
            text, what,
            "a time such as 500ms, 2s or 5min" +
                (limits.plainNs == 0 ? "" : fmt::format("; a number alone means {}", nameOfPlain(limits.plainNs))));
    }
    if (nanoseconds < limits.leastNs || nanoseconds > limits.mostNs) {
        throw badDuration(text, what,
                          fmt::format("{} to {}", durationText(limits.leastNs), durationText(limits.mostNs)));
    }
    return nanoseconds;
}

} // namespace kest::tools
