#include "platform/host/trace/parser.h"

#include <cstring>

namespace kest::host::trace
{
namespace
{

constexpr std::uint32_t wordsPerUnit = unitBytes / sizeof(std::uint32_t);

/// Bytes of word `index`, counted from unit `unit`, wrapping at the end of the lane.
const std::uint8_t* wordAt(laneBytes lane, std::uint32_t unit, std::uint32_t index)
{
    const std::uint32_t word = (unit * wordsPerUnit + index) % (lane.units * wordsPerUnit);
    return lane.bytes + word * sizeof(std::uint32_t);
}

/// @return units of the record that lies at `tag`'s place, 0 when there is no whole one with that tag
std::uint32_t unitsOfRecord(laneBytes lane, std::uint32_t tag, std::uint32_t seed)
{
    const std::uint32_t unit = positionIndex(tag);
    if (unit >= lane.units || loadWord(wordAt(lane, unit, wordTag), lane.foreign) != tag) {
        return 0;
    }
    const std::uint32_t kind = loadWord(wordAt(lane, unit, wordKind), lane.foreign);
    const std::uint32_t bytes = recordBytes(kind & 0xFFFF);
    if (bytes > maximumRecordBytes || bytes > lane.units * unitBytes) {
        return 0;
    }
    checkSum check(seed);
    for (std::uint32_t index = 0; index < bytes / sizeof(std::uint32_t); ++index) {
        if (index != wordCheck) {
            check.add(loadWord(wordAt(lane, unit, index), lane.foreign));
        }
    }
    return check.value() == loadWord(wordAt(lane, unit, wordCheck), lane.foreign) ? bytes / unitBytes : 0;
}

} // namespace

std::uint32_t loadWord(const std::uint8_t* bytes, bool foreign)
{
    std::uint32_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return foreign ? __builtin_bswap32(word) : word;
}

std::uint64_t loadWide(const std::uint8_t* bytes, bool foreign)
{
    std::uint64_t wide = 0;
    std::memcpy(&wide, bytes, sizeof wide);
    return foreign ? __builtin_bswap64(wide) : wide;
}

laneRecords findRecords(laneBytes lane, std::uint32_t position, std::uint32_t seed)
{
    laneRecords result;
    if (positionIndex(position) >= lane.units) {
        return result;
    }
    // The oldest bytes begin at the position; they were written one lap ago. Their first record is usually overwritten
    // in part. In the first lap there is nothing.
    const std::uint32_t index = positionIndex(position);
    bool inStep = false;
    std::uint32_t skipped = 0;
    for (std::uint32_t done = 0; done < lane.units;) {
        const std::uint32_t unit = (index + done) % lane.units;
        const std::uint32_t lap = (positionLap(position) - (unit >= index ? 1u : 0u)) & 0xFFFF;
        const std::uint32_t tag = lap << 16 | unit;
        const std::uint32_t units = unitsOfRecord(lane, tag, seed);
        if (units == 0 || units > lane.units - done) {
            inStep = inStep || tag == 0;
            skipped += inStep ? 1 : 0;
            ++done;
        } else {
            result.places.push_back({tag, units});
            inStep = true;
            done += units;
        }
    }
    result.whole = skipped == 0 && (inStep || position == 0);
    return result;
}

recordBytesRead takeRecord(laneBytes lane, const recordPlace& place)
{
    recordBytesRead record{place.tag, std::vector<std::uint32_t>(place.units * wordsPerUnit)};
    for (std::uint32_t index = 0; index < record.words.size(); ++index) {
        std::memcpy(&record.words[index], wordAt(lane, positionIndex(place.tag), index), sizeof(std::uint32_t));
    }
    return record;
}

std::uint64_t timeOfRecord(laneBytes lane, const recordPlace& place)
{
    const std::uint32_t unit = positionIndex(place.tag);
    return std::uint64_t{loadWord(wordAt(lane, unit, wordTimeHigh), lane.foreign)} << 32 |
           loadWord(wordAt(lane, unit, wordTimeLow), lane.foreign);
}

laneReading readLane(laneBytes lane, std::uint32_t position, std::uint32_t seed)
{
    const laneRecords found = findRecords(lane, position, seed);
    laneReading result;
    result.whole = found.whole;
    for (const recordPlace& place : found.places) {
        result.records.push_back(takeRecord(lane, place));
    }
    return result;
}

bool isRecordAt(laneBytes lane, std::uint32_t tag, std::uint32_t seed) { return unitsOfRecord(lane, tag, seed) != 0; }

} // namespace kest::host::trace
