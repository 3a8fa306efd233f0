/// What a test has to know of the sanitizer that it was built with.
#pragma once

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

/// Skips a test that forks while another thread allocates. The C library's allocator and the thread sanitizer's are
/// ready for that; the address sanitizer's (GCC 12, LLVM 14) leaves a mutex locked in the child when the other thread
/// was refilling its stock of blocks, and the child's next allocation waits for it for ever.
#ifdef KEST_ADDRESS_SANITIZER
#define KEST_SKIP_FORK_OF_BUSY_THREADS()                                                                               \
    GTEST_SKIP() << "the address sanitizer's allocator can stay locked in the child"
#else
#define KEST_SKIP_FORK_OF_BUSY_THREADS() static_cast<void>(0)
#endif
