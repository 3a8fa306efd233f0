/// Counts the library's allocations, which use new (std::nothrow) and malloc(), and makes them fail. Fresh blocks do
/// not hold zeros. Bytes written beyond the end of a block are found when the block is released.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <utility>

#include "tests/platform/state.h"

// The linker redirects calls of malloc() and free() to these functions; shared libraries call the real ones.
extern "C" {
void* __real_malloc(std::size_t bytes) noexcept; // NOLINT: the linker's names
void __real_free(void* block) noexcept; // NOLINT
void* __wrap_malloc(std::size_t bytes) noexcept; // NOLINT
void __wrap_free(void* block) noexcept; // NOLINT
}

namespace scripted
{
namespace
{

enum class Source {
    single, ///< new
    array, ///< new[]
    plain ///< malloc()
};

constexpr const char* releaseNames[] = {"delete", "delete[]", "free()"};
constexpr const char* sourceNames[] = {"new", "new[]", "malloc()"};

constexpr int fill = 0xA5; ///< of a fresh block, and of the bytes beyond its end
constexpr std::size_t guardBytes = 16;

struct Block {
    Source kind;
    std::size_t bytes;
};

struct Allocations {
    std::mutex mutex;
    std::map<void*, Block> blocks;
    std::vector<std::string> errors;
    int failAfter = 0;
};

/// Never destroyed: blocks are released after main, too.
Allocations& allocations()
{
    static auto* const instance = new Allocations;
    return *instance;
}

std::atomic<int> tracked{0};
thread_local bool busy = false; ///< the bookkeeping allocates itself

void* allocate(std::size_t bytes, Source kind)
{
    Allocations& all = allocations();
    const std::scoped_lock lock{all.mutex};
    if (all.failAfter > 0 && --all.failAfter == 0) {
        return nullptr;
    }
#ifdef KEST_ADDRESS_SANITIZER
    void* const block = kind == Source::plain   ? __real_malloc(bytes)
                        : kind == Source::array ? ::operator new[](bytes)
                                                : ::operator new(bytes);
#else
    void* const block = __real_malloc(bytes + guardBytes);
    if (block != nullptr) {
        std::memset(block, fill, bytes + guardBytes);
        busy = true;
        all.blocks[block] = {kind, bytes};
        busy = false;
        ++tracked;
    }
#endif
    return block;
}

#ifndef KEST_ADDRESS_SANITIZER
void checkRelease(Allocations& all, const void* start, const Block& block, Source by)
{
    if (block.kind != by) {
        all.errors.push_back(std::string(releaseNames[static_cast<int>(by)]) + " of what came from " +
                             sourceNames[static_cast<int>(block.kind)]);
    }
    const auto* const end = static_cast<const unsigned char*>(start) + block.bytes;
    if (std::any_of(end, end + guardBytes, [](unsigned char byte) { return byte != fill; })) {
        all.errors.push_back("a block of " + std::to_string(block.bytes) + " bytes was written beyond its end");
    }
}

void release(void* block, Source by) noexcept
{
    if (block != nullptr && tracked.load() > 0 && !busy) {
        Allocations& all = allocations();
        const std::scoped_lock lock{all.mutex};
        busy = true;
        const auto found = all.blocks.find(block);
        if (found != all.blocks.end()) {
            checkRelease(all, block, found->second, by);
            all.blocks.erase(found);
            --tracked;
        }
        busy = false;
    }
    __real_free(block);
}
#endif

} // namespace

int trackedAllocations() { return tracked.load(); }

void forgetAllocations()
{
    Allocations& all = allocations();
    const std::scoped_lock lock{all.mutex};
    busy = true;
    all.blocks.clear();
    all.errors.clear();
    busy = false;
    tracked = 0;
    all.failAfter = 0;
}

void failAllocation(int n)
{
    const std::scoped_lock lock{allocations().mutex};
    allocations().failAfter = n;
}

std::vector<std::string> allocationErrors()
{
    const std::scoped_lock lock{allocations().mutex};
    return std::exchange(allocations().errors, {});
}

} // namespace scripted

void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept
{
    return scripted::allocate(bytes, scripted::Source::single);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept
{
    return scripted::allocate(bytes, scripted::Source::array);
}
void* __wrap_malloc(std::size_t bytes) noexcept
{
    return scripted::busy ? __real_malloc(bytes) : scripted::allocate(bytes, scripted::Source::plain);
}

#ifdef KEST_ADDRESS_SANITIZER
void __wrap_free(void* block) noexcept { __real_free(block); }
#else
void __wrap_free(void* block) noexcept { scripted::release(block, scripted::Source::plain); }
// In a static program the standard library's operator new would also call __wrap_malloc().
void* operator new(std::size_t bytes)
{
    void* const block = __real_malloc(std::max<std::size_t>(bytes, 1));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
void* operator new[](std::size_t bytes) { return ::operator new(bytes); }
// All of them take their memory from malloc(), so free() releases every block.
void operator delete(void* block) noexcept { scripted::release(block, scripted::Source::single); }
void operator delete(void* block, std::size_t) noexcept { scripted::release(block, scripted::Source::single); }
void operator delete[](void* block) noexcept { scripted::release(block, scripted::Source::array); }
void operator delete[](void* block, std::size_t) noexcept { scripted::release(block, scripted::Source::array); }
#endif
