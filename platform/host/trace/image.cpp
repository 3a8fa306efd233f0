#include "platform/host/trace/image.h"

#include <algorithm>
#include <atomic>

#include "platform/host/trace/arguments.h"
#include "platform/host/trace/header.h"
#include "platform/host/trace/parser.h"
#include "platform/host/trace/text.h"

namespace kest::host
{
namespace
{

using namespace trace;

constinit std::atomic<std::uint32_t> formatted{0};

/// A record whose place in the order of time is known. It has no text yet.
struct foundRecord {
    laneBytes lane;
    recordPlace place;
    std::uint64_t timeNs = 0; ///< since 1970
};

traceRecord makeRecord(const foundRecord& found, const std::string& buffer)
{
    formatted.fetch_add(1, std::memory_order_relaxed);
    const bool foreign = found.lane.foreign;
    const recordBytesRead read = takeRecord(found.lane, found.place);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(read.words.data());
    const auto word = [bytes, foreign](std::size_t index) {
        return loadWord(bytes + index * sizeof(std::uint32_t), foreign);
    };
    const std::uint32_t kind = word(wordKind);
    argumentReader payload({bytes + recordHeadBytes, kind & 0xFFFF}, foreign);
    traceRecord record;
    record.timeNs = found.timeNs;
    record.thread = word(wordThread);
    record.hash = word(wordHash);
    record.line = word(wordLine);
    record.cut = (kind & kindCutFlag) != 0;
    record.binary = (kind >> 16 & 0xFF) == kindBinary;
    record.buffer = buffer;
    if (record.binary) {
        const std::uint32_t headerSize = payload.number();
        record.dataSize = payload.number();
        const auto header = payload.bytes(headerSize);
        const auto data = payload.bytes(record.dataSize);
        record.header.assign(header.begin(), header.end());
        record.data.assign(data.begin(), data.end());
    } else {
        record.text = formatText(payload);
    }
    return record;
}

/// The records of all lanes, oldest first. @param read  the image's header, usable
std::vector<foundRecord> findInOrder(std::span<const std::uint8_t> image, const headerReading& read)
{
    const ringHeader& header = read.header;
    const std::uint64_t clock = std::uint64_t{header.clockOffset[0]} << 32 | header.clockOffset[1];
    std::vector<foundRecord> records;
    for (std::uint32_t number = 0; number < header.lanes; ++number) {
        const std::uint8_t* bytes = image.data() + header.headerBytes + std::size_t{number} * header.laneStride;
        const laneBytes lane{bytes + laneHeadBytes, header.laneUnits, read.foreign};
        const laneRecords found = findRecords(lane, loadWord(bytes, read.foreign), header.seed);
        for (const recordPlace& place : found.places) {
            records.push_back({lane, place, timeOfRecord(lane, place) + clock});
        }
    }
    std::ranges::stable_sort(records, {}, &foundRecord::timeNs);
    return records;
}

} // namespace

ringContents readRingImage(std::span<const std::uint8_t> image)
{
    ringContents contents;
    const headerReading read = readHeader(image);
    if (!read.trouble.empty()) {
        contents.error = read.trouble;
        return contents;
    }
    contents.info = makeInfo(read.header);
    for (const foundRecord& found : findInOrder(image, read)) {
        contents.records.push_back(makeRecord(found, contents.info.buffer));
    }
    return contents;
}

void readLatest(std::span<const std::uint8_t> image, const std::function<bool(const traceRecord&)>& wanted)
{
    const headerReading read = readHeader(image);
    if (!read.trouble.empty()) {
        return;
    }
    const std::string buffer = makeInfo(read.header).buffer;
    const std::vector<foundRecord> records = findInOrder(image, read);
    auto record = records.rbegin();
    while (record != records.rend() && wanted(makeRecord(*record, buffer))) {
        ++record;
    }
}

std::uint32_t recordsFormatted() { return formatted.load(std::memory_order_relaxed); }

} // namespace kest::host
