/// Counts and fails the allocations by new (std::nothrow), which is how the library allocates.
#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <utility>

#include "tests/platform/state.h"

namespace scripted
{
namespace
{

struct Allocations {
    std::mutex               mutex;
    std::map<void*, bool>    arrays; ///< by block: whether it came from array new
    std::vector<std::string> errors;
    int                      failAfter = 0;
};

/// Never destroyed: blocks are released after main, too.
Allocations& allocations()
{
    static auto* const instance = new Allocations;
    return *instance;
}

std::atomic<int>  tracked{0};
thread_local bool busy = false; ///< the bookkeeping allocates itself

void* allocate(std::size_t bytes, bool array)
{
    Allocations&           all = allocations();
    const std::scoped_lock lock{all.mutex};
    if (all.failAfter > 0 && --all.failAfter == 0) {
        return nullptr;
    }
    void* const block = array ? ::operator new[](bytes) : ::operator new(bytes);
#ifndef KEST_ADDRESS_SANITIZER
    busy              = true;
    all.arrays[block] = array;
    busy              = false;
    ++tracked;
#endif
    return block;
}

#ifndef KEST_ADDRESS_SANITIZER
void release(void* block, bool array) noexcept
{
    if (block != nullptr && tracked.load() > 0 && !busy) {
        Allocations&           all = allocations();
        const std::scoped_lock lock{all.mutex};
        busy             = true;
        const auto found = all.arrays.find(block);
        if (found != all.arrays.end()) {
            if (found->second != array) {
                all.errors.emplace_back(array ? "delete[] of what came from new" : "delete of what came from new[]");
            }
            all.arrays.erase(found);
            --tracked;
        }
        busy = false;
    }
    std::free(block);
}
#endif

} // namespace

int trackedAllocations() { return tracked.load(); }

void forgetAllocations()
{
    Allocations&           all = allocations();
    const std::scoped_lock lock{all.mutex};
    busy = true;
    all.arrays.clear();
    all.errors.clear();
    busy          = false;
    tracked       = 0;
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

void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return scripted::allocate(bytes, false); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return scripted::allocate(bytes, true); }

#ifndef KEST_ADDRESS_SANITIZER
// The library's operator new takes its memory from malloc(): so free() fits every block.
void operator delete(void* block) noexcept { scripted::release(block, false); }
void operator delete(void* block, std::size_t) noexcept { scripted::release(block, false); }
void operator delete[](void* block) noexcept { scripted::release(block, true); }
void operator delete[](void* block, std::size_t) noexcept { scripted::release(block, true); }
#endif
