/// The folder in which the users of a bus meet: lock files and first-failure data.
#pragma once

#include <string>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// Makes the folder when it is missing. It then belongs to those who may use the bus. @return 0 or an errno
int makeSharedFolder(const busIdentity& identity);

/// Opens a file of the folder for reading and writing, close-on-exec, never through a symbolic link; a new one gets the bus's permissions.
/// @param flags  added to the open flags
/// @return a descriptor, or -1 with `errno`
int openSharedFile(const busIdentity& identity, const std::string& name, int flags);

} // namespace kest::host::iic
