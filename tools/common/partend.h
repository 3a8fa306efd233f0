/// Where a part with one offset byte ends: after 256 bytes, or only after more blocks that have addresses of their own.
#pragma once

#include <cstdint>

#include "tools/common/widthreads.h"

namespace kest::tools
{

enum class partEnd : std::uint8_t {
    notKnown,
    at256,
    nextAddress, ///< it goes on at other addresses: 24C04 to 24C16
};

struct endFinding {
    partEnd end = partEnd::notKnown;
    bool readFailed = false;
    bool isSteady = true; ///< the bytes before the end are those that were read there before
};

/// Reads across byte 255 behind one offset byte, and the start of other addresses where that leaves it open.
/// @param reads    has read the first 256 bytes
/// @param address  8-bit form
[[nodiscard]] endFinding findPartEnd(widthReads& reads, std::uint8_t address);

} // namespace kest::tools
