/// Locks on single bytes of a file. They belong to the open file description and end with it, whatever else happens.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

namespace kest::host::iic
{

/// @param kind  F_RDLCK, F_WRLCK or F_UNLCK. @return 0, EAGAIN when another has the byte, or why the file can't be used
/// (EACCES, ENOMEM or EIO)
int setByteLock(int descriptor, short kind, off_t byte);

/// Whether another open file has a lock on the byte that excludes one of this kind. False when nobody can find out.
bool isByteLocked(int descriptor, short kind, off_t byte);

} // namespace kest::host::iic
