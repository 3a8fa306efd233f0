#include "base/quietwrites.h"

#include <array>
#include <cerrno>
#include <ctime>

namespace kest
{

namespace
{

constexpr std::array quieted{SIGPIPE, SIGXFSZ};

void takeBack(int signal)
{
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    constexpr timespec now{};
    sigtimedwait(&one, nullptr, &now);
}

} // namespace

quietWrites::quietWrites()
{
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : quieted) {
        sigaddset(&blocked, signal);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
    sigemptyset(&m_pendingBefore);
    for (const int signal : quieted) {
        if (sigismember(&m_before, signal) == 1) {
            // only a signal that was blocked can be waiting
            sigpending(&m_pendingBefore);
            break;
        }
    }
}

quietWrites::~quietWrites()
{
    const int error = errno;
    sigset_t caused;
    sigpending(&caused);
    for (const int signal : quieted) {
        if (sigismember(&caused, signal) == 1 && sigismember(&m_pendingBefore, signal) == 0) {
            takeBack(signal);
        }
    }
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    errno = error;
}

} // namespace kest
