#include "platform/host/vpd/copyformat.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>

#include "base/crc32.h"

namespace kest::host
{

namespace
{

using mark = std::array<std::uint8_t, copyLayout::markBytes>;

// The first bytes are no text, and line ends show what a program did that took the file for one.
constexpr mark frontMark{0x89, 'k', 'e', 's', 't', ' ', 'c', 'o', 'p', 'y', '\r', '\n', 0x1A, '\n', 0x00, 0xFF};
constexpr mark endMark{0x98, 'e', 'n', 'd', ' ', 'o', 'f', ' ', 'c', 'o', 'p', 'y', '\r', '\n', 0x1A, 0xFE};

/// So many bits of a mark's 128 may be wrong. Bytes of a device come that near by one chance in 10^18.
constexpr int mostWrongBits = 16;

constexpr std::uint32_t formatVersion = 1;
constexpr std::int64_t timeUnknown = std::numeric_limits<std::int64_t>::min();

// Offsets in the header; big-endian.
constexpr std::size_t offsetVersion = 16;
constexpr std::size_t offsetBlockBytes = 20;
constexpr std::size_t offsetHeldBytes = 24;
constexpr std::size_t offsetDeviceBytes = 28;
constexpr std::size_t offsetCaptured = 32;
constexpr std::size_t offsetHeaderSum = 40;
static_assert(offsetHeaderSum + copyLayout::sumBytes == copyLayout::headerBytes);

template <typename Number>
void put(std::span<std::uint8_t> bytes, std::size_t offset, Number number)
{
    for (std::size_t at = 0; at < sizeof number; ++at) {
        bytes[offset + at] = static_cast<std::uint8_t>(number >> (8 * (sizeof number - 1 - at)));
    }
}

template <typename Number>
Number get(std::span<const std::uint8_t> bytes, std::size_t offset)
{
    Number number = 0;
    for (std::size_t at = 0; at < sizeof number; ++at) {
        number = static_cast<Number>(number << 8) | bytes[offset + at];
    }
    return number;
}

/// Whether bytes are a mark, or were one before some of its bits changed or it was cut.
bool resembles(std::span<const std::uint8_t> bytes, const mark& wanted)
{
    if (bytes.size() < wanted.size()) {
        return !bytes.empty() && std::ranges::equal(bytes, std::span(wanted).first(bytes.size()));
    }
    std::array<std::uint64_t, sizeof(mark) / sizeof(std::uint64_t)> had{};
    std::array<std::uint64_t, had.size()> expected{};
    std::memcpy(had.data(), bytes.data(), sizeof had);
    std::memcpy(expected.data(), wanted.data(), sizeof expected);
    int wrongBits = 0;
    for (std::size_t word = 0; word < had.size(); ++word) {
        wrongBits += std::popcount(had[word] ^ expected[word]);
    }
    return wrongBits <= mostWrongBits;
}

bool provesHeader(std::span<const std::uint8_t> header)
{
    return get<std::uint32_t>(header, offsetHeaderSum) == crc32(header.first(offsetHeaderSum));
}

/// @return what a file of this size holds when its size is right
std::uint32_t heldBytesBySize(std::size_t fileBytes)
{
    constexpr std::size_t around = copyLayout::headerBytes + copyLayout::markBytes;
    const std::size_t inner = fileBytes - std::min(fileBytes, around);
    constexpr std::size_t blockWithSum = copyBlockBytes + copyLayout::sumBytes;
    const std::size_t blocks = (inner + blockWithSum - 1) / blockWithSum;
    return static_cast<std::uint32_t>(inner - std::min(inner, blocks * copyLayout::sumBytes));
}

void putSum(std::span<std::uint8_t> file, const copyLayout& layout, std::uint32_t block)
{
    const std::size_t at = layout.dataOffset() + std::size_t{block} * copyBlockBytes;
    put(file, layout.sumOffset(block), crc32(file.subspan(at, layout.blockBytes(block))));
}

} // namespace

copyKind kindOfCopy(std::span<const std::uint8_t> front, std::span<const std::uint8_t> back, std::uint64_t fileBytes,
                    copyHeader& header)
{
    const auto first = front.first(std::min<std::size_t>(front.size(), frontMark.size()));
    if (!resembles(first, frontMark) && !resembles(back, endMark)) {
        return copyKind::raw;
    }
    if (front.size() < copyLayout::headerBytes || !std::ranges::equal(first, frontMark) || !provesHeader(front)) {
        return copyKind::damaged;
    }
    if (get<std::uint32_t>(front, offsetVersion) != formatVersion) {
        return copyKind::newer;
    }
    const auto heldBytes = get<std::uint32_t>(front, offsetHeldBytes);
    if (get<std::uint32_t>(front, offsetBlockBytes) != copyBlockBytes || heldBytes == 0 ||
        heldBytes > largestCopyBytes || fileBytes != copyLayout(heldBytes).fileBytes() ||
        !std::ranges::equal(back, endMark)) {
        return copyKind::damaged;
    }
    header.heldBytes = heldBytes;
    header.facts.deviceBytes = get<std::uint32_t>(front, offsetDeviceBytes);
    const auto captured = static_cast<std::int64_t>(get<std::uint64_t>(front, offsetCaptured));
    header.facts.capturedMs = captured == timeUnknown ? std::nullopt : std::optional(captured);
    return copyKind::withSums;
}

copyKind kindOfCopy(std::span<const std::uint8_t> file, copyHeader& header)
{
    const auto front = file.first(std::min<std::size_t>(file.size(), copyLayout::headerBytes));
    const auto back = file.last(std::min<std::size_t>(file.size(), copyLayout::markBytes));
    return kindOfCopy(front, back, file.size(), header);
}

int copyError(copyKind kind, std::uint64_t fileBytes)
{
    switch (kind) {
    case copyKind::damaged:
        return EBADMSG;
    case copyKind::newer:
        return ENOTSUP;
    default:
        return kind == copyKind::raw && fileBytes > largestCopyBytes ? EFBIG : 0;
    }
}

bool provesBlock(std::span<const std::uint8_t> sum, std::span<const std::uint8_t> block)
{
    return get<std::uint32_t>(sum, 0) == crc32(block);
}

std::vector<std::uint8_t> copyFileOf(std::span<const std::uint8_t> bytes, const copyFacts& facts)
{
    const copyLayout layout(static_cast<std::uint32_t>(bytes.size()));
    std::vector<std::uint8_t> file(layout.fileBytes());
    std::ranges::copy(frontMark, file.begin());
    put(file, offsetVersion, formatVersion);
    put(file, offsetBlockBytes, copyBlockBytes);
    put(file, offsetHeldBytes, layout.heldBytes());
    put(file, offsetDeviceBytes, facts.deviceBytes);
    put(file, offsetCaptured, static_cast<std::uint64_t>(facts.capturedMs.value_or(timeUnknown)));
    put(file, offsetHeaderSum, crc32(std::span(file).first(offsetHeaderSum)));
    std::ranges::copy(bytes, file.begin() + layout.dataOffset());
    std::ranges::copy(endMark, file.begin() + layout.endMarkOffset());
    for (std::uint32_t block = 0; block < layout.blocks(); ++block) {
        putSum(file, layout, block);
    }
    return file;
}

std::optional<std::uint32_t> changeCopyFile(std::span<std::uint8_t> file, const copyLayout& layout,
                                            std::uint32_t offset, std::span<const std::uint8_t> bytes)
{
    if (bytes.empty()) {
        return std::nullopt;
    }
    const std::size_t end = offset + bytes.size();
    const std::uint32_t first = offset / copyBlockBytes;
    const auto last = static_cast<std::uint32_t>((end - 1) / copyBlockBytes);
    for (std::uint32_t block = first; block <= last; ++block) {
        const std::size_t from = std::size_t{block} * copyBlockBytes;
        const bool whole = from >= offset && from + layout.blockBytes(block) <= end;
        if (!whole && !provesBlock(file.subspan(layout.sumOffset(block), copyLayout::sumBytes),
                                   file.subspan(layout.dataOffset() + from, layout.blockBytes(block)))) {
            return block;
        }
    }
    std::ranges::copy(bytes, file.begin() + layout.dataOffset() + offset);
    for (std::uint32_t block = first; block <= last; ++block) {
        putSum(file, layout, block);
    }
    return std::nullopt;
}

std::span<const std::uint8_t> unprovedBytesOf(std::span<const std::uint8_t> file)
{
    copyHeader header;
    if (kindOfCopy(file, header) == copyKind::raw) {
        return file;
    }
    if (file.size() < copyLayout::headerBytes) {
        return {};
    }
    std::uint32_t heldBytes = provesHeader(file) ? get<std::uint32_t>(file, offsetHeldBytes) : 0;
    if (heldBytes == 0 || heldBytes > largestCopyBytes) {
        heldBytes = heldBytesBySize(file.size());
    }
    const copyLayout layout(heldBytes);
    const std::size_t from = std::min<std::size_t>(file.size(), layout.dataOffset());
    return file.subspan(from, std::min<std::size_t>(file.size() - from, heldBytes));
}

} // namespace kest::host
