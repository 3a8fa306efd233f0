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
#include <span>
#include <string>
#include <unistd.h>
#include <utility>

#include "base/clock.h"
#include "base/folders.h"
#include "platform/host/trace/hash.h"
#include "platform/host/trace/ring.h"
#include "platform/host/trace/ringfile.h"
#include "platform/host/trace/storage.h"
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
    std::uint64_t clockOffset = 0; ///< one for all rings, so that their lines sort
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

/// @return 0, or why the ring stays where it is
int tryFile(trace_wobu_buffer& ring, ringFileHandle& file)
{
    try {
        // without a check: what matters is whether the file can be made
        (void)makeFolders(everything.folder);
        file = createRingFile(everything.folder, ring.name, storageBytes(ring));
        if (file.memory == nullptr) {
            return errno;
        }
        auto* to = static_cast<storage*>(file.memory);
        fillHeader(to->header, ring, everything.clockOffset);
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
        // removes the file in an earlier folder: its lines are in the new one
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
        // without memory the next process does it
    }
}

void beforeFork() { everything.lock.lock(); }
void afterForkInParent() { everything.lock.unlock(); }

/// The parent goes on writing into its files. The child gets a copy, so that their lines do not mix.
void afterForkInChild()
{
    for (trace_wobu_buffer& ring : rings()) {
        storage* shared = ring.place.load(std::memory_order_acquire);
        if (ring.file.memory != nullptr && shared != nullptr) {
            storage* own = memoryStorage(ring, everything.clockOffset);
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

/// Registered before any thread runs: a fork during the making of the first ring waits for it, too.
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
    // clients cannot guess it, so that no traced payload can pass for a record
    ring.seed =
        static_cast<std::uint32_t>((clockNs(CLOCK_REALTIME) ^ reinterpret_cast<std::uintptr_t>(&ring)) * 0x9E3779B1u);
    storage* made = memoryStorage(ring, everything.clockOffset);
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
