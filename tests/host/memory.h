/// Processes that run out of memory: the n-th allocation fails, for every n.
#pragma once

#include <functional>
#include <string>

namespace kest::test
{

/// Does `work` in children of this process. The first child has no memory for its first allocation, the next one for
/// its second, and so on, until a child gets by with fewer; first with memory for all further allocations, then without
/// any. Counted are new, malloc() and calloc() of the thread that does the work, of our own code and of the C++
/// library.
/// @param work  answers whether all that is promised without memory has been kept
/// @return what was not: the first allocation that led to another answer, or to a signal; empty when there was none
std::string withoutMemory(const std::function<bool()>& work);

/// Within `work`: memory is there again. For checks that need some.
void giveMemoryBack();

/// Whether allocations can be made to fail in this build.
bool memoryCanFail();

} // namespace kest::test

/// The thread sanitizer has put its own operator new in the place of everybody's.
#define KEST_SKIP_UNLESS_MEMORY_CAN_FAIL()                                                                             \
    if (!kest::test::memoryCanFail())                                                                                  \
    GTEST_SKIP() << "the sanitizer's operator new can't be replaced"
