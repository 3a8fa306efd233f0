#include "platform/host/vpd/copyfile.h"

#include <algorithm>
#include <cerrno>
#include <span>

namespace kest::host
{

int copyFile::open(const char* file)
{
    if (const int error = m_reader.open(file, largestCopyFileBytes); error != 0) {
        return error == EINVAL ? ESPIPE : error;
    }
    if (const int error = look(); error != 0) {
        return error;
    }
    if (const int error = copyError(m_kind, m_reader.sizeBytes()); error != 0) {
        return error;
    }
    m_sizeBytes = hasSums() ? m_header.heldBytes : static_cast<std::uint32_t>(m_reader.sizeBytes());
    return 0;
}

/// Finds out what the file is.
int copyFile::look()
{
    const std::uint64_t size = m_reader.sizeBytes();
    const auto front =
        std::span(m_usualFront).first(static_cast<std::size_t>(std::min<std::uint64_t>(size, frontBytes)));
    std::size_t filled = 0;
    if (const int error = m_reader.read(0, front, filled); error != 0) {
        return error;
    }
    m_front = front.first(filled);
    std::array<std::uint8_t, copyLayout::markBytes> room;
    const auto back = std::span(room).first(static_cast<std::size_t>(std::min<std::uint64_t>(size, room.size())));
    if (const int error = take(size - back.size(), back, filled); error != 0) {
        return error;
    }
    const auto header = m_front.first(std::min<std::size_t>(m_front.size(), copyLayout::headerBytes));
    m_kind = kindOfCopy(header, back.first(filled), size, m_header);
    return hasSums() ? readSums() : 0;
}

/// Reads up to the end of the check sums, where there are more than the front has.
int copyFile::readSums()
{
    const std::size_t had = m_front.size();
    const std::size_t wanted = copyLayout(m_header.heldBytes).dataOffset();
    if (wanted <= had) {
        return 0;
    }
    m_longFront.assign(m_front.begin(), m_front.end());
    m_longFront.resize(wanted);
    std::size_t filled = 0;
    if (const int error = m_reader.read(had, std::span(m_longFront).subspan(had), filled); error != 0) {
        return error;
    }
    m_front = m_longFront;
    return had + filled == wanted ? 0 : EBADMSG;
}

/// Fills the first `taken` of `bytes`: all of them, unless the file ends sooner.
int copyFile::take(std::uint64_t at, std::span<std::uint8_t> bytes, std::size_t& taken) const
{
    if (at > m_front.size() || bytes.size() > m_front.size() - at) {
        return m_reader.read(at, bytes, taken);
    }
    std::copy_n(m_front.data() + at, bytes.size(), bytes.data());
    taken = bytes.size();
    return 0;
}

/// Reads whole blocks, damaged ones too.
int copyFile::takeBlocks(std::uint32_t first, std::uint32_t last, std::vector<std::uint8_t>& bytes,
                         std::vector<std::uint32_t>& damagedBlocks) const
{
    const copyLayout layout(m_header.heldBytes);
    const std::size_t wanted = std::size_t{last - first} * copyBlockBytes + layout.blockBytes(last);
    bytes.resize(wanted);
    const std::uint64_t from = layout.dataOffset() + std::uint64_t{first} * copyBlockBytes;
    std::size_t taken = 0;
    if (const int error = take(from, bytes, taken); error != 0) {
        return error;
    }
    if (taken < wanted) {
        // cut off since it was opened
        return EBADMSG;
    }
    for (std::uint32_t block = first; block <= last; ++block) {
        const auto sum = m_front.subspan(layout.sumOffset(block), copyLayout::sumBytes);
        const std::size_t at = std::size_t{block - first} * copyBlockBytes;
        if (!provesBlock(sum, std::span(bytes).subspan(at, layout.blockBytes(block)))) {
            damagedBlocks.push_back(block);
        }
    }
    return 0;
}

int copyFile::read(std::uint32_t offset, std::size_t most, std::vector<std::uint8_t>& bytes,
                   std::uint32_t& damagedBlock) const
{
    const std::size_t length = offset < m_sizeBytes ? std::min<std::size_t>(most, m_sizeBytes - offset) : 0;
    bytes.resize(length);
    if (length == 0) {
        return 0;
    }
    if (!hasSums()) {
        std::size_t taken = 0;
        const int error = take(offset, bytes, taken);
        bytes.resize(taken);
        return error;
    }
    const std::uint32_t first = offset / copyBlockBytes;
    const auto last = static_cast<std::uint32_t>((offset + length - 1) / copyBlockBytes);
    std::vector<std::uint32_t> damagedBlocks;
    int error = takeBlocks(first, last, bytes, damagedBlocks);
    if (error == 0 && !damagedBlocks.empty()) {
        damagedBlock = damagedBlocks.front();
        error = EBADMSG;
    }
    if (error != 0) {
        bytes.clear();
        return error;
    }
    const std::size_t skipped = offset - std::size_t{first} * copyBlockBytes;
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(skipped));
    bytes.resize(length);
    return 0;
}

int copyFile::check(std::vector<std::uint32_t>& damagedBlocks) const
{
    damagedBlocks.clear();
    if (!hasSums()) {
        return 0;
    }
    std::vector<std::uint8_t> bytes;
    return takeBlocks(0, copyLayout(m_header.heldBytes).blocks() - 1, bytes, damagedBlocks);
}

} // namespace kest::host
