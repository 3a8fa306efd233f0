/// The places of a ring: made, copied, and changed while writers are at work.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/host/trace/ring.h"

namespace kest::host::trace
{

/// @param clockOffset  ns to add to a record's time to get ns since 1970
void fillHeader(ringHeader& header, const trace_wobu_buffer& ring, std::uint64_t clockOffset);

std::size_t storageBytes(const trace_wobu_buffer& ring);

/// Makes a place in memory. @return null with `errno`
storage* memoryStorage(const trace_wobu_buffer& ring, std::uint64_t clockOffset);

/// Copies word by word: writers may be at work in `from`.
void copyLanes(storage& to, storage& from, const trace_wobu_buffer& ring);

/// @return the bytes of a place, as in a file
std::vector<std::uint8_t> imageOf(storage& source, const trace_wobu_buffer& ring);

/// Makes `to` the ring's place. Afterwards no line can go to the old one.
void moveRing(trace_wobu_buffer& ring, storage& to);

} // namespace kest::host::trace
