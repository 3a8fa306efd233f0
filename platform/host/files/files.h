/// Small file operations that the host's services share: owned descriptors, locks, durable replacement.
///
/// Functions answer 0 or an `errno` value. Files are made with mode 0640 and folders with 0750 (less the umask); made
/// by root they get the owner and group of the folder they are in, so that root's tools never lock the service out of
/// its own state.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "platform/host/files/unshared.h"
#include "sim/descriptors.h"

namespace kest::host
{

using sim::ownDescriptor;

/// An open file; closed with its owner.
class fileDescriptor
{
public:
    fileDescriptor() = default;
    explicit fileDescriptor(int number) : m_number(number) {}
    fileDescriptor(fileDescriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    fileDescriptor& operator=(fileDescriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    ~fileDescriptor();

    [[nodiscard]] bool valid() const { return m_number >= 0; }
    [[nodiscard]] int number() const { return m_number; }
    /// @return the number, which is the caller's to close from now on
    int release() { return std::exchange(m_number, -1); }

private:
    int m_number = -1;
};

/// Excludes every other holder of a lock on the same file, in this process and others. Ends with its owner or its
/// process, whatever children that has.
class fileLock
{
public:
    /// Makes the file when there is none, and waits at most `patience` for the lock.
    explicit fileLock(const std::filesystem::path& file,
                      std::chrono::milliseconds patience = std::chrono::milliseconds(5000));
    fileLock(const fileLock&) = delete;
    fileLock& operator=(const fileLock&) = delete;
    ~fileLock();

    /// @return 0 when the lock is held, ETIMEDOUT when another held it all the time, else why its file could not be
    /// opened
    [[nodiscard]] int error() const { return m_error; }

private:
    unsharedFile m_file;
    int m_error = 0;
};

/// Makes a folder and those above it that are missing; what it made is durable on return. ENOTDIR when something else
/// has the name, else what the system answers: ELOOP for links in a circle, EACCES below a folder that may not be
/// searched. Never throws.
int makeFolders(const std::filesystem::path& folder) noexcept;

/// Gives what was just made in `folder` to the folder's owner and group when root made it. Nothing is lost where that
/// fails.
void giveToFoldersOwner(int descriptor, const std::filesystem::path& folder);

/// Opens a folder to make and remove files in; the descriptor is for openat() and its like alone. Of links on the way
/// only those are followed that nobody but root and the caller could have put there: root's files in another user's
/// folders stay in them. ELOOP for another link; EPERM for a folder whose owner is neither root, nor the caller, nor
/// that of the folder around it.
/// @return an invalid descriptor with `errno` when it can't be had
fileDescriptor openFolder(const std::filesystem::path& folder);

/// Makes a file that is not there yet in an open folder; made by root it gets the folder's owner and group. @param flags  O_RDWR or O_WRONLY
/// @return an invalid descriptor with `errno` when it can't be had
fileDescriptor createFileIn(int folder, const char* name, int flags, mode_t mode);

/// Opens a file, close-on-exec; for writing never through a symbolic link. @param flags  as for open(2); O_CREAT makes it.
/// @return an invalid descriptor with `errno` when it can't be had
fileDescriptor openFile(const std::filesystem::path& file, int flags);

/// Reads a whole regular file. EFBIG when it is larger than `limitBytes`, EISDIR or EINVAL when it is none.
int readFile(const std::filesystem::path& file, std::size_t limitBytes, std::vector<std::uint8_t>& bytes);

/// Reads up to `most` bytes of a regular file from `offset`. Errors as for readFile().
/// @param[out] sizeBytes  of the whole file
int readFilePart(const std::filesystem::path& file, std::size_t limitBytes, std::uint64_t offset, std::size_t most,
                 std::vector<std::uint8_t>& bytes, std::uint64_t& sizeBytes);

/// Writes all bytes at the descriptor's position.
int writeAll(int descriptor, std::span<const std::uint8_t> bytes);
int writeAll(int descriptor, const std::string& text);

/// Makes the names in a folder durable.
int syncFolder(const std::filesystem::path& folder);

/// Gives a file new contents: whoever reads it, at whatever moment the writer dies, finds the old ones or the new ones
/// whole. Durable on return. The caller keeps other writers away. Never throws; without memory nothing changes.
int replaceFile(const std::filesystem::path& file, std::span<const std::uint8_t> bytes) noexcept;

} // namespace kest::host
