/// The folder in which the users of a bus meet: lock files and first-failure data.
///
/// Anyone who may use the bus may use its files: they have the node's permissions and, by the folder's set-group-ID
/// bit, its group. Only root gives files to another group or owner; nobody else asks for that, since a service may be
/// ended for asking.
///
/// A folder is used when it belongs to root, to the process's own user or to `busIdentity::owner`, and when not
/// everybody may exchange what others have in it. Elsewhere every file is refused with EPERM.
#pragma once

#include <cstdint>
#include <string>

#include <sys/stat.h>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// The errno that the layer reports when the folder or a file in it cannot be used: the system's own may mean something
/// else to the layer's callers. @return 0, EACCES, ENOMEM or EIO
int errnoOfFolder(int error);

enum class sharedUse : std::uint8_t {
    read, ///< what is there, for reading alone
    create, ///< for reading and writing; made with the bus's permissions when missing, as is the folder
};

/// Opens a regular file of the folder, close-on-exec, never through a symbolic link. Root mends the permissions of the
/// bus's files when they are not the node's any more.
/// @return a descriptor, or -1 with `errno`: ENXIO when something else than a file has the name
int openSharedFile(const busIdentity& identity, const std::string& name, sharedUse use);
/// @param[out] about  what fstat() said of the file, before the permissions were mended
int openSharedFile(const busIdentity& identity, const std::string& name, sharedUse use, struct stat& about);

/// Whether the open file is the one that others open under the name.
bool isSharedFile(const busIdentity& identity, const std::string& name, int descriptor);
/// @param opened  what fstat() said of the open file at any time: its device and number never change
bool isSharedFile(const busIdentity& identity, const std::string& name, const struct stat& opened);

/// Removes what has the name, whatever it is but a folder. @return 0 or an errno
int removeSharedFile(const busIdentity& identity, const std::string& name);

/// Why the folder is refused, and the command that makes it right; empty when it is not.
std::string sharedFolderTrouble(const busIdentity& identity);

} // namespace kest::host::iic
