#include "platform/host/iic/sharedfolder.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kest::host::iic
{
namespace
{

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

} // namespace

int makeSharedFolder(const busIdentity& identity)
{
    int error = 0;
    if (mkdir(identity.folder.c_str(), 0755) == 0) {
        const int descriptor = open(identity.folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (descriptor >= 0) {
            share(descriptor, identity, folderMode(identity.mode));
            close(descriptor);
        }
    } else if (errno != EEXIST) {
        error = errno;
    }
    return error;
}

int openSharedFile(const busIdentity& identity, const std::string& name, int flags)
{
    const std::string path       = identity.folder / name;
    const int         usual      = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    int               descriptor = (flags & O_EXCL) != 0 ? -1 : open(path.c_str(), usual);
    if (descriptor < 0 && ((flags & O_EXCL) != 0 || errno == ENOENT) && (flags & O_CREAT) != 0) {
        descriptor = open(path.c_str(), usual | flags | O_EXCL, identity.mode & 0600U);
        if (descriptor >= 0) {
            share(descriptor, identity, identity.mode);
        } else if (errno == EEXIST && (flags & O_EXCL) == 0) {
            descriptor = open(path.c_str(), usual); // another process was faster
        }
    }
    return descriptor;
}

} // namespace kest::host::iic
