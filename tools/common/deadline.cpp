#include "tools/common/deadline.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <poll.h>
#include <unistd.h>

#include "base/clock.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

/// Filled in before the timer runs, and never changed again: a signal handler reads it.
lastReport& lastWords()
{
    static lastReport theOnes;
    return theOnes;
}
const lastReport* said = nullptr;
volatile std::sig_atomic_t begun = 0;

/// Writes as much as goes out at once: nobody who leaves a pipe full, or has closed it, delays the end.
void sayAtOnce(int descriptor, const std::string& text)
{
    pollfd wait{descriptor, POLLOUT, 0};
    if (!text.empty() && poll(&wait, 1, 0) == 1 && wait.revents == POLLOUT) {
        static_cast<void>(!write(descriptor, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF)));
    }
}

extern "C" void endNow(int /*signal*/)
{
    sayAtOnce(STDERR_FILENO, said->errorText);
    if (begun == 0) {
        sayAtOnce(STDOUT_FILENO, said->outputText);
    }
    _exit(exitFailed);
}

/// A signal that was blocked or ignored when the process began would never come.
bool takeSignal()
{
    struct sigaction action {
    };
    action.sa_handler = endNow;
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    return sigaction(SIGALRM, &action, nullptr) == 0 && pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr) == 0;
}

} // namespace

int endAfter(std::uint64_t nanoseconds, const lastReport& report)
{
    lastWords() = report;
    said = &lastWords();
    timer_t timer{};
    itimerspec time{};
    time.it_value.tv_sec = static_cast<time_t>(nanoseconds / nsPerSecond);
    time.it_value.tv_nsec = static_cast<long>(nanoseconds % nsPerSecond);
    const bool runs = takeSignal() && timer_create(CLOCK_MONOTONIC, nullptr, &timer) == 0 &&
                      timer_settime(timer, 0, &time, nullptr) == 0;
    return runs ? 0 : errno;
}

bool endsInTime() { return said != nullptr; }

void beginsOutput() { begun = 1; }

} // namespace kest::tools
