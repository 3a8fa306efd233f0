#include "base/files.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "base/folders.h"

namespace kest
{

namespace
{

constexpr mode_t fileMode = 0640;

/// Writes what a file is to hold, durably, under another name. Takes no memory, and neither does what follows.
int writeFresh(int descriptor, std::span<const std::uint8_t> bytes)
{
    if (const int error = writeAll(descriptor, bytes); error != 0) {
        return error;
    }
    return fsync(descriptor) == 0 ? 0 : errno;
}

int replaceWhole(const std::filesystem::path& file, const std::filesystem::path& folder,
                 std::span<const std::uint8_t> bytes)
{
    const std::filesystem::path fresh = folder / ("." + file.filename().string() + ".new");
    const fileDescriptor descriptor = openFile(fresh, O_WRONLY | O_CREAT | O_TRUNC);
    int error = descriptor.valid() ? writeFresh(descriptor.number(), bytes) : errno;
    if (error == 0 && rename(fresh.c_str(), file.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(fresh.c_str());
        return error;
    }
    return syncName(descriptor.number(), folder);
}

} // namespace

fileDescriptor openFile(const char* file, int flags)
{
    // O_NONBLOCK: a FIFO in the way does not block
    int common = flags | O_CLOEXEC | O_NONBLOCK;
    if ((flags & O_ACCMODE) != O_RDONLY) {
        common |= O_NOFOLLOW;
    }
    // The owner changes only when this very call makes the file.
    if ((flags & O_CREAT) != 0) {
        const int made = uninterrupted([&] { return ownDescriptor(open(file, common | O_EXCL, fileMode)); });
        if (made >= 0) {
            giveToFoldersOwner(made, folderOf(file));
        }
        if (made >= 0 || errno != EEXIST || (flags & O_EXCL) != 0) {
            return fileDescriptor(made);
        }
    }
    return fileDescriptor(uninterrupted([&] { return ownDescriptor(open(file, common & ~O_CREAT)); }));
}

int readFile(const std::filesystem::path& file, std::size_t limitBytes, std::vector<std::uint8_t>& bytes)
{
    std::uint64_t sizeBytes = 0;
    return readFilePart(file, limitBytes, 0, limitBytes, bytes, sizeBytes);
}

int readFilePart(const std::filesystem::path& file, std::size_t limitBytes, std::uint64_t offset, std::size_t most,
                 std::vector<std::uint8_t>& bytes, std::uint64_t& sizeBytes)
{
    regularFile reader;
    const int error = reader.open(file.c_str(), limitBytes);
    sizeBytes = reader.sizeBytes();
    if (error != 0) {
        return error;
    }
    const std::uint64_t behind = offset < sizeBytes ? sizeBytes - offset : 0;
    bytes.resize(static_cast<std::size_t>(std::min<std::uint64_t>(most, behind)));
    return reader.read(offset, bytes);
}

int regularFile::open(const char* file, std::uint64_t limitBytes)
{
    m_descriptor = openFile(file, O_RDONLY);
    if (!m_descriptor.valid()) {
        return errno;
    }
    struct stat facts {
    };
    if (fstat(m_descriptor.number(), &facts) != 0) {
        return errno;
    }
    if (!S_ISREG(facts.st_mode)) {
        return S_ISDIR(facts.st_mode) ? EISDIR : EINVAL;
    }
    if (static_cast<std::uint64_t>(facts.st_size) > limitBytes) {
        return EFBIG;
    }
    m_sizeBytes = static_cast<std::uint64_t>(facts.st_size);
    return 0;
}

int regularFile::read(std::uint64_t offset, std::vector<std::uint8_t>& bytes) const
{
    std::size_t filled = 0;
    const int error = read(offset, bytes, filled);
    if (error == 0) {
        bytes.resize(filled);
    }
    return error;
}

int regularFile::read(std::uint64_t offset, std::span<std::uint8_t> bytes, std::size_t& filled) const
{
    filled = 0;
    while (filled < bytes.size()) {
        const ssize_t moved = uninterrupted([&] {
            return pread(m_descriptor.number(), bytes.data() + filled, bytes.size() - filled,
                         static_cast<off_t>(offset + filled));
        });
        if (moved < 0) {
            return errno;
        }
        if (moved == 0) {
            return 0;
        }
        filled += static_cast<std::size_t>(moved);
    }
    return 0;
}

int replaceFile(const std::filesystem::path& file, std::span<const std::uint8_t> bytes) noexcept
{
    try {
        return replaceWhole(file, folderOf(file), bytes);
    } catch (const std::exception&) {
        // before any change
        return ENOMEM;
    }
}

} // namespace kest
