/// The file of one persisted copy, opened for reading.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "base/files.h"
#include "platform/host/vpd/copyformat.h"

namespace kest::host
{

/// Reads no more of the file than is asked for, except its front, and returns no byte that its check sum does not
/// prove. Functions return 0 or an `errno` value.
class copyFile
{
public:
    copyFile() = default;
    copyFile(const copyFile&) = delete;
    copyFile& operator=(const copyFile&) = delete;

    /// EBADMSG damaged, ENOTSUP of a newer version, EFBIG more than largestCopyBytes, EISDIR or ESPIPE no regular file.
    int open(const char* file);

    /// Valid once open() returned 0.
    [[nodiscard]] bool hasSums() const { return m_kind == copyKind::withSums; }
    /// Of the device's bytes in it. 0 after a failure.
    [[nodiscard]] std::uint32_t sizeBytes() const { return m_sizeBytes; }
    [[nodiscard]] const copyFacts& facts() const { return m_header.facts; }

    /// Reads up to `most` bytes of the device from `offset` on.
    /// @param[out] damagedBlock  with EBADMSG: the first block that is damaged
    int read(std::uint32_t offset, std::size_t most, std::vector<std::uint8_t>& bytes,
             std::uint32_t& damagedBlock) const;

    /// Lists the blocks that are damaged: none of a raw copy.
    int check(std::vector<std::uint32_t>& damagedBlocks) const;

private:
    int look();
    int readSums();
    int take(std::uint64_t at, std::span<std::uint8_t> bytes, std::size_t& taken) const;
    int takeBlocks(std::uint32_t first, std::uint32_t last, std::vector<std::uint8_t>& bytes,
                   std::vector<std::uint32_t>& damagedBlocks) const;

    /// Read at once: the header of any copy, and the whole file of a small device.
    static constexpr std::size_t frontBytes = 4 << 10;
    static_assert(copyLayout::headerBytes <= frontBytes);

    regularFile m_reader;
    std::span<const std::uint8_t> m_front; ///< of the file: in one of the next two
    std::array<std::uint8_t, frontBytes> m_usualFront; ///< filled as far as it is used
    std::vector<std::uint8_t> m_longFront; ///< of a file with many check sums
    copyKind m_kind = copyKind::raw;
    copyHeader m_header;
    std::uint32_t m_sizeBytes = 0;
};

} // namespace kest::host
