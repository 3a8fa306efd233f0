/// Processes that run out of memory: the n-th allocation fails, for every n.
#pragma once

#include <functional>
#include <string>

namespace kest::test
{

/// Does `work` in children of this process. The first child has no memory for its first allocation, the next one for
/// its second, and so on, until a child needs fewer. All of this happens twice: with memory for the later allocations,
/// then without. New, malloc() and calloc() count, in the thread that does the work, from our own code and from the C++
/// library.
/// @param work  returns whether everything that is promised for a lack of memory was kept
/// @return the first allocation whose failure broke a promise, or ended in a signal; empty when there is none
std::string withoutMemory(const std::function<bool()>& work);

/// Within `work`: all further allocations succeed. For checks that need memory.
void giveMemoryBack();

/// Whether allocations can be made to fail in this build.
bool memoryCanFail();

} // namespace kest::test

/// The thread sanitizer replaces operator new itself.
#define KEST_SKIP_UNLESS_MEMORY_CAN_FAIL()                                                                             \
    if (!kest::test::memoryCanFail())                                                                                  \
    GTEST_SKIP() << "the sanitizer's operator new can't be replaced"
