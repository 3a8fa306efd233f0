#include "tools/common/identity.h"

#include <algorithm>
#include <fmt/core.h>
#include <optional>
#include <span>

#include "contents/recognise.h"
#include "tools/common/device.h"
#include "tools/common/entryfailure.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

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

bool isAll(std::span<const unsigned char> bytes, unsigned char byte)
{
    return std::ranges::all_of(bytes, [byte](unsigned char each) { return each == byte; });
}

/// Throws unless bytes of a device can be read at an offset.
void requireOffsets(const device& which)
{
    const deviceTypeInfo& type = *which.end().type;
    if (type.bytes == 0 || type.type == KEST_DEV_172) {
        throw failure{
            .code = exitWrongUse,
            .what = fmt::format("the device table expects bytes of {}, which can't be read at an offset", aChip(type)),
            .device = which.label};
    }
}

/// What was read of a part.
struct seenPart {
    byteVector all;
    identityFinding first{.found = identity::asExpected}; ///< the first difference, when there is one
};

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

/// The refusal of a part that holds something else than expected.
failure otherPart(const device& which, const identityFinding& finding)
{
    failure why{.code = exitRefused,
                .what = finding.difference,
                .tryThis = "is it another part? --force writes all the same",
                .device = which.label,
                .step = identityStep};
    logFailure(
        why,
        {.reason = reasonOtherPart, .words = {finding.offset, finding.expected, finding.seen}, .text = which.text});
    return why;
}

/// Reads what the table expects at offsets.
void lookAtBytes(const device& which, std::uint32_t served, const bytesReader& read, seenPart& seen)
{
    // a copy can be shorter than its device
    const bool wholePages = served == which.end().type->bytes;
    const std::vector<host::expectedBytes> expected = expectedAt(which);
    requireRoomFor(which, expected);
    for (const host::expectedBytes& each : expected) {
        const byteRange range{each.offset, static_cast<std::uint32_t>(each.bytes.size())};
        const byteRange around = wholePages ? pagesAround(which, range) : range;
        const byteVector bytes = read(around);
        const auto part = std::span(bytes).subspan(each.offset - around.offset, each.bytes.size());
        const auto at = static_cast<std::size_t>(std::ranges::mismatch(each.bytes, part).in1 - each.bytes.begin());
        if (at != each.bytes.size() && seen.first.found == identity::asExpected) {
            seen.first = differenceOf(each, part, at);
        }
        seen.all.insert(seen.all.end(), bytes.begin(), bytes.end());
    }
}

/// Reads as many bytes as show the format of the contents, where the table expects one.
void lookForFormat(const device& which, std::uint32_t served, const bytesReader& read, seenPart& seen)
{
    const std::string name = expectedFormatAt(which);
    if (name.empty()) {
        return;
    }
    const contents::format& expected = requireFormatFor(which, name);
    const byteVector bytes = read({0, recognitionBytes(served)});
    const auto found = contents::recognise(bytes);
    if (std::ranges::find(found, &expected) == found.end() && seen.first.found == identity::asExpected) {
        const std::string held = found.empty() ? "no known format" : std::string(found.front()->name);
        seen.first = {.found = identity::unexpected,
                      .difference = fmt::format("the device table expects contents of the format {}, the part holds {}",
                                                expected.name, held)};
    }
    seen.all.insert(seen.all.end(), bytes.begin(), bytes.end());
}

} // namespace

const contents::format& requireFormatFor(const device& which, const std::string& name)
{
    requireOffsets(which);
    try {
        return formatNamed(name);
    } catch (failure& why) {
        why.device = which.label;
        throw;
    }
}

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
        requireOffsets(which);
        if (each.offset + std::uint64_t{each.bytes.size()} > type.bytes) {
            throw failure{.code = exitWrongUse,
                          .what = fmt::format("the device table expects {} at offset {}, which pass the end: the "
                                              "device holds {} bytes",
                                              countText(each.bytes.size(), "byte"), each.offset, type.bytes),
                          .device = which.label};
        }
    }
}

bool isExpected(const device& which) { return !expectedAt(which).empty() || !expectedFormatAt(which).empty(); }

identityFinding findIdentity(const device& which, std::uint32_t served, const bytesReader& read)
{
    if (!isExpected(which)) {
        return {};
    }
    seenPart seen;
    lookAtBytes(which, served, read, seen);
    lookForFormat(which, served, read, seen);
    const bool isBlank = isAll(seen.all, 0xFF) || isAll(seen.all, 0x00);
    return seen.first.found == identity::unexpected && isBlank ? identityFinding{.found = identity::blank} : seen.first;
}

identity requireExpected(const device& which, const identityFinding& finding, bool force)
{
    if (finding.found == identity::unexpected && !force) {
        throw otherPart(which, finding);
    }
    return finding.found;
}

} // namespace kest::tools
