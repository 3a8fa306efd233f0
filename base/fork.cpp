#include "base/fork.h"

#include <atomic>

namespace kest
{
namespace
{

constinit std::atomic<std::uint32_t> forks{0};
[[maybe_unused]] const int watched =
    pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });

} // namespace

std::uint32_t forksBehind() { return forks.load(std::memory_order_relaxed); }

} // namespace kest
