/// Where a part with one offset byte ends: after 256 bytes, or only after more blocks that have addresses of their own.
#pragma once

#include <cstddef>
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

    bool operator==(const endFinding&) const = default;
};

/// Bytes from offset 0 on that usually show where a part ends.
inline constexpr std::size_t startBytes = 8;

/// Reads across byte 255 behind one offset byte, and the start of other addresses where that leaves it open.
/// @param reads    knows the first 256 bytes
/// @param address  8-bit form
/// @param start    bytes from offset 0 on that are compared, at most 256: as many as it takes to tell them from those
///                 of another block. Where the adapter takes no read of so many, the end is not known
[[nodiscard]] endFinding findPartEnd(widthReads& reads, std::uint8_t address, std::size_t start = startBytes);

} // namespace kest::tools
