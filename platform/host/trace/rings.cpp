#include "platform/host/trace/rings.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <span>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include "base/clock.h"
#include "base/folders.h"
#include "platform/host/trace/hash.h"
#include "platform/host/trace/parser.h"
#include "platform/host/trace/ring.h"
#include "platform/host/trace/ringfile.h"
#include "platform/trace.h"

namespace kest::host
{
namespace
{

using namespace trace;

constexpr std::size_t maximumRings = 32;

/// All rings of the process. Constant-initialised: usable before any constructor has run; never destroyed.
struct registry {
    std::mutex lock;
    std::array<trace_wobu_buffer, maximumRings> rings;
    std::size_t used = 0;
    std::uint64_t clockOffset = 0; ///< one for all rings, or their lines would not sort
    char folder[PATH_MAX] = {};
};
constinit registry everything;

std::span<trace_wobu_buffer> rings() { return {everything.rings.data(), everything.used}; }

trace_wobu_buffer* findRing(const char* name)
{
    const auto found =
        std::ranges::find_if(rings(), [name](const auto& ring) { return std::strcmp(ring.name, name) == 0; });
    return found == rings().end() ? nullptr : &*found;
}

bool isUsableName(const char* name)
{
    constexpr char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
    const std::size_t length = name == nullptr ? 0 : std::strlen(name);
    return length > 0 && length <= maximumNameBytes &&
           // it becomes part of a file name
           std::strspn(name, letters) == length;
}

void putWide(std::uint32_t (&words)[2], std::uint64_t value)
{
    words[0] = static_cast<std::uint32_t>(value >> 32);
    words[1] = static_cast<std::uint32_t>(value);
}

void fillHeader(ringHeader& header, const trace_wobu_buffer& ring)
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
    putWide(header.clockOffset, everything.clockOffset);
    putWide(header.created, clockNs(CLOCK_REALTIME));
    std::memcpy(header.bufferName, ring.name, sizeof ring.name);
    std::snprintf(header.processName, sizeof header.processName, "%s", program_invocation_short_name);
}

std::size_t storageBytes(const trace_wobu_buffer& ring)
{
    return sizeof(ringHeader) + std::size_t{ring.laneStride} * laneCount;
}

/// @return null with `errno`
storage* memoryStorage(const trace_wobu_buffer& ring)
{
    void* memory = mmap(nullptr, storageBytes(ring), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto* made = static_cast<storage*>(memory);
    fillHeader(made->header, ring);
    return made;
}

/// Copies word by word: writers may be at work in `from`.
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

/// Copies the lines that reached `from` too late to be in `earlier`, an image of it. Waits a moment for writers that
/// had reserved their place there before it was frozen.
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

/// Makes `to` the ring's place. From here on no line can go to the old one any more.
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

/// @return 0, or why the ring stays where it is
int tryFile(trace_wobu_buffer& ring, ringFileHandle& file)
{
    try {
        // what matters is whether files can be made in it
        (void)makeFolders(everything.folder);
        file = createRingFile(everything.folder, ring.name, storageBytes(ring));
        if (file.memory == nullptr) {
            return errno;
        }
        auto* to = static_cast<storage*>(file.memory);
        fillHeader(to->header, ring);
        moveRing(ring, *to);
        return 0;
    } catch (const std::exception&) {
        // no memory, and nothing has moved yet
        return ENOMEM;
    }
}

void moveToFile(trace_wobu_buffer& ring) noexcept
{
    ringFileHandle file;
    const int error = tryFile(ring, file);
    if (error == 0) {
        // the one in an earlier folder goes; its lines are in the new one
        std::swap(ring.file, file);
    } else {
        trace_wobu_write_all(&ring, messageHash("no file for the ring"), " %s,%s,%d", __LINE__, 0, "useTraceFolder",
                             everything.folder, error);
    }
    removeRingFile(file);
}

void tidyUp(const std::filesystem::path& folder) noexcept
{
    try {
        removeOldRings(folder);
    } catch (const std::exception&) {
        // the next process has memory for it
    }
}

void beforeFork() { everything.lock.lock(); }
void afterForkInParent() { everything.lock.unlock(); }

/// The parent goes on writing into its files; the child gets a copy, so that neither's lines end up among the other's.
void afterForkInChild()
{
    for (trace_wobu_buffer& ring : rings()) {
        storage* shared = ring.place.load(std::memory_order_acquire);
        if (ring.file.memory != nullptr && shared != nullptr) {
            storage* own = memoryStorage(ring);
            if (own != nullptr) {
                copyLanes(*own, *shared, ring);
            }
            ring.place.store(own, std::memory_order_release);
            closeRingFile(ring.file);
        } else if (shared != nullptr) {
            shared->header.pid = static_cast<std::uint32_t>(getpid());
        }
    }
    everything.folder[0] = '\0';
    everything.lock.unlock();
}

/// Ahead of every thread: a fork beside the one that makes the first ring waits for it, too.
[[maybe_unused]] const int watchesForks = pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);

/// @return null with `errno`
trace_wobu_buffer* makeRing(const char* name, std::size_t bytes)
{
    if (everything.used == maximumRings) {
        errno = ENOSPC;
        return nullptr;
    }
    if (everything.used == 0) {
        everything.clockOffset = clockNs(CLOCK_REALTIME) - clockNs(CLOCK_MONOTONIC);
    }
    trace_wobu_buffer& ring = everything.rings[everything.used];
    std::snprintf(ring.name, sizeof ring.name, "%s", name);
    ring.laneUnits = static_cast<std::uint32_t>(bytes / unitBytes);
    ring.laneStride = roundedUp(laneHeadBytes + ring.laneUnits * unitBytes, laneHeadBytes);
    // Not guessable from a client's side, so that no traced payload can pass for a record
    ring.seed =
        static_cast<std::uint32_t>((clockNs(CLOCK_REALTIME) ^ reinterpret_cast<std::uintptr_t>(&ring)) * 0x9E3779B1u);
    storage* made = memoryStorage(ring);
    if (made == nullptr) {
        return nullptr;
    }
    ring.place.store(made, std::memory_order_release);
    ++everything.used;
    if (everything.folder[0] != '\0') {
        moveToFile(ring);
    }
    return &ring;
}

} // namespace

