/// The file of a persisted copy: bytes of a device behind a header and a check sum for every 4 KiB of them.
/// docs/host-services.md has the table. A file without the marks of this format is a raw copy: the device's bytes and
/// nothing that proves them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kest::host
{

constexpr std::uint32_t largestCopyBytes = 16 << 20;
constexpr std::uint32_t copyBlockBytes = 4096; ///< bytes that one check sum proves; the last block may be shorter

/// What a copy's file says of its device.
struct copyFacts {
    std::uint32_t deviceBytes = 0; ///< size of the device; 0 not known
    std::optional<std::int64_t> capturedMs = {}; ///< when the device was read, ms since 1970 UTC; none: not known
};

/// Where the parts of a file with check sums lie.
class copyLayout
{
public:
    static constexpr std::uint32_t headerBytes = 44;
    static constexpr std::uint32_t markBytes = 16;
    static constexpr std::uint32_t sumBytes = 4;

    /// @param heldBytes  bytes of the device in the file, 1 to largestCopyBytes
    explicit constexpr copyLayout(std::uint32_t heldBytes) : m_heldBytes(heldBytes) {}

    [[nodiscard]] constexpr std::uint32_t heldBytes() const { return m_heldBytes; }
    [[nodiscard]] constexpr std::uint32_t blocks() const { return (m_heldBytes + copyBlockBytes - 1) / copyBlockBytes; }
    [[nodiscard]] constexpr std::uint32_t sumOffset(std::uint32_t block) const
    {
        return headerBytes + block * sumBytes;
    }
    [[nodiscard]] constexpr std::uint32_t dataOffset() const { return sumOffset(blocks()); }
    [[nodiscard]] constexpr std::uint32_t blockBytes(std::uint32_t block) const
    {
        return block + 1 < blocks() ? copyBlockBytes : m_heldBytes - block * copyBlockBytes;
    }
    [[nodiscard]] constexpr std::uint32_t endMarkOffset() const { return dataOffset() + m_heldBytes; }
    [[nodiscard]] constexpr std::uint32_t fileBytes() const { return endMarkOffset() + markBytes; }

private:
    std::uint32_t m_heldBytes;
};

/// Largest file of a copy, of whichever kind.
constexpr std::uint32_t largestCopyFileBytes = copyLayout(largestCopyBytes).fileBytes();

enum class copyKind : std::uint8_t {
    raw, ///< without any mark
    withSums,
    damaged, ///< with a mark, whole or nearly so, and something else that is wrong
    newer, ///< of a version that is not known here
};

struct copyHeader {
    std::uint32_t heldBytes = 0;
    copyFacts facts;
};

/// Finds out what a file is. One changed bit never makes a raw copy of a file with check sums; nor do some more in one
/// of its marks, nor the loss of its front or its end.
/// @param front  the file's first copyLayout::headerBytes, all of a shorter file
/// @param back  its last copyLayout::markBytes, all of a shorter file
/// @param[out] header  filled for withSums alone
[[nodiscard]] copyKind kindOfCopy(std::span<const std::uint8_t> front, std::span<const std::uint8_t> back,
                                  std::uint64_t fileBytes, copyHeader& header);

/// The same of a whole file in memory.
[[nodiscard]] copyKind kindOfCopy(std::span<const std::uint8_t> file, copyHeader& header);

/// @return 0 where a file of this kind and size is read; EBADMSG damaged, ENOTSUP newer, EFBIG a raw copy of more than
/// largestCopyBytes
[[nodiscard]] int copyError(copyKind kind, std::uint64_t fileBytes);

/// @param sum  copyLayout::sumBytes of the file. @return whether they are the check sum of a block's bytes
[[nodiscard]] bool provesBlock(std::span<const std::uint8_t> sum, std::span<const std::uint8_t> block);

/// @return the file that holds these bytes, 1 to largestCopyBytes of them
[[nodiscard]] std::vector<std::uint8_t> copyFileOf(std::span<const std::uint8_t> bytes, const copyFacts& facts);

/// Changes bytes in a whole file in memory, and the check sums of their blocks. Other blocks stay as they are, damaged
/// ones too.
/// @param file  a file with check sums of this layout. @param offset  first of the device's bytes that change
/// @return the first block that changes in part and is damaged: the file is as it was then
[[nodiscard]] std::optional<std::uint32_t> changeCopyFile(std::span<std::uint8_t> file, const copyLayout& layout,
                                                          std::uint32_t offset, std::span<const std::uint8_t> bytes);

/// @return where the device's bytes seem to lie in a whole file, damaged or not; nothing proves them
[[nodiscard]] std::span<const std::uint8_t> unprovedBytesOf(std::span<const std::uint8_t> file);

} // namespace kest::host
