#include "tools/common/partend.h"

#include <algorithm>
#include <span>
#include <vector>

namespace kest::tools
{
namespace
{

constexpr std::uint8_t beforeEnd = 0xF8;
constexpr std::size_t bytesBeforeEnd = 8;

bool startsWith(widthReads& reads, unsigned address, std::span<const std::uint8_t> bytes)
{
    std::vector<std::uint8_t> start(bytes.size());
    return reads.readOther(static_cast<std::uint8_t>(address), start) && std::ranges::equal(start, bytes);
}

/// Parts of several blocks of 256 bytes have an address for each. Behind the last block they go on with the first one.
/// @param bytes  read behind byte 255
partEnd endBefore(std::span<const std::uint8_t> bytes, widthReads& reads, unsigned address)
{
    constexpr unsigned blockBits = 0x0E;
    const bool atStart = std::ranges::equal(bytes, std::span(reads.first()).first(bytes.size()));
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

endFinding findPartEnd(widthReads& reads, std::uint8_t address, std::size_t start)
{
    std::vector<std::uint8_t> bytes(bytesBeforeEnd + start);
    const std::span<const std::uint8_t> across = bytes;
    const readEnd end = reads.read({&beforeEnd, 1}, bytes);
    if (end != readEnd::done) {
        return {.readFailed = end != readEnd::tooLong || start <= startBytes};
    }
    if (reads.isStable(beforeEnd, bytesBeforeEnd) &&
        !std::ranges::equal(across.first(bytesBeforeEnd), std::span(reads.first()).subspan(beforeEnd))) {
        return {.isSteady = false};
    }
    if (!reads.isStable(0, start)) {
        return {};
    }
    return {.end = endBefore(across.last(start), reads, address)};
}

} // namespace kest::tools
