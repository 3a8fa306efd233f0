/// Descriptors that the process's standard streams can't be taken for, and what is written to them.
#pragma once

#include <cerrno>
#include <cstdint>
#include <span>

#include <fcntl.h>
#include <unistd.h>

#include "sim/quietwrites.h"

namespace kest::sim
{

/// In a process that was started without standard input, output or error the next file that is opened gets that number,
/// and whatever is printed goes into it: an entry's text onto a bus. So all that is opened here or in the host platform
/// passes through this function.
/// @param opened  what open() and its like have just returned; owned by the function
/// @return a descriptor of the same open file, 3 or above and close-on-exec; -1 with `errno` when `opened` is -1,
/// EMFILE when
///         no further descriptor is to be had. A signal handler may call it.
inline int ownDescriptor(int opened)
{
    constexpr int firstOwn = STDERR_FILENO + 1;
    if (opened < 0 || opened >= firstOwn) {
        return opened;
    }
    const int moved = fcntl(opened, F_DUPFD_CLOEXEC, firstOwn);
    // EINVAL: no number from 3 on is allowed
    const int error = errno == EINVAL ? EMFILE : errno;
    close(opened);
    errno = error;
    return moved;
}

/// Writes all bytes at `offset`, a signal notwithstanding. @return false with `errno` when some are not written
inline bool writeAll(int descriptor, std::span<const std::uint8_t> bytes, off_t offset)
{
    const quietWrites quiet;
    while (!bytes.empty()) {
        const ssize_t moved = pwrite(descriptor, bytes.data(), bytes.size(), offset);
        if (moved == 0) {
            errno = ENOSPC;
        }
        if (moved == 0 || (moved < 0 && errno != EINTR)) {
            break;
        }
        if (moved > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(moved));
            offset += moved;
        }
    }
    return bytes.empty();
}

} // namespace kest::sim
