/// What the system knows of a file or folder.
#pragma once

#include <cstdint>

#include <sys/stat.h>

namespace kest::sim
{

/// No change leaves it as it is, unless two come within one tick of the system's clock. A folder changes when names are
/// added or taken away.
struct fileStamp {
    /// Longer than the tick of most file systems' stamps, which is that of the kernel: at most 10 ms.
    static constexpr std::uint64_t safeTickNs = 100'000'000;

    dev_t device = 0;
    ino_t number = 0;
    off_t size = -1; ///< of no file
    std::uint64_t modifiedNs = 0, changedNs = 0;

    static fileStamp of(const struct ::stat& found);
    bool operator==(const fileStamp&) const = default;
    /// Whether a later change shows in a stamp that was taken at a time of the system's clock.
    /// @param tickNs  what was changed less than this before may be changed again without a new stamp
    [[nodiscard]] bool isSettled(std::uint64_t takenAtNs, std::uint64_t tickNs) const;
};

} // namespace kest::sim
