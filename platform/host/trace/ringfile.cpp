#include "platform/host/trace/ringfile.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "base/clock.h"
#include "base/descriptor.h"
#include "base/folders.h"
#include "base/quietwrites.h"

namespace kest::host::trace
{
namespace
{

/// A lock of the open file, not of the process. It ends when the process dies. The process's children do not share it,
/// since they close the file.
struct flock wholeFile(short type)
{
    struct flock lock {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

/// Locks an open file, reserves its room and maps it. @return whether all of it worked
bool prepare(ringFileHandle& file, std::size_t bytes)
{
    const quietWrites quiet;
    struct flock lock = wholeFile(F_WRLCK);
    const int error = fcntl(file.descriptor, F_OFD_SETLK, &lock) != 0
                          ? errno
                          : posix_fallocate(file.descriptor, 0, static_cast<off_t>(bytes));
    void* memory =
        error != 0 ? MAP_FAILED : mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.descriptor, 0);
    file.memory = memory == MAP_FAILED ? nullptr : memory;
    errno = error != 0 ? error : errno;
    return file.memory != nullptr;
}

bool isDead(int folder, const char* name)
{
    const fileDescriptor file(ownDescriptor(openat(folder, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)));
    return file.valid() && !isWriterAlive(file.number());
}

struct closeListing {
    void operator()(DIR* listing) const { closedir(listing); }
};

struct agedFile {
    std::int64_t changedNs; ///< since 1970
    std::string name;
};

/// The ring files of a folder, of all processes.
std::vector<agedFile> ringFilesIn(int folder)
{
    std::vector<agedFile> files;
    fileDescriptor readable(ownDescriptor(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    std::unique_ptr<DIR, closeListing> listing(readable.valid() ? fdopendir(readable.number()) : nullptr);
    if (listing != nullptr) {
        static_cast<void>(readable.release());
    }
    for (const dirent* entry = nullptr; listing != nullptr && (entry = readdir(listing.get())) != nullptr;) {
        struct stat facts {
        };
        // another process may be removing old files, too
        if (std::string_view(entry->d_name).ends_with(ringFileSuffix) &&
            fstatat(folder, entry->d_name, &facts, AT_SYMLINK_NOFOLLOW) == 0) {
            files.push_back(
                {facts.st_mtim.tv_sec * static_cast<std::int64_t>(nsPerSecond) + facts.st_mtim.tv_nsec, entry->d_name});
        }
    }
    return files;
}

const char* nameIn(const char* path) { return std::strrchr(path, '/') + 1; }

} // namespace

ringFileHandle createRingFile(const char* folder, const char* bufferName, std::size_t bytes)
{
    ringFileHandle file;
    const int length = std::snprintf(file.path, sizeof file.path, "%s/%s-%ld-%" PRIx64 "%s", folder, bufferName,
                                     static_cast<long>(getpid()), clockNs(CLOCK_REALTIME), ringFileSuffix);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof file.path) {
        file.path[0] = '\0';
        errno = ENAMETOOLONG;
        return file;
    }
    const fileDescriptor place = openFolder(folder);
    // files made by root get the folder's owner, so that the service can remove them later
    if (place.valid()) {
        file.descriptor = createFileIn(place.number(), nameIn(file.path), O_RDWR, 0640).release();
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
    file.memory = nullptr;
    file.descriptor = -1;
    file.path[0] = '\0';
}

void removeRingFile(ringFileHandle& file) noexcept
{
    if (file.descriptor >= 0) {
        try {
            const fileDescriptor place = openFolder(std::filesystem::path(file.path).parent_path());
            unlinkat(place.number(), nameIn(file.path), 0);
        } catch (const std::exception&) {
            // it stays, as the file of a dead process
        }
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
    const fileDescriptor place = openFolder(folder);
    std::vector<agedFile> files = ringFilesIn(place.number());
    if (files.size() <= maximumDeadRings) {
        return;
    }
    std::erase_if(files, [&](const agedFile& file) { return !isDead(place.number(), file.name.c_str()); });
    std::ranges::sort(files, {}, [](const agedFile& file) { return std::tie(file.changedNs, file.name); });
    for (std::size_t index = 0; index + maximumDeadRings < files.size(); ++index) {
        unlinkat(place.number(), files[index].name.c_str(), 0);
    }
}

} // namespace kest::host::trace
