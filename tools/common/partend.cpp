#include "tools/common/partend.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

namespace kest::tools
{
namespace
{

constexpr std::uint8_t beforeEnd = 0xF8;
/// Before the end and behind it.
constexpr std::size_t bytesAcrossEnd = 8;

bool startsWith(widthReads& reads, unsigned address, std::span<const std::uint8_t> bytes)
{
    std::array<std::uint8_t, bytesAcrossEnd> start{};
    return reads.readOther(static_cast<std::uint8_t>(address), start) && std::ranges::equal(start, bytes);
}

/// Parts of several blocks of 256 bytes have an address for each. Behind the last block they go on with the first one.
/// @param bytes  read behind byte 255
partEnd endBefore(std::span<const std::uint8_t> bytes, widthReads& reads, unsigned address)
{
    constexpr unsigned blockBits = 0x0E;
    const bool atStart = std::ranges::equal(bytes, std::span(reads.first()).first(bytesAcrossEnd));
    const bool isLast = (address & blockBits) == blockBits;
    const bool atNext = !isLast && startsWith(reads, address + 2, bytes);
    if (atStart || atNext) {
        return atStart && atNext ? partEnd::notKnown : atStart ? partEnd::at256 : partEnd::nextAddress;
    }
    for (const unsigned bits : {0x02U, 0x06U, 0x0EU}) {
        if ((address & bits) == bits && startsWith(reads, address & ~bits, bytes)) {
            return partEnd::nextAddress;
        }
    }
    return partEnd::notKnown;
}

} // namespace

endFinding findPartEnd(widthReads& reads, std::uint8_t address)
{
    std::array<std::uint8_t, 2 * bytesAcrossEnd> bytes{};
    const std::span<const std::uint8_t> across = bytes;
    if (reads.read({&beforeEnd, 1}, bytes) != readEnd::done) {
        return {.readFailed = true};
    }
    if (reads.isStable(beforeEnd, bytesAcrossEnd) &&
        !std::ranges::equal(across.first(bytesAcrossEnd), std::span(reads.first()).subspan(beforeEnd))) {
        return {.isSteady = false};
    }
    if (!reads.isStable(0, bytesAcrossEnd)) {
        return {};
    }
    return {.end = endBefore(across.last(bytesAcrossEnd), reads, address)};
}

} // namespace kest::tools
