#include "tools/common/deadline.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <unistd.h>

#include "base/clock.h"
#include "base/descriptor.h"
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

extern "C" void endNow(int /*signal*/)
{
    static_cast<void>(writeAll(STDERR_FILENO, said->errorText));
    static_cast<void>(writeAll(STDOUT_FILENO, said->outputText));
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

} // namespace kest::tools
