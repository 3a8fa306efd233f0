/// What a write changes: the old bytes, the pages that have to go out, and what shows whether they may.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "tools/common/contentsguard.h"
#include "tools/common/identity.h"
#include "tools/common/readback.h"
#include "tools/common/seeprom.h"
#include "tools/common/widthguard.h"

namespace kest::tools
{

struct writePlan {
    byteRange whole;
    std::span<const unsigned char> bytes; ///< of all of it
    byteVector old;
    std::vector<byteRange> ranges; ///< that need writing
    std::uint32_t total = 0; ///< bytes of these
    // where something needs writing; not judged yet
    identityFinding part = {};
    contentsFinding contents = {}; ///< without a finding unless it was asked for
};

struct planOptions {
    bool allPages = false; ///< also pages that already hold the bytes
    bool contents = true; ///< what becomes of the part's contents is of interest
};

/// Reads all that a write has to know: the old bytes, those of few pages that need writing once more, what the device
/// table expects, and the contents. Throws a `failure`: when both reads of one page differ, since an undo file would hold
/// wrong bytes; and as `width` does.
/// @param bytes  to be written, of all of `whole`; the caller's
[[nodiscard]] writePlan makePlan(seeprom& chip, const byteRange& whole, std::span<const unsigned char> bytes,
                                 const planOptions& options, widthGuard& width);

/// Pages that a range touches.
[[nodiscard]] std::uint32_t pagesIn(const byteRange& range, std::uint32_t pageBytes);
/// From the beginning up to the last of the first `done` bytes that were written.
[[nodiscard]] byteRange partWritten(const writePlan& plan, std::uint32_t done);
/// The plan as a write whose result is in question; lives no longer than the plan.
[[nodiscard]] doubtfulWrite inDoubt(const writePlan& plan);

} // namespace kest::tools
