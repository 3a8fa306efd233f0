#include "platform/host/trace/ringfile.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/host/files/files.h"
#include "platform/host/trace/rings.h"

namespace kest::host::trace
{
namespace
{

/// A lock of the open file, not of the process: gone at once when the process dies, and not shared by its children, who close the file.
struct flock wholeFile(short type)
{
    struct flock lock {
    };
    lock.l_type   = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

/// Bytes of a file that is open, with room reserved and a lock. @return whether all that could be had
bool prepare(ringFileHandle& file, std::size_t bytes)
{
    struct flock lock  = wholeFile(F_WRLCK);
    const int    error = fcntl(file.descriptor, F_OFD_SETLK, &lock) != 0
                             ? errno
                             : posix_fallocate(file.descriptor, 0, static_cast<off_t>(bytes));
    void*        memory =
        error != 0 ? MAP_FAILED : mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.descriptor, 0);
    file.memory = memory == MAP_FAILED ? nullptr : memory;
    errno       = error != 0 ? error : errno;
    return file.memory != nullptr;
}

bool isDead(const std::filesystem::path& path)
{
    const int  descriptor = ownDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    const bool dead       = descriptor >= 0 && !isWriterAlive(descriptor);
    if (descriptor >= 0) {
        close(descriptor);
    }
    return dead;
}

} // namespace

ringFileHandle createRingFile(const char* folder, const char* bufferName, std::size_t bytes)
{
    ringFileHandle file;
    timespec       now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const int length = std::snprintf(
        file.path, sizeof file.path, "%s/%s-%ld-%" PRIx64 "%s", folder, bufferName, static_cast<long>(getpid()),
        static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(now.tv_nsec),
        ringFileSuffix);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof file.path) {
        file.path[0] = '\0';
        errno        = ENAMETOOLONG;
        return file;
    }
    file.descriptor = ownDescriptor(open(file.path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640));
    if (file.descriptor >= 0) {
        giveToFoldersOwner(file.descriptor, folder); // the service tidies up what root's tools leave there
    }
    if (file.descriptor >= 0 && !prepare(file, bytes)) {
        const int error = errno;
        removeRingFile(file);
        errno = error;
    }
    return file;
}

void closeRingFile(ringFileHandle& file)
{
    if (file.descriptor >= 0) {
        close(file.descriptor);
    }
    file.memory     = nullptr;
    file.descriptor = -1;
    file.path[0]    = '\0';
}

void removeRingFile(ringFileHandle& file)
{
    if (file.descriptor >= 0) {
        unlink(file.path);
    }
    closeRingFile(file);
}

bool isWriterAlive(int descriptor)
{
    struct flock lock = wholeFile(F_RDLCK);
    return fcntl(descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

void removeOldRings(const std::filesystem::path& folder)
{
    std::vector<std::pair<std::filesystem::file_time_type, std::filesystem::path>> files;
    std::error_code                                                                error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone; // another process may be tidying up, too
        const auto      written = std::filesystem::last_write_time(entry->path(), gone);
        if (!gone && entry->path().extension() == ringFileSuffix) {
            files.emplace_back(written, entry->path());
        }
    }
    if (files.size() > maximumDeadRings) {
        std::erase_if(files, [](const auto& file) { return !isDead(file.second); });
        std::ranges::sort(files);
        for (std::size_t index = 0; index + maximumDeadRings < files.size(); ++index) {
            std::filesystem::remove(files[index].second, error);
        }
    }
}

} // namespace kest::host::trace