void useTraceFolder(const std::filesystem::path& folder) noexcept
{
    const int error = errno;
    const std::lock_guard guard(everything.lock);
    const std::string& path = folder.native();
    const bool another = path != everything.folder;
    if (!path.empty() && path.size() < sizeof everything.folder) {
        path.copy(everything.folder, path.size());
        everything.folder[path.size()] = '\0';
        everything.clockOffset = clockNs(CLOCK_REALTIME) - clockNs(CLOCK_MONOTONIC);
        for (trace_wobu_buffer& ring : rings()) {
            if (another || ring.file.memory == nullptr) {
                moveToFile(ring);
            }
        }
        tidyUp(folder);
    }
    errno = error;
}

std::vector<std::uint8_t> copyRing(const char* name)
{
    const std::lock_guard guard(everything.lock);
    std::vector<std::uint8_t> image;
    trace_wobu_buffer* ring = name == nullptr ? nullptr : findRing(name);
    storage* source = ring == nullptr ? nullptr : ring->place.load(std::memory_order_acquire);
    if (source != nullptr) {
        image = imageOf(*source, *ring);
    }
    return image;
}

} // namespace kest::host

int trace_wobu_init_buffer(trace_wobu_descriptor* descriptor, const char* name, unsigned int size)
{
    using namespace kest::host;
    if (descriptor == nullptr || !isUsableName(name) || size == 0 || size > trace::maximumRingBytes) {
        if (descriptor != nullptr) {
            *descriptor = nullptr;
        }
        errno = EINVAL;
        return -1;
    }
    const std::lock_guard guard(everything.lock);
    *descriptor = findRing(name);
    if (*descriptor == nullptr) {
        *descriptor = makeRing(name, std::max<std::size_t>(size, trace::minimumRingBytes));
    }
    return *descriptor == nullptr ? -1 : 0;
}
