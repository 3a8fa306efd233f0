/// What a test needs to know about the sanitizer that it was built with.
#pragma once

#include "tests/places.h"

#if defined(__SANITIZE_ADDRESS__)
#define KEST_ADDRESS_SANITIZER
#elif defined(__SANITIZE_THREAD__)
#define KEST_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEST_ADDRESS_SANITIZER
#elif __has_feature(thread_sanitizer)
#define KEST_THREAD_SANITIZER
#endif
#endif

namespace kest::test
{

#if defined(KEST_ADDRESS_SANITIZER) || defined(KEST_THREAD_SANITIZER)
constexpr bool underSanitizer = true;
#else
constexpr bool underSanitizer = false;
#endif

} // namespace kest::test

/// Skips a test that forks while other threads run, where the child could hang for a reason outside this project. The
/// allocators of the address and thread sanitizers (GCC 12, LLVM 14) leave a mutex locked in the child when another
/// thread was refilling its stock of blocks; a program of 20 lines that only allocates shows it. The user-mode emulator
/// (QEMU 7.2) does so with a mutex of its own, all signals blocked, so that not even an alarm ends the child. The C
/// library's allocator is ready for such forks, so the builds without sanitizers run these tests.
#define KEST_SKIP_FORK_OF_BUSY_THREADS()                                                                               \
    do {                                                                                                               \
        if (kest::test::underSanitizer) {                                                                              \
            GTEST_SKIP() << "the sanitizer's allocator can stay locked in the child";                                  \
        }                                                                                                              \
        if (kest::test::isEmulated()) {                                                                                \
            GTEST_SKIP() << "the emulator can stay locked in the child";                                               \
        }                                                                                                              \
    } while (false)
