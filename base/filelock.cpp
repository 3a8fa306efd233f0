#include "base/filelock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>

#include "base/files.h"

namespace kest
{

fileLock::fileLock(const std::filesystem::path& file, std::chrono::milliseconds patience)
    : m_error(m_file.open([&] { return openFile(file, O_RDWR | O_CREAT).release(); }) ? 0 : errno)
{
    // Tried again rather than waited for: a stopped holder must not stop everybody else for ever.
    constexpr std::chrono::microseconds pause{200};
    const auto until = std::chrono::steady_clock::now() + patience;
    while (m_error == 0 && flock(m_file.number(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            m_error = errno;
        } else if (std::chrono::steady_clock::now() >= until) {
            m_error = ETIMEDOUT;
        } else {
            std::this_thread::sleep_for(pause);
        }
    }
}

fileLock::~fileLock()
{
    if (m_error == 0 && m_file.valid()) {
        // closing is not enough: a child shares the lock until it runs for the first time
        flock(m_file.number(), LOCK_UN);
    }
}

} // namespace kest
