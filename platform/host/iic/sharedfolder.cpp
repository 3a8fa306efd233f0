#include "platform/host/iic/sharedfolder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/folders.h"

namespace kest::host::iic
{
namespace
{

constexpr mode_t permissionBits = 07777;

/// The mode is meant for the bus's group. The members of another group get what everybody gets.
mode_t withoutGroup(mode_t mode) { return (mode & ~mode_t{070}) | (mode & 07U) << 3U; }

/// Whether nobody has to give anything to the users of the bus. Usually that is so, and then it does not matter who asks.
bool isShared(const struct stat& about, const busIdentity& identity, mode_t mode)
{
    return (about.st_mode & permissionBits) == mode && about.st_gid == identity.group &&
           (about.st_uid != 0 || identity.owner == 0);
}

/// Gives the users of the bus access to a file or folder, as far as this process may.
/// @param about  what fstat() says of it
/// @return whether owner, group or mode was not as it should be
bool share(int descriptor, struct stat about, const busIdentity& identity, mode_t mode)
{
    if (isShared(about, identity, mode)) {
        return false;
    }
    const bool root = geteuid() == 0;
    if ((!root && about.st_uid != geteuid()) ||
        // the file may be another's, under a second name
        (S_ISREG(about.st_mode) && about.st_nlink != 1)) {
        return false;
    }
    const bool strange = root && (about.st_gid != identity.group || (about.st_uid == 0 && identity.owner != 0));
    // root's own become the owner's, those of others stay theirs
    if (strange) {
        const uid_t owner = about.st_uid == 0 ? identity.owner : static_cast<uid_t>(-1);
        about.st_gid = fchown(descriptor, owner, identity.group) == 0 ? identity.group : about.st_gid;
    }
    const mode_t wanted = about.st_gid == identity.group ? mode : withoutGroup(mode);
    const bool other = (about.st_mode & permissionBits) != wanted;
    if (other && fchmod(descriptor, wanted) != 0) {
        // that bit may not be given everywhere
        static_cast<void>(fchmod(descriptor, wanted & ~mode_t{S_ISGID}));
    }
    return other || strange;
}

/// The same for a file or folder that nobody has looked at yet.
void share(int descriptor, const busIdentity& identity, mode_t mode)
{
    struct stat about {
    };
    if (fstat(descriptor, &about) == 0) {
        static_cast<void>(share(descriptor, about, identity, mode));
    }
}

/// Anyone who may write a file may enter the folder: each class with a write bit gets all three. Where everybody may
/// write, everybody's files are safe from the others.
mode_t folderMode(mode_t files)
{
    const mode_t writers = files & 0222U;
    const mode_t sticky = (files & 0002U) != 0 ? S_ISVTX : 0;
    return sticky | S_ISGID | 0755U | writers | writers << 1U | writers >> 1U;
}

/// For the folders above the shared one, whatever the umask of the first user.
void letPass(int descriptor) { static_cast<void>(fchmod(descriptor, 0755)); }

/// Makes a folder, and those above it that are missing. @param finish  gets a descriptor of the folder
/// @return 0, EEXIST when the name is in use, or another errno
int makeFolderAndFinish(const std::filesystem::path& folder, const std::function<void(int)>& finish)
{
    constexpr mode_t mode = 0755;
    fileDescriptor made;
    int error = makeFolder(folder, mode, made);
    if (error == ENOENT && folder.has_parent_path() && folder.parent_path() != folder) {
        error = makeFolderAndFinish(folder.parent_path(), letPass);
        // once more, but without making the parent again: some places take no folders
        if (error == 0 || error == EEXIST) {
            error = makeFolder(folder, mode, made);
        }
    }
    if (made.valid()) {
        finish(made.number());
    }
    return error;
}

bool isTrusted(uid_t owner, const busIdentity& identity)
{
    return owner == 0 || owner == identity.owner || owner == geteuid();
}

bool canBeExchanged(const struct stat& folder)
{
    return (folder.st_mode & S_IWOTH) != 0 && (folder.st_mode & S_ISVTX) == 0;
}

fileDescriptor openPlace(const busIdentity& identity, int more)
{
    return fileDescriptor(ownDescriptor(open(identity.folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | more)));
}

/// Opens the folder behind a symbolic link. @return 0 or an errno; EPERM when the link is not trusted
int openLinked(const busIdentity& identity, fileDescriptor& folder)
{
    struct stat link {
    };
    folder = openPlace(identity, 0);
    if (!folder.valid() || lstat(identity.folder.c_str(), &link) != 0) {
        return errno;
    }
    return isTrusted(link.st_uid, identity) ? 0 : EPERM;
}

/// @param[out] folder  for the calls that take a folder, no more. @return 0 or an errno
int openFolder(const busIdentity& identity, fileDescriptor& folder)
{
    folder = openPlace(identity, O_NOFOLLOW);
    if (!folder.valid()) {
        // ENOTDIR: perhaps a link
        const int error = errno == ENOTDIR || errno == ELOOP ? openLinked(identity, folder) : errno;
        if (error != 0) {
            return error;
        }
    }
    struct stat about {
    };
    if (fstat(folder.number(), &about) != 0) {
        return errno;
    }
    return isTrusted(about.st_uid, identity) && !canBeExchanged(about) ? 0 : EPERM;
}

/// Opens the folder, and makes it when it is missing. It then belongs to those who may use the bus; those above it that
/// are missing are the maker's, and everybody may pass through them.
int makeSharedFolder(const busIdentity& identity, fileDescriptor& folder)
{
    if (const int error = openFolder(identity, folder); error != ENOENT) {
        return error;
    }
    const int error = makeFolderAndFinish(
        identity.folder, [&identity](int descriptor) { share(descriptor, identity, folderMode(identity.mode)); });
    return error == 0 || error == EEXIST ? openFolder(identity, folder) : error;
}

/// Mends the other files of a bus whose node has changed.
void shareAll(const busIdentity& identity)
{
    std::error_code error;
    for (std::filesystem::directory_iterator entry(identity.folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().filename().string().starts_with(identity.name + ".")) {
            const fileDescriptor file(
                ownDescriptor(open(entry->path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY)));
            struct stat about {
            };
            if (file.valid() && fstat(file.number(), &about) == 0 && S_ISREG(about.st_mode)) {
                static_cast<void>(share(file.number(), about, identity, identity.mode));
            }
        }
    }
}

/// @return a descriptor, or -1 with `errno`
int openIn(const fileDescriptor& folder, const busIdentity& identity, const std::string& name, sharedUse use)
{
    const int usual = (use == sharedUse::read ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    const int present = ownDescriptor(openat(folder.number(), name.c_str(), usual));
    if (present >= 0 || errno != ENOENT || use != sharedUse::create) {
        return present;
    }
    const int made = ownDescriptor(openat(folder.number(), name.c_str(), usual | O_CREAT | O_EXCL, identity.mode));
    if (made >= 0) {
        // whatever the umask
        share(made, identity, identity.mode);
        return made;
    }
    // another process was faster
    return errno == EEXIST ? ownDescriptor(openat(folder.number(), name.c_str(), usual)) : -1;
}

struct errnoRow {
    int error;
    int reported;
};
constexpr std::array errnoRows{
    errnoRow{.error = 0, .reported = 0},
    errnoRow{.error = EACCES, .reported = EACCES},
    errnoRow{.error = EPERM, .reported = EACCES},
    errnoRow{.error = EROFS, .reported = EACCES},
    errnoRow{.error = ELOOP, .reported = EACCES},
    errnoRow{.error = ENOENT, .reported = EACCES}, // what was asked for can't be made there
    errnoRow{.error = ENOTDIR, .reported = EACCES},
    errnoRow{.error = EISDIR, .reported = EACCES},
    errnoRow{.error = ENXIO, .reported = EACCES},
    errnoRow{.error = ENAMETOOLONG, .reported = EACCES},
    errnoRow{.error = ENOMEM, .reported = ENOMEM},
    errnoRow{.error = EMFILE, .reported = ENOMEM},
    errnoRow{.error = ENFILE, .reported = ENOMEM},
    errnoRow{.error = ENOSPC, .reported = ENOMEM},
    errnoRow{.error = EDQUOT, .reported = ENOMEM},
    errnoRow{.error = ENOLCK, .reported = ENOMEM},
};

} // namespace

int errnoOfFolder(int error)
{
    const auto* row = std::ranges::find(errnoRows, error, &errnoRow::error);
    return row == errnoRows.end() ? EIO : row->reported;
}

int openSharedFile(const busIdentity& identity, const std::string& name, sharedUse use)
{
    struct stat about {
    };
    return openSharedFile(identity, name, use, about);
}

int openSharedFile(const busIdentity& identity, const std::string& name, sharedUse use, struct stat& about)
{
    fileDescriptor folder;
    const int error = use == sharedUse::create ? makeSharedFolder(identity, folder) : openFolder(identity, folder);
    if (error != 0) {
        errno = error;
        return -1;
    }
    fileDescriptor file(openIn(folder, identity, name, use));
    if (!file.valid() || fstat(file.number(), &about) != 0) {
        return -1;
    }
    if (!S_ISREG(about.st_mode)) {
        errno = ENXIO;
        return -1;
    }
    if (share(file.number(), about, identity, identity.mode) && geteuid() == 0) {
        shareAll(identity);
    }
    return file.release();
}

bool isSharedFile(const busIdentity& identity, const std::string& name, int descriptor)
{
    struct stat opened {
    };
    return fstat(descriptor, &opened) == 0 && isSharedFile(identity, name, opened);
}

bool isSharedFile(const busIdentity& identity, const std::string& name, const struct stat& opened)
{
    struct stat named {
    };
    return lstat((identity.folder / name).c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

int removeSharedFile(const busIdentity& identity, const std::string& name)
{
    fileDescriptor folder;
    const int error = openFolder(identity, folder);
    return error != 0 ? error : unlinkat(folder.number(), name.c_str(), 0) == 0 ? 0 : errno;
}

std::string sharedFolderTrouble(const busIdentity& identity)
{
    const std::string place = "'" + identity.folder.string() + "'";
    struct stat about {
    };
    if (stat(identity.folder.c_str(), &about) != 0) {
        return {};
    }
    if (!isTrusted(about.st_uid, identity)) {
        return place + " belongs to user " + std::to_string(about.st_uid) +
               ", who could exchange the locks in it; as root: chown " + std::to_string(identity.owner) + ":" +
               std::to_string(identity.group) + " " + place;
    }
    if (canBeExchanged(about)) {
        return "everybody could exchange the locks in " + place + "; as its owner: chmod +t " + place;
    }
    return {};
}

} // namespace kest::host::iic
