/// Small file operations: files opened with care, read whole, replaced durably.
///
/// Functions return 0 or an `errno` value unless they say otherwise. Files are made with mode 0640 less the umask; made
/// by root they get the owner and group of the folder they are in, so that root's tools never lock the service out of
/// its own state.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "base/descriptor.h"

namespace kest
{

/// Opens a file, close-on-exec; for writing never through a symbolic link.
/// @param flags  as for open(2); O_CREAT makes it
/// @return an invalid descriptor with `errno` when it can't be opened
fileDescriptor openFile(const char* file, int flags);
inline fileDescriptor openFile(const std::filesystem::path& file, int flags) { return openFile(file.c_str(), flags); }

/// Reads a whole regular file. EFBIG when it is larger than `limitBytes`, EISDIR or EINVAL when it is not a regular
/// file.
int readFile(const std::filesystem::path& file, std::size_t limitBytes, std::vector<std::uint8_t>& bytes);

/// Reads up to `most` bytes of a regular file from `offset`. Errors as for readFile().
/// @param[out] sizeBytes  of the whole file
int readFilePart(const std::filesystem::path& file, std::size_t limitBytes, std::uint64_t offset, std::size_t most,
                 std::vector<std::uint8_t>& bytes, std::uint64_t& sizeBytes);

/// A regular file of which parts are read.
class regularFile
{
public:
    /// Errors as for readFile().
    int open(const char* file, std::uint64_t limitBytes);

    /// Size when the file was opened; 0 after a failure.
    [[nodiscard]] std::uint64_t sizeBytes() const { return m_sizeBytes; }

    /// Fills `bytes` from `offset` on. Makes it shorter where the file ends sooner.
    int read(std::uint64_t offset, std::vector<std::uint8_t>& bytes) const;
    /// Fills the first `filled` of `bytes`: all of them, unless the file ends sooner.
    int read(std::uint64_t offset, std::span<std::uint8_t> bytes, std::size_t& filled) const;

private:
    fileDescriptor m_descriptor;
    std::uint64_t m_sizeBytes = 0;
};

/// Gives a file new contents: every reader finds the old ones or the new ones whole, at whatever moment the writer
/// dies. Durable on return. The caller keeps other writers away. Never throws; without memory nothing changes.
int replaceFile(const std::filesystem::path& file, std::span<const std::uint8_t> bytes) noexcept;

} // namespace kest
