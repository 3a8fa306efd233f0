#include "platform/host/files/files.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "sim/quietwrites.h"

namespace kest::host
{

namespace
{

constexpr mode_t fileMode = 0640;
constexpr mode_t folderMode = 0750;

/// @return what `call` returns once no signal interrupts it
template <typename call_t>
auto uninterrupted(call_t call)
{
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

std::filesystem::path folderOf(const std::filesystem::path& file)
{
    return file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
}

/// Makes the name of what is open at `inside` durable in the folder. One that may be written but not read can't be
/// opened to be synced: then the whole file system is.
int syncName(int inside, const std::filesystem::path& folder)
{
    const int error = syncFolder(folder);
    return error != EACCES ? error : syncfs(inside) == 0 ? 0 : errno;
}

/// Makes one folder, durable on return.
int makeFolder(const std::filesystem::path& folder)
{
    const std::filesystem::path around = folderOf(folder);
    int error = mkdir(folder.c_str(), folderMode) == 0 ? 0 : errno;
    if (error == 0) {
        const fileDescriptor made(ownDescriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
        if (made.valid()) {
            giveToFoldersOwner(made.number(), around);
        }
        error = syncName(made.number(), around);
    }
    return error;
}

/// @return 0 when a folder is there, by way of links, too
int findFolder(const std::filesystem::path& folder)
{
    struct stat found {
    };
    int error = stat(folder.c_str(), &found) == 0 ? 0 : errno;
    if (error == ENOENT || (error == 0 && !S_ISDIR(found.st_mode))) {
        // a dangling link, or something else of that name
        error = ENOTDIR;
    }
    return error;
}

int makeMissingFolders(const std::filesystem::path& folder)
{
    int error = makeFolder(folder);
    if (error == ENOENT && folder.has_parent_path() && folder.parent_path() != folder) {
        error = makeMissingFolders(folder.parent_path());
        // once more, and not by way of the parent again: a file system that takes no folders returns ENOENT, too
        if (error == 0) {
            error = makeFolder(folder);
        }
    }
    return error == EEXIST ? findFolder(folder) : error;
}

/// What a file is to hold, on the disk under another name. Takes no memory, as what follows.
int writeFresh(int descriptor, std::span<const std::uint8_t> bytes)
{
    const int error = writeAll(descriptor, bytes);
    return error != 0 ? error : fsync(descriptor) == 0 ? 0 : errno;
}

int replaceWhole(const std::filesystem::path& file, const std::filesystem::path& folder,
                 std::span<const std::uint8_t> bytes)
{
    const std::filesystem::path fresh = folder / ("." + file.filename().string() + ".new");
    const fileDescriptor descriptor = openFile(fresh, O_WRONLY | O_CREAT | O_TRUNC);
    int error = descriptor.valid() ? writeFresh(descriptor.number(), bytes) : errno;
    if (error == 0 && rename(fresh.c_str(), file.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(fresh.c_str());
    }
    return error == 0 ? syncName(descriptor.number(), folder) : error;
}

/// Whether nobody else decides what the folder `around` holds under the name of a link that `found` tells of.
bool isTrusted(const struct stat& found, const struct stat& around)
{
    const auto isOurs = [](const struct stat& what) { return what.st_uid == 0 || what.st_uid == geteuid(); };
    const bool isShut = (around.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (around.st_mode & S_ISVTX) != 0;
    return isOurs(found) && isOurs(around) && isShut;
}

/// One step of a path. @param[in,out] around  what `at` is, then what the step led to. @return an invalid descriptor with `errno`
fileDescriptor openStep(int at, const char* name, struct stat& around)
{
    struct stat found {
    };
    fileDescriptor step(ownDescriptor(openat(at, name, O_PATH | O_NOFOLLOW | O_CLOEXEC)));
    bool good = step.valid() && fstat(step.number(), &found) == 0;
    if (good && S_ISLNK(found.st_mode)) {
        errno = ELOOP;
        step = fileDescriptor(isTrusted(found, around) ? ownDescriptor(openat(at, name, O_PATH | O_CLOEXEC)) : -1);
        good = step.valid() && fstat(step.number(), &found) == 0;
    }
    if (good) {
        around = found;
    }
    return good ? std::move(step) : fileDescriptor();
}

} // namespace

fileDescriptor::~fileDescriptor()
{
    if (m_number >= 0) {
        close(m_number);
    }
}

fileLock::fileLock(const std::filesystem::path& file, std::chrono::milliseconds patience)
    : m_error(m_file.open([&] { return openFile(file, O_RDWR | O_CREAT).release(); }) ? 0 : errno)
{
    // Tried again rather than waited for: a stopped holder must not stop everybody else for ever.
    const auto until = std::chrono::steady_clock::now() + patience;
    while (m_error == 0 && flock(m_file.number(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            m_error = errno;
        } else if (std::chrono::steady_clock::now() >= until) {
            m_error = ETIMEDOUT;
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
}

fileLock::~fileLock()
{
    if (m_error == 0 && m_file.valid()) {
        flock(m_file.number(),
              // closing is not enough: a child shares the lock until it runs for the first time
              LOCK_UN);
    }
}

int makeFolders(const std::filesystem::path& folder) noexcept
{
    try {
        return makeMissingFolders(folder);
    } catch (const std::exception&) {
        // a path's parts are paths of their own
        return ENOMEM;
    }
}

void giveToFoldersOwner(int descriptor, const std::filesystem::path& folder)
{
    struct stat around {
    };
    if (geteuid() == 0 && stat(folder.c_str(), &around) == 0) {
        [[maybe_unused]] const int ignored = fchown(descriptor, around.st_uid, around.st_gid);
    }
}

fileDescriptor openFolder(const std::filesystem::path& folder)
{
    struct stat around {
    };
    struct stat last {
    };
    fileDescriptor at(ownDescriptor(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)));
    bool good = at.valid() && fstat(at.number(), &around) == 0;
    for (auto part = folder.begin(); good && part != folder.end(); ++part) {
        // behind a slash at the end
        if (!part->empty()) {
            last = around;
            at = openStep(at.number(), part->c_str(), around);
            good = at.valid();
        }
    }
    const bool isTheirs = around.st_uid != 0 && around.st_uid != geteuid() && around.st_uid != last.st_uid;
    if (good && (!S_ISDIR(around.st_mode) || isTheirs)) {
        at = fileDescriptor();
        errno = isTheirs ? EPERM : ENOTDIR;
    }
    return at;
}

fileDescriptor createFileIn(int folder, const char* name, int flags, mode_t mode)
{
    constexpr int own = O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    fileDescriptor made(uninterrupted([&] { return ownDescriptor(openat(folder, name, flags | own, mode)); }));
    struct stat around {
    };
    if (made.valid() && geteuid() == 0 && fstat(folder, &around) == 0) {
        [[maybe_unused]] const int ignored = fchown(made.number(), around.st_uid, around.st_gid);
    }
    return made;
}

fileDescriptor openFile(const std::filesystem::path& file, int flags)
{
    const std::filesystem::path around = folderOf(file);
    // O_NONBLOCK: a FIFO in the way holds nobody up
    int common = flags | O_CLOEXEC | O_NONBLOCK;
    int number = -1;
    if ((flags & O_ACCMODE) != O_RDONLY) {
        common |= O_NOFOLLOW;
    }
    // made by this very call, or there already
    if ((flags & O_CREAT) != 0) {
        number = uninterrupted([&] { return ownDescriptor(open(file.c_str(), common | O_EXCL, fileMode)); });
        if (number >= 0) {
            giveToFoldersOwner(number, around);
        }
    }
    if (number < 0 && ((flags & O_CREAT) == 0 || (errno == EEXIST && (flags & O_EXCL) == 0))) {
        number = uninterrupted([&] { return ownDescriptor(open(file.c_str(), common & ~O_CREAT)); });
    }
    return fileDescriptor(number);
}

int readFile(const std::filesystem::path& file, std::size_t limitBytes, std::vector<std::uint8_t>& bytes)
{
    std::uint64_t sizeBytes = 0;
    return readFilePart(file, limitBytes, 0, limitBytes, bytes, sizeBytes);
}

int readFilePart(const std::filesystem::path& file, std::size_t limitBytes, std::uint64_t offset, std::size_t most,
                 std::vector<std::uint8_t>& bytes, std::uint64_t& sizeBytes)
{
    const fileDescriptor descriptor = openFile(file, O_RDONLY);
    struct stat facts {
    };
    int error = descriptor.valid() && fstat(descriptor.number(), &facts) == 0 ? 0 : errno;
    if (error == 0 && !S_ISREG(facts.st_mode)) {
        error = S_ISDIR(facts.st_mode) ? EISDIR : EINVAL;
    }
    if (error == 0 && static_cast<std::uint64_t>(facts.st_size) > limitBytes) {
        error = EFBIG;
    }
    sizeBytes = error == 0 ? static_cast<std::uint64_t>(facts.st_size) : 0;
    if (error == 0) {
        bytes.resize(offset < sizeBytes ? static_cast<std::size_t>(std::min<std::uint64_t>(most, sizeBytes - offset))
                                        : 0);
    }
    std::size_t filled = 0;
    while (error == 0 && filled < bytes.size()) {
        const auto moved = uninterrupted([&] {
            return pread(descriptor.number(), bytes.data() + filled, bytes.size() - filled,
                         static_cast<off_t>(offset + filled));
        });
        if (moved > 0) {
            filled += static_cast<std::size_t>(moved);
        } else if (moved == 0) {
            // cut shorter meanwhile
            bytes.resize(filled);
        } else {
            error = errno;
        }
    }
    return error;
}

int writeAll(int descriptor, std::span<const std::uint8_t> bytes)
{
    const sim::quietWrites quiet;
    int error = 0;
    while (error == 0 && !bytes.empty()) {
        const auto moved = uninterrupted([&] { return write(descriptor, bytes.data(), bytes.size()); });
        if (moved > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(moved));
        } else {
            error = moved == 0 ? ENOSPC : errno;
        }
    }
    return error;
}

int writeAll(int descriptor, const std::string& text)
{
    return writeAll(descriptor, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

int syncFolder(const std::filesystem::path& folder)
{
    const fileDescriptor descriptor(
        uninterrupted([&] { return ownDescriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); }));
    return descriptor.valid() && fsync(descriptor.number()) == 0 ? 0 : errno;
}

int replaceFile(const std::filesystem::path& file, std::span<const std::uint8_t> bytes) noexcept
{
    try {
        return replaceWhole(file, folderOf(file), bytes);
    } catch (const std::exception&) {
        // ahead of any change
        return ENOMEM;
    }
}

} // namespace kest::host
