/// The folder in which the users of a bus meet: lock files and first-failure data.
#pragma once

#include <string>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// Makes the folder when it is missing. It then belongs to those who may use the bus. Those above it that are missing are made, too; they
/// are the maker's, and everybody may pass through them. @return 0 or an errno
int makeSharedFolder(const busIdentity& identity);

/// What the layer answers for an errno that stands in the way of the folder or a file of it: the system's own may mean something else to
/// the layer's callers. @return 0, EACCES, ENOMEM or EIO
int errnoOfFolder(int error);

/// Opens a file of the folder for reading and writing, close-on-exec, never through a symbolic link; a new one gets the bus's permissions.
/// @param flags  added to the open flags
/// @return a descriptor, or -1 with `errno`
int openSharedFile(const busIdentity& identity, const std::string& name, int flags);

} // namespace kest::host::iic
