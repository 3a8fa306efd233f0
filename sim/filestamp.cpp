#include "sim/filestamp.h"

#include "base/clock.h"

#include <algorithm>

#include <time.h>

namespace kest::sim
{

namespace
{

// Longer than the tick of stamps without nanoseconds, which is a second.
constexpr std::uint64_t longTickNs = 3 * nsPerSecond;

std::uint64_t nsOf(const timespec& time)
{
    return static_cast<std::uint64_t>(time.tv_sec) * nsPerSecond + static_cast<std::uint64_t>(time.tv_nsec);
}

} // namespace

fileStamp fileStamp::of(const struct ::stat& found)
{
    return {.device = found.st_dev,
            .number = found.st_ino,
            .size = found.st_size,
            .modifiedNs = nsOf(found.st_mtim),
            .changedNs = nsOf(found.st_ctim)};
}

bool fileStamp::isSettled(std::uint64_t takenAtNs, std::uint64_t tickNs) const
{
    const std::uint64_t tick = changedNs % nsPerSecond == 0 ? std::max(longTickNs, tickNs) : tickNs;
    return takenAtNs >= changedNs && takenAtNs - changedNs >= tick;
}

} // namespace kest::sim
