#include "platform/host/errorlog/tell.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/quietwrites.h"
#include "platform/host/errorlog/waiting.h"

namespace kest::host
{

namespace
{

constexpr std::chrono::milliseconds patienceForReaders{1000};
constexpr int pollMs = 20;

/// Standard error, written without waiting as far as that can be had.
class unblockedError
{
public:
    unblockedError();
    /// @return as write(2)
    [[nodiscard]] ssize_t writeOnce(std::string_view text) const;

private:
    bool m_isFile = false;
    fileDescriptor m_again; ///< a pipe or a terminal, opened a second time
};

/// Opened again, a full pipe or a stopped terminal fails with EAGAIN, and what other processes share stays as it is. A
/// file opened again would be written from its beginning.
unblockedError::unblockedError()
{
    struct stat facts {
    };
    const bool known = fstat(STDERR_FILENO, &facts) == 0;
    m_isFile = known && S_ISREG(facts.st_mode);
    if (known && (S_ISFIFO(facts.st_mode) || S_ISCHR(facts.st_mode))) {
        m_again = fileDescriptor(ownDescriptor(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)));
    }
}

ssize_t unblockedError::writeOnce(std::string_view text) const
{
    ssize_t moved = -1;
    if (m_again.valid()) {
        moved = write(m_again.number(), text.data(), text.size());
    } else if (m_isFile) {
        moved = write(STDERR_FILENO, text.data(), text.size());
    } else {
        moved = send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (moved < 0 && errno == ENOTSOCK) {
            pollfd room{STDERR_FILENO, POLLOUT, 0};
            const bool ready = poll(&room, 1, 0) > 0;
            errno = EAGAIN;
            // a pipe that has room at all takes so many bytes
            if (ready) {
                moved = write(STDERR_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
            }
        }
    }
    return moved;
}

} // namespace

void tellStandardError(std::string_view text) noexcept
{
    const quietWrites quiet;
    const unblockedError error;
    const patience wait(patienceForReaders);
    bool goesOn = true;
    while (goesOn && !text.empty()) {
        const ssize_t moved = error.writeOnce(text);
        if (moved > 0) {
            text.remove_prefix(static_cast<std::size_t>(moved));
        } else if (moved == 0 || errno == EAGAIN) {
            goesOn = wait.pause(std::chrono::milliseconds(pollMs));
        } else {
            goesOn = errno == EINTR;
        }
    }
}

} // namespace kest::host
