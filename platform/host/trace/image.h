/// Reads a ring's bytes, from memory or from a file. They may be hostile.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "platform/host/trace/record.h"

namespace kest::host
{

/// @param image  as in a file. Torn records in it are left out.
ringContents readRingImage(std::span<const std::uint8_t> image);

/// Reads a ring's bytes from the latest record backwards; none when the bytes are no ring. A record is formatted when
/// its turn has come, so that those nobody wants cost little.
/// @param image  as in a file
/// @param wanted  takes a record; returns whether it wants another
void readLatest(std::span<const std::uint8_t> image, const std::function<bool(const traceRecord&)>& wanted);

/// Records whose texts this process has made, for tests of how much work a reading is. Counts modulo 2^32.
std::uint32_t recordsFormatted();

} // namespace kest::host
