/// Finds the records in a lane's bytes, which may be hostile.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/host/trace/layout.h"

namespace kest::host::trace
{

/// The records' part of a lane.
struct laneBytes {
    const std::uint8_t* bytes = nullptr;
    std::uint32_t units = 0;
    bool foreign = false; ///< words are in the other byte order
};

std::uint32_t loadWord(const std::uint8_t* bytes, bool foreign);
std::uint64_t loadWide(const std::uint8_t* bytes, bool foreign);

/// One whole record. Its words are as in the lane.
struct recordBytesRead {
    std::uint32_t tag = 0;
    std::vector<std::uint32_t> words;
};

struct laneReading {
    std::vector<recordBytesRead> records; ///< in the order of their reservation
    bool whole = false; ///< nothing is missing between the first record and the end
};

/// Reads the records before `position`.
laneReading readLane(laneBytes lane, std::uint32_t position, std::uint32_t seed);

/// Where a whole record lies.
struct recordPlace {
    std::uint32_t tag = 0;
    std::uint32_t units = 0;
};

struct laneRecords {
    std::vector<recordPlace> places; ///< in the order of their reservation
    bool whole = false; ///< nothing is missing between the first record and the end
};

/// Finds the records before `position` without copying them.
laneRecords findRecords(laneBytes lane, std::uint32_t position, std::uint32_t seed);

/// Copies a record that findRecords() found in the same bytes.
recordBytesRead takeRecord(laneBytes lane, const recordPlace& place);

/// The time of such a record, by its writer's clock.
std::uint64_t timeOfRecord(laneBytes lane, const recordPlace& place);

/// Whether the lane has the record with this tag, whole and in its place.
bool isRecordAt(laneBytes lane, std::uint32_t tag, std::uint32_t seed);

} // namespace kest::host::trace
