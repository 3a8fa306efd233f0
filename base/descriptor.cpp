#include "base/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/quietwrites.h"

namespace kest
{

namespace
{

/// @param write  writes some of the bytes it is given, as write(2)
template <typename Write>
int writeEverything(std::span<const std::uint8_t> bytes, Write write)
{
    const quietWrites quiet;
    while (!bytes.empty()) {
        const ssize_t moved = uninterrupted([&] { return write(bytes); });
        if (moved == 0) {
            errno = ENOSPC;
        }
        if (moved <= 0) {
            return errno;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(moved));
    }
    return 0;
}

} // namespace

int ownDescriptor(int opened)
{
    constexpr int firstOwn = STDERR_FILENO + 1;
    if (opened < 0 || opened >= firstOwn) {
        return opened;
    }
    const int moved = fcntl(opened, F_DUPFD_CLOEXEC, firstOwn);
    // EINVAL: the limit on open files allows no number from 3 on
    const int error = errno == EINVAL ? EMFILE : errno;
    close(opened);
    errno = error;
    return moved;
}

fileDescriptor::~fileDescriptor()
{
    if (m_number >= 0) {
        close(m_number);
    }
}

int writeAll(int descriptor, std::span<const std::uint8_t> bytes)
{
    return writeEverything(bytes, [descriptor](std::span<const std::uint8_t> rest) {
        return write(descriptor, rest.data(), rest.size());
    });
}

int writeAll(int descriptor, std::string_view text)
{
    return writeAll(descriptor, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

int writeAllAt(int descriptor, std::span<const std::uint8_t> bytes, off_t offset)
{
    return writeEverything(bytes, [descriptor, bytes, offset](std::span<const std::uint8_t> rest) {
        return pwrite(descriptor, rest.data(), rest.size(), offset + static_cast<off_t>(bytes.size() - rest.size()));
    });
}

} // namespace kest
