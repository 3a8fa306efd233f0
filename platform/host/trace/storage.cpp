#include "platform/host/trace/storage.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include "base/clock.h"
#include "platform/host/trace/hash.h"
#include "platform/host/trace/parser.h"
#include "platform/trace.h"

namespace kest::host::trace
{
namespace
{

void putWide(std::uint32_t (&words)[2], std::uint64_t value)
{
    words[0] = static_cast<std::uint32_t>(value >> 32);
    words[1] = static_cast<std::uint32_t>(value);
}

/// `earlier` is an image of `from`. Copies the lines that reached `from` too late to be in it. Waits a moment for
/// writers that had reserved their place before `from` was frozen.
void copyLatecomers(storage& to, storage& from, const std::uint32_t (&ends)[laneCount],
                    const std::vector<std::uint8_t>& earlier, const trace_wobu_buffer& ring)
{
    constexpr int patience = 1000;
    for (std::uint32_t lane = 0; lane < laneCount; ++lane) {
        const std::size_t offset = sizeof(ringHeader) + std::size_t{lane} * ring.laneStride;
        std::vector<std::uint8_t> now(ring.laneStride);
        laneReading reading;
        for (int attempt = 0; attempt < patience; ++attempt) {
            from.lane(lane, ring.laneStride).copyTo(now.data(), ring.laneUnits);
            reading = readLane({now.data() + laneHeadBytes, ring.laneUnits}, ends[lane], ring.seed);
            if (reading.whole) {
                break;
            }
            sched_yield();
        }
        const laneBytes before{earlier.data() + offset + laneHeadBytes, ring.laneUnits};
        for (recordBytesRead& record : reading.records) {
            if (!isRecordAt(before, record.tag, ring.seed)) {
                to.lane(lane, ring.laneStride)
                    .append(record.words.data(), record.words.size(), ring.laneUnits, ring.seed);
            }
        }
    }
}

} // namespace

void fillHeader(ringHeader& header, const trace_wobu_buffer& ring, std::uint64_t clockOffset)
{
    std::memcpy(header.magic, ringMagic, sizeof header.magic);
    header.order = orderMark;
    header.version = layoutVersion;
    header.headerBytes = sizeof(ringHeader);
    header.lanes = laneCount;
    header.laneStride = ring.laneStride;
    header.laneUnits = ring.laneUnits;
    header.seed = ring.seed;
    header.pid = static_cast<std::uint32_t>(getpid());
    putWide(header.clockOffset, clockOffset);
    putWide(header.created, clockNs(CLOCK_REALTIME));
    std::memcpy(header.bufferName, ring.name, sizeof ring.name);
    std::snprintf(header.processName, sizeof header.processName, "%s", program_invocation_short_name);
}

std::size_t storageBytes(const trace_wobu_buffer& ring)
{
    return sizeof(ringHeader) + std::size_t{ring.laneStride} * laneCount;
}

storage* memoryStorage(const trace_wobu_buffer& ring, std::uint64_t clockOffset)
{
    void* memory = mmap(nullptr, storageBytes(ring), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto* made = static_cast<storage*>(memory);
    fillHeader(made->header, ring, clockOffset);
    return made;
}

void copyLanes(storage& to, storage& from, const trace_wobu_buffer& ring)
{
    for (std::uint32_t lane = 0; lane < laneCount; ++lane) {
        to.lane(lane, ring.laneStride).copyFrom(from.lane(lane, ring.laneStride), ring.laneUnits);
    }
}

std::vector<std::uint8_t> imageOf(storage& source, const trace_wobu_buffer& ring)
{
    std::vector<std::uint8_t> image(storageBytes(ring));
    std::memcpy(image.data(), &source.header, sizeof(ringHeader));
    for (std::uint32_t lane = 0; lane < laneCount; ++lane) {
        source.lane(lane, ring.laneStride)
            .copyTo(image.data() + sizeof(ringHeader) + std::size_t{lane} * ring.laneStride, ring.laneUnits);
    }
    return image;
}

void moveRing(trace_wobu_buffer& ring, storage& to)
{
    storage* const place = ring.place.load(std::memory_order_acquire);
    // there was no memory for it after a fork
    if (place == nullptr) {
        ring.place.store(&to, std::memory_order_release);
        return;
    }
    storage& from = *place;
    copyLanes(to, from, ring);
    const std::vector<std::uint8_t> copied = imageOf(to, ring);
    ring.place.store(&to, std::memory_order_release);
    std::uint32_t ends[laneCount];
    for (std::uint32_t lane = 0; lane < laneCount; ++lane) {
        ends[lane] = from.lane(lane, ring.laneStride).freeze();
    }
    try {
        copyLatecomers(to, from, ends, copied, ring);
    } catch (const std::exception&) {
        trace_wobu_write_all(&ring, messageHash("no memory for late lines"), " %s,%s", __LINE__, 0, "useTraceFolder",
                             "no memory: lines may be missing here");
    }
    // `from` stays mapped: a writer may still hold its address
}

} // namespace kest::host::trace
