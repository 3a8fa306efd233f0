#include "platform/host/trace/header.h"

#include <algorithm>
#include <cstring>

#include "platform/host/trace/text.h"

namespace kest::host::trace
{

namespace
{

std::string boundedText(const char* text, std::size_t size)
{
    std::string escaped;
    appendEscaped(escaped, {text, strnlen(text, size)});
    return escaped;
}

std::string cutShort(std::uint64_t bytes, std::uint64_t wanted)
{
    return "cut short: " + std::to_string(bytes) + " of " + std::to_string(wanted) + " bytes";
}

/// Why a ring of `bytes` bytes with this header cannot be read; empty when it can. The header's words are in this
/// machine's order.
std::string headerTrouble(const ringHeader& header, std::uint64_t bytes)
{
    const std::uint64_t wanted = header.headerBytes + std::uint64_t{header.lanes} * header.laneStride;
    if (std::memcmp(header.magic, ringMagic, sizeof ringMagic) != 0) {
        return "not a trace ring";
    }
    if (header.order != orderMark || header.version != layoutVersion) {
        return "a trace ring of a version or byte order that is not known";
    }
    if (header.headerBytes < sizeof header || header.lanes == 0 || header.laneUnits == 0 ||
        header.laneUnits > maximumRingBytes / unitBytes ||
        header.laneStride < laneHeadBytes + header.laneUnits * unitBytes) {
        return "the numbers in its header don't fit together";
    }
    return wanted > bytes ? cutShort(bytes, wanted) : "";
}

} // namespace

headerReading readHeader(std::span<const std::uint8_t> image)
{
    headerReading read;
    ringHeader& header = read.header;
    if (image.size() < sizeof header) {
        read.trouble = cutShort(image.size(), sizeof header) + " of a header";
        return read;
    }
    if (std::ranges::all_of(image.first(sizeof header), [](std::uint8_t byte) { return byte == 0; })) {
        read.trouble = "its header is zeroed, or was never written";
        return read;
    }
    std::memcpy(&header, image.data(), sizeof header);
    read.foreign = header.order == __builtin_bswap32(orderMark);
    if (read.foreign) {
        for (std::uint32_t* word :
             {&header.order, &header.version, &header.headerBytes, &header.lanes, &header.laneStride, &header.laneUnits,
              &header.seed, &header.pid, &header.clockOffset[0], &header.clockOffset[1], &header.created[0],
              &header.created[1]}) {
            *word = __builtin_bswap32(*word);
        }
    }
    read.trouble = headerTrouble(header, image.size());
    return read;
}

ringInfo makeInfo(const ringHeader& header)
{
    ringInfo info;
    info.buffer = boundedText(header.bufferName, sizeof header.bufferName);
    info.processName = boundedText(header.processName, sizeof header.processName);
    info.pid = header.pid;
    info.createdNs = std::uint64_t{header.created[0]} << 32 | header.created[1];
    return info;
}

} // namespace kest::host::trace
