#include "base/folders.h"

#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kest
{

namespace
{

constexpr mode_t folderMode = 0750;

/// Makes one folder, durable on return.
int makeDurableFolder(const std::filesystem::path& folder)
{
    const std::filesystem::path around = folderOf(folder);
    fileDescriptor made;
    if (const int error = makeFolder(folder, folderMode, made); error != 0) {
        return error;
    }
    if (made.valid()) {
        giveToFoldersOwner(made.number(), around);
    }
    return syncName(made.number(), around);
}

/// @return 0 when a folder is there, by way of links, too
int findFolder(const std::filesystem::path& folder)
{
    struct stat found {
    };
    if (stat(folder.c_str(), &found) != 0) {
        // ENOENT: a dangling link
        return errno == ENOENT ? ENOTDIR : errno;
    }
    return S_ISDIR(found.st_mode) ? 0 : ENOTDIR;
}

int makeMissingFolders(const std::filesystem::path& folder)
{
    int error = makeDurableFolder(folder);
    if (error == ENOENT && folder.has_parent_path() && folder.parent_path() != folder) {
        if (const int parentError = makeMissingFolders(folder.parent_path()); parentError != 0) {
            return parentError;
        }
        // once more, and not by way of the parent again: a file system that takes no folders returns ENOENT, too
        error = makeDurableFolder(folder);
    }
    return error == EEXIST ? findFolder(folder) : error;
}

/// Whether nobody else decides what the folder `around` holds under the name of the link `found`.
bool isTrusted(const struct stat& found, const struct stat& around)
{
    const auto isOurs = [](const struct stat& what) { return what.st_uid == 0 || what.st_uid == geteuid(); };
    const bool isShut = (around.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (around.st_mode & S_ISVTX) != 0;
    return isOurs(found) && isOurs(around) && isShut;
}

/// One step of a path.
/// @param[in,out] around  what `at` is, then what the step led to. @return an invalid descriptor with `errno`
fileDescriptor openStep(int at, const char* name, struct stat& around)
{
    struct stat found {
    };
    fileDescriptor step(ownDescriptor(openat(at, name, O_PATH | O_NOFOLLOW | O_CLOEXEC)));
    if (!step.valid() || fstat(step.number(), &found) != 0) {
        return {};
    }
    if (S_ISLNK(found.st_mode)) {
        errno = ELOOP;
        step = fileDescriptor(isTrusted(found, around) ? ownDescriptor(openat(at, name, O_PATH | O_CLOEXEC)) : -1);
        if (!step.valid() || fstat(step.number(), &found) != 0) {
            return {};
        }
    }
    around = found;
    return step;
}

fileDescriptor refused(int error)
{
    errno = error;
    return {};
}

} // namespace

std::filesystem::path folderOf(const std::filesystem::path& file)
{
    return file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
}

int makeFolder(const std::filesystem::path& folder, mode_t mode, fileDescriptor& made)
{
    if (mkdir(folder.c_str(), mode) != 0) {
        return errno;
    }
    made = fileDescriptor(ownDescriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
    return 0;
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
    if (!at.valid() || fstat(at.number(), &around) != 0) {
        return {};
    }
    for (const std::filesystem::path& part : folder) {
        // behind a slash at the end
        if (part.empty()) {
            continue;
        }
        last = around;
        at = openStep(at.number(), part.c_str(), around);
        if (!at.valid()) {
            return {};
        }
    }
    if (around.st_uid != 0 && around.st_uid != geteuid() && around.st_uid != last.st_uid) {
        return refused(EPERM);
    }
    return S_ISDIR(around.st_mode) ? std::move(at) : refused(ENOTDIR);
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

int syncFolder(const std::filesystem::path& folder)
{
    const fileDescriptor descriptor(
        uninterrupted([&] { return ownDescriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); }));
    return descriptor.valid() && fsync(descriptor.number()) == 0 ? 0 : errno;
}

int syncName(int inside, const std::filesystem::path& folder)
{
    const int error = syncFolder(folder);
    if (error != EACCES) {
        return error;
    }
    return syncfs(inside) == 0 ? 0 : errno;
}

} // namespace kest
