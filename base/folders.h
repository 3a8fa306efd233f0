/// Folders: made durably, opened with care.
///
/// Functions return 0 or an `errno` value unless they say otherwise.
#pragma once

#include <filesystem>
#include <sys/types.h>

#include "base/descriptor.h"

namespace kest
{

/// @return the folder that a file is in; "." for a name alone
std::filesystem::path folderOf(const std::filesystem::path& file);

/// Makes one folder and opens it. @param[out] made  the open folder; not valid when it can't be opened, which is no error
int makeFolder(const std::filesystem::path& folder, mode_t mode, fileDescriptor& made);

/// Makes a folder and those above it that are missing, with mode 0750 less the umask; what it made is durable on return.
/// ENOTDIR when something else has the name, else the system's error: ELOOP for links in a circle, EACCES below a folder
/// that may not be searched. Never throws.
int makeFolders(const std::filesystem::path& folder) noexcept;

/// When root made a file or folder in `folder`, gives it to the folder's owner and group: root's tools then never lock
/// the service out of its own state. A failure is harmless.
void giveToFoldersOwner(int descriptor, const std::filesystem::path& folder);

/// Opens a folder to make and remove files in; the descriptor is for openat() and its like alone. Of links on the way
/// only those are followed that nobody but root and the caller could have put there: root's files in another user's
/// folders stay in them. ELOOP for another link; EPERM for a folder whose owner is neither root, nor the caller, nor
/// that of the folder around it.
/// @return an invalid descriptor with `errno` when it can't be opened
fileDescriptor openFolder(const std::filesystem::path& folder);

/// Makes a file that is not there yet in an open folder; made by root it gets the folder's owner and group.
/// @param flags  O_RDWR or O_WRONLY
/// @return an invalid descriptor with `errno` when it can't be made
fileDescriptor createFileIn(int folder, const char* name, int flags, mode_t mode);

/// Makes the names in a folder durable.
int syncFolder(const std::filesystem::path& folder);

/// The same for the name of what is open at `inside`. A folder that may be written but not read can't be opened to be
/// synced: then the whole file system is.
int syncName(int inside, const std::filesystem::path& folder);

} // namespace kest
