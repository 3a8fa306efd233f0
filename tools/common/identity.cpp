#include "tools/common/identity.h"

#include <algorithm>
#include <fmt/core.h>
#include <span>

#include "tools/common/entryfailure.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

constexpr const char* step = "identity";
constexpr std::size_t mostBytesShown = 16;

/// Bytes of a message: "54 6c 76 49", of long ones the first.
std::string shown(std::span<const unsigned char> bytes)
{
    std::string text;
    for (const unsigned char byte : bytes.first(std::min(bytes.size(), mostBytesShown))) {
        text += fmt::format("{}{:02x}", text.empty() ? "" : " ", byte);
    }
    return bytes.size() > mostBytesShown ? text + " ..." : text;
}

/// The whole pages around a range.
byteRange pagesAround(const device& which, const byteRange& range)
{
    const std::uint32_t page = which.end().type->pageBytes;
    const std::uint32_t first = range.offset / page * page;
    const std::uint32_t end = (range.offset + range.length + page - 1) / page * page;
    return {first, std::min(end, which.end().type->bytes) - first};
}

/// @param at  the first of the bytes that differs
identityFinding differenceOf(const host::expectedBytes& expected, std::span<const unsigned char> seen, std::size_t at)
{
    // a difference far behind is shown from there on
    const std::size_t from = at < mostBytesShown ? 0 : at;
    const auto offset = static_cast<std::uint32_t>(expected.offset + from);
    return {.found = identity::unexpected,
            .difference =
                fmt::format("the device table expects {} at offset {} (0x{:X}), the part holds {}",
                            shown(std::span(expected.bytes).subspan(from)), offset, offset, shown(seen.subspan(from))),
            .offset = static_cast<std::uint32_t>(expected.offset + at),
            .expected = expected.bytes[at],
            .seen = seen[at]};
}

/// The refusal of a part that holds other bytes than expected.
failure otherPart(const device& which, const identityFinding& finding)
{
    failure why{.code = exitRefused,
                .what = finding.difference,
                .tryThis = "is it another part? --force writes all the same",
                .device = which.label,
                .step = step};
    logFailure(
        why,
        {.reason = reasonOtherPart, .words = {finding.offset, finding.expected, finding.seen}, .text = which.text});
    return why;
}

bool isAll(std::span<const unsigned char> bytes, unsigned char byte)
{
    return std::ranges::all_of(bytes, [byte](unsigned char each) { return each == byte; });
}

} // namespace

const char* identityWord(identity found)
{
    switch (found) {
    case identity::asExpected:
        return "as-expected";
    case identity::blank:
        return "blank";
    case identity::unexpected:
        return "unexpected";
    default:
        return "not-expected";
    }
}

void requireRoomFor(const device& which, const std::vector<host::expectedBytes>& expected)
{
    const deviceTypeInfo& type = *which.end().type;
    for (const host::expectedBytes& each : expected) {
        if (type.bytes == 0 || type.type == KEST_DEV_172) {
            throw failure{.code = exitWrongUse,
                          .what = fmt::format("the device table expects bytes of {}, which can't be read at an offset",
                                              aChip(type)),
                          .device = which.label};
        }
        if (each.offset + std::uint64_t{each.bytes.size()} > type.bytes) {
            throw failure{.code = exitWrongUse,
                          .what = fmt::format("the device table expects {} at offset {}, which pass the end: the "
                                              "device holds {} bytes",
                                              countText(each.bytes.size(), "byte"), each.offset, type.bytes),
                          .device = which.label};
        }
    }
}

identity checkIdentity(seeprom& chip, bool force)
{
    // a copy can be shorter than its device
    return checkIdentity(
        chip.target(), chip.touchesHardware(), [&chip](const byteRange& range) { return chip.read(range, step); },
        force);
}

identityFinding findIdentity(const device& which, bool wholePages, const bytesReader& read)
{
    const std::vector<host::expectedBytes> expected = expectedAt(which);
    if (expected.empty()) {
        return {};
    }
    requireRoomFor(which, expected);
    identityFinding first{.found = identity::asExpected};
    byteVector all;
    for (const host::expectedBytes& each : expected) {
        const byteRange range{each.offset, static_cast<std::uint32_t>(each.bytes.size())};
        const byteRange around = wholePages ? pagesAround(which, range) : range;
        const byteVector bytes = read(around);
        const auto seen = std::span(bytes).subspan(each.offset - around.offset, each.bytes.size());
        const auto at = static_cast<std::size_t>(std::ranges::mismatch(each.bytes, seen).in1 - each.bytes.begin());
        if (at != each.bytes.size() && first.found == identity::asExpected) {
            first = differenceOf(each, seen, at);
        }
        all.insert(all.end(), bytes.begin(), bytes.end());
    }
    const bool isBlank = isAll(all, 0xFF) || isAll(all, 0x00);
    return first.found == identity::unexpected && isBlank ? identityFinding{.found = identity::blank} : first;
}

identity checkIdentity(const device& which, bool wholePages, const bytesReader& read, bool force)
{
    const identityFinding finding = findIdentity(which, wholePages, read);
    if (finding.found == identity::unexpected && !force) {
        throw otherPart(which, finding);
    }
    return finding.found;
}

} // namespace kest::tools
