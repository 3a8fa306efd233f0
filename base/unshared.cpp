#include "base/unshared.h"

#include <cerrno>
#include <mutex>

#include <pthread.h>
#include <unistd.h>

namespace kest
{

/// All open ones of the process.
class unsharedFiles
{
public:
    static unsharedFiles& instance()
    {
        // lives as long as the process: files may be closed during its end
        static auto* files = new unsharedFiles;
        return *files;
    }
    void add(unsharedFile& file)
    {
        file.m_previous = nullptr;
        file.m_next = m_first;
        if (m_first != nullptr) {
            m_first->m_previous = &file;
        }
        m_first = &file;
    }
    void closeAndRemove(unsharedFile& file)
    {
        const int error = errno;
        ::close(file.m_number);
        errno = error;
        file.m_number = -1;
        (file.m_previous != nullptr ? file.m_previous->m_next : m_first) = file.m_next;
        if (file.m_next != nullptr) {
            file.m_next->m_previous = file.m_previous;
        }
    }
    void closeAll()
    {
        while (m_first != nullptr) {
            closeAndRemove(*m_first);
        }
    }

    std::mutex mutex;

private:
    unsharedFiles()
    {
        pthread_atfork([] { instance().mutex.lock(); }, [] { instance().mutex.unlock(); },
                       [] {
                           instance().closeAll();
                           instance().mutex.unlock();
                       });
    }

    unsharedFile* m_first = nullptr;
};

namespace
{
[[maybe_unused]] const unsharedFiles& madeAtLoad = unsharedFiles::instance();
}

unsharedFile::forkPause::forkPause() { unsharedFiles::instance().mutex.lock(); }

unsharedFile::forkPause::~forkPause() { unsharedFiles::instance().mutex.unlock(); }

bool unsharedFile::adopt(int number)
{
    if (number >= 0) {
        m_number = number;
        unsharedFiles::instance().add(*this);
    }
    return number >= 0;
}

void unsharedFile::close()
{
    const forkPause paused;
    if (m_number >= 0) {
        unsharedFiles::instance().closeAndRemove(*this);
    }
}

void watchUnsharedFiles() { unsharedFiles::instance(); }

} // namespace kest
