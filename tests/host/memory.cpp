#include "tests/host/memory.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/host/trace_support.h"
#include "tests/sanitizers.h"

namespace
{

struct Shortage {
    int ahead = 0; ///< allocations until one fails, that one included; 0: none fails
    bool lasts = false;
    bool met = false;
};
constinit thread_local Shortage memory;

bool refused()
{
    const bool now = memory.ahead == 1;
    memory.met = memory.met || now;
    if (memory.ahead > 1 || (now && !memory.lasts)) {
        --memory.ahead;
    }
    return now;
}

} // namespace

// NOLINTBEGIN: the linker's names
extern "C" {
void* __real_malloc(std::size_t bytes);
void* __real_calloc(std::size_t count, std::size_t bytes);
void* __wrap_malloc(std::size_t bytes) { return refused() ? nullptr : __real_malloc(bytes); }
void* __wrap_calloc(std::size_t count, std::size_t bytes) { return refused() ? nullptr : __real_calloc(count, bytes); }
}
// NOLINTEND

#ifndef KEST_THREAD_SANITIZER
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept
{
    return refused() ? nullptr : __real_malloc(bytes > 0 ? bytes : 1);
}
void* operator new(std::size_t bytes)
{
    void* const block = operator new(bytes, std::nothrow);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
void* operator new[](std::size_t bytes) { return operator new(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return operator new(bytes, std::nothrow); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }
#endif

namespace kest::test
{
namespace
{

enum Outcome {
    kept,
    broken,
    thrown,
    enough, ///< every allocation had its memory
};

int attempt(const std::function<bool()>& work, int failing, bool lasts)
{
    return inChild([&] {
        memory = {failing, lasts, false};
        int ended = thrown;
        try {
            ended = !work() ? broken : memory.met ? kept : enough;
        } catch (...) {
            // a child must never continue with the other tests
        }
        giveMemoryBack();
        return ended;
    });
}

std::string describe(int failing, bool lasts, int ended)
{
    return "allocation " + std::to_string(failing) + (lasts ? " and all further ones: " : ": ") +
           (ended == broken   ? "a promise was not kept"
            : ended == thrown ? "threw"
                              : "ended with " + std::to_string(ended));
}

} // namespace

std::string withoutMemory(const std::function<bool()>& work)
{
    for (const bool lasts : {false, true}) {
        int ended = kept;
        for (int failing = 1; ended == kept; ++failing) {
            ended = attempt(work, failing, lasts);
            if (ended != kept && ended != enough) {
                return describe(failing, lasts, ended);
            }
        }
    }
    return "";
}

void giveMemoryBack() { memory.ahead = 0; }

bool memoryCanFail()
{
#ifdef KEST_THREAD_SANITIZER
    return false;
#else
    return true;
#endif
}

} // namespace kest::test
