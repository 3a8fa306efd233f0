#include "tools/common/carefulwrite.h"

#include <algorithm>
#include <fmt/core.h>

#include "tools/common/bus.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/readback.h"
#include "tools/common/undofile.h"
#include "tools/common/widthguard.h"

namespace kest::tools
{
namespace
{

/// The first byte after the page of an offset.
std::uint32_t endOfPage(std::uint32_t at, std::uint32_t pageBytes) { return at / pageBytes * pageBytes + pageBytes; }

std::uint32_t pagesIn(const byteRange& range, std::uint32_t pageBytes)
{
    return range.length == 0 ? 0 : (range.offset + range.length - 1) / pageBytes - range.offset / pageBytes + 1;
}

void writeRanges(seeprom& chip, const doubtfulWrite& write, const std::string& undoFile)
{
    try {
        for (const byteRange& range : write.ranges) {
            chip.write(range.offset, write.wanted.subspan(range.offset - write.whole.offset, range.length));
        }
    } catch (failure& why) {
        explainFailedWrite(chip, write, why);
        if (!undoFile.empty()) {
            why.tryThis = fmt::format("'kestctl seeprom restore {}' puts the old bytes back", shellWord(undoFile));
        }
        throw;
    }
}

} // namespace

std::vector<byteRange> differingPages(const byteRange& range, std::span<const unsigned char> wanted,
                                      std::span<const unsigned char> present, std::uint32_t pageBytes, bool all)
{
    std::vector<byteRange> ranges;
    const std::uint32_t end = range.offset + range.length;
    for (std::uint32_t at = range.offset; at < end;) {
        const std::uint32_t next = std::min(end, endOfPage(at, pageBytes));
        const auto first = at - range.offset;
        const auto count = next - at;
        if (all || !std::ranges::equal(wanted.subspan(first, count), present.subspan(first, count))) {
            if (!ranges.empty() && ranges.back().offset + ranges.back().length == at) {
                ranges.back().length += count;
            } else {
                ranges.push_back({at, count});
            }
        }
        at = next;
    }
    return ranges;
}

writeReport writeCarefully(seeprom& chip, std::uint32_t offset, std::span<const unsigned char> bytes,
                           const carefulWriteOptions& options)
{
    const byteRange whole{offset, static_cast<std::uint32_t>(bytes.size())};
    const std::uint32_t pageBytes = chip.pageBytes();
    widthGuard width(chip, whole, {.yes = options.yes, .dryRun = options.dryRun, .unproved = options.widthUnproved});
    width.beforeReading();
    const byteVector old = chip.read(whole, "read the old bytes");
    width.afterReading();
    const auto ranges = differingPages(whole, bytes, old, pageBytes, options.allPages);
    const device& target = chip.target();
    writeReport report;
    for (const byteRange& range : ranges) {
        report.bytesWritten += range.length;
        report.pagesWritten += pagesIn(range, pageBytes);
    }
    report.pagesSkipped = pagesIn(whole, pageBytes) - report.pagesWritten;
    if (!ranges.empty()) {
        width.beforeWriting(old, bytes);
        report.part = checkIdentity(chip, options.force);
    }
    report.width = width.finding();
    if (options.dryRun || ranges.empty()) {
        report.verified = ranges.empty();
        return report;
    }
    if (chip.touchesHardware()) {
        refuseDoubtfulWrite(target, options.force);
        confirm(fmt::format("{}: write {} ({}) at {}?", target.label, countText(report.bytesWritten, "byte"),
                            countText(report.pagesWritten, "page"), addressText(target.end().address)),
                options.yes);
    }
    report.undoFile = saveUndo(dumpOf(chip, offset, old));
    width.tryOut();
    report.width = width.finding();
    const doubtfulWrite write{.whole = whole, .wanted = bytes, .old = old, .ranges = ranges};
    const pageWatch watch(chip);
    writeRanges(chip, write, report.undoFile);
    if (options.verify) {
        verifyWritten(chip, write, watch);
        report.verified = true;
    }
    return report;
}

} // namespace kest::tools
