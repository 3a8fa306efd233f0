/// Writes that fail where they would end the process.
#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>

namespace kest::sim
{

/// While it lives, this thread's writes past a limit on file sizes fail with EFBIG, and do no more: the SIGXFSZ that
/// comes with each is blocked and taken back. What the program itself does about the signal stays as it is.
class quietWrites
{
public:
    quietWrites()
    {
        sigset_t pending;
        sigpending(&pending);
        m_pendingBefore = sigismember(&pending, SIGXFSZ) == 1;
        sigemptyset(&m_signal);
        sigaddset(&m_signal, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &m_signal, &m_before);
    }
    quietWrites(const quietWrites&) = delete;
    quietWrites& operator=(const quietWrites&) = delete;
    ~quietWrites()
    {
        const int error = errno;
        constexpr timespec now{};
        if (!m_pendingBefore) {
            sigtimedwait(&m_signal, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        errno = error;
    }

private:
    sigset_t m_signal{};
    sigset_t m_before{};
    bool m_pendingBefore = false;
};

} // namespace kest::sim
