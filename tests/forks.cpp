#include "tests/forks.h"

#include <csignal>
#include <locale>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace kest::test
{
namespace
{

/// A process in which a thread does `work` while another forks after `delay`. Ends with 0 when the child of that fork
/// can do the same.
[[noreturn]] void forkDuringFirstUse(const std::function<bool()>& work, std::chrono::microseconds delay)
{
    std::thread first([&work] { work(); });
    for (const auto until = std::chrono::steady_clock::now() + delay; std::chrono::steady_clock::now() < until;) {
        continue;
    }
    const pid_t child = fork();
    if (child == 0) {
        alarm(hangSeconds);
        // Then it ends abruptly: the thread sanitizer would miss the other thread in it.
        if (work()) {
            raise(SIGKILL);
        }
        _exit(1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    first.join();
    _exit(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL ? 0 : 1);
}

} // namespace

int failedBesideFirstUse(const std::function<bool()>& work)
{
    constexpr int rounds = 60;
    int failed = 0;
    // What the C++ library itself does once in a process with threads is not under test: the thread sanitizer's
    // pthread_once() knows no forks.
    std::thread([] { std::locale(); }).join();
    for (int round = 0; round < rounds && failed == 0; ++round) {
        const pid_t fresh = fork();
        if (fresh == 0) {
            forkDuringFirstUse(work, std::chrono::microseconds((8 + round % 8) << round / 8));
        }
        int status = -1;
        waitpid(fresh, &status, 0);
        failed += status == 0 ? 0 : 1;
    }
    return failed;
}

} // namespace kest::test
