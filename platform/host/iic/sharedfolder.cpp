#include "platform/host/iic/sharedfolder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sim/descriptors.h"

namespace kest::host::iic
{
namespace
{

using sim::ownDescriptor;

/// Gives what was just made to the users of the bus; where that is not allowed it stays the maker's.
void share(int descriptor, const busIdentity& identity, mode_t mode)
{
    if (fchown(descriptor, static_cast<uid_t>(-1), identity.group) == 0) {
        static_cast<void>(fchmod(descriptor, mode));
    }
}

/// Who may write a file may enter the folder: each class with a write bit gets all three.
mode_t folderMode(mode_t files)
{
    const mode_t writers = files & 0222U;
    return S_ISGID | 0755U | writers | writers << 1U | writers >> 1U;
}

/// For the folders above the shared one, whatever the umask of the first user.
void letPass(int descriptor) { static_cast<void>(fchmod(descriptor, 0755)); }

/// Makes a folder, and those above it that are missing. @param finish  gets a descriptor of what was made
/// @return 0, EEXIST when something was there already, or another errno
int makeFolder(const std::filesystem::path& folder, const std::function<void(int)>& finish)
{
    int error = mkdir(folder.c_str(), 0755) == 0 ? 0 : errno;
    if (error == ENOENT && folder.has_parent_path() && folder.parent_path() != folder) {
        error = makeFolder(folder.parent_path(), letPass);
        if (error == 0 ||
            error == EEXIST) { // once more, and not by way of the parent again: some places take no folders
            error = mkdir(folder.c_str(), 0755) == 0 ? 0 : errno;
        }
    }
    if (error == 0) {
        const int descriptor = ownDescriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (descriptor >= 0) {
            finish(descriptor);
            close(descriptor);
        }
    }
    return error;
}

struct errnoRow {
    int error;
    int answered;
};
constexpr std::array errnoRows{
    errnoRow{0, 0},
    errnoRow{EACCES, EACCES},
    errnoRow{EPERM, EACCES},
    errnoRow{EROFS, EACCES},
    errnoRow{ELOOP, EACCES},
    errnoRow{ENOENT, EACCES}, // what was asked for can't be made there
    errnoRow{ENOTDIR, EACCES},
    errnoRow{EISDIR, EACCES},
    errnoRow{ENXIO, EACCES},
    errnoRow{ENAMETOOLONG, EACCES},
    errnoRow{ENOMEM, ENOMEM},
    errnoRow{EMFILE, ENOMEM},
    errnoRow{ENFILE, ENOMEM},
    errnoRow{ENOSPC, ENOMEM},
    errnoRow{EDQUOT, ENOMEM},
    errnoRow{ENOLCK, ENOMEM},
};

} // namespace

int errnoOfFolder(int error)
{
    const auto* row = std::ranges::find(errnoRows, error, &errnoRow::error);
    return row == errnoRows.end() ? EIO : row->answered;
}

int makeSharedFolder(const busIdentity& identity)
{
    const int error = makeFolder(
        identity.folder, [&identity](int descriptor) { share(descriptor, identity, folderMode(identity.mode)); });
    return error == EEXIST ? 0 : error;
}

int openSharedFile(const busIdentity& identity, const std::string& name, int flags)
{
    const std::string path       = identity.folder / name;
    const int         usual      = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    int               descriptor = (flags & O_EXCL) != 0 ? -1 : ownDescriptor(open(path.c_str(), usual));
    if (descriptor < 0 && ((flags & O_EXCL) != 0 || errno == ENOENT) && (flags & O_CREAT) != 0) {
        descriptor = ownDescriptor(open(path.c_str(), usual | flags | O_EXCL, identity.mode & 0600U));
        if (descriptor >= 0) {
            share(descriptor, identity, identity.mode);
        } else if (errno == EEXIST && (flags & O_EXCL) == 0) {
            descriptor = ownDescriptor(open(path.c_str(), usual)); // another process was faster
        }
    }
    return descriptor;
}

} // namespace kest::host::iic
