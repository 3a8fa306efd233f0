#include "tools/common/writeplan.h"

#include <algorithm>
#include <fmt/core.h>

#include "tools/common/failure.h"
#include "tools/common/number.h"
#include "tools/common/vote.h"
#include "tools/common/watchedreads.h"

namespace kest::tools
{
namespace
{

constexpr const char* readOld = "read the old bytes";
// up to 0.1 s at 400 kHz
constexpr std::uint32_t mostReadAgain = 4096;

/// The first byte after the page of an offset.
std::uint32_t endOfPage(std::uint32_t at, std::uint32_t pageBytes) { return at / pageBytes * pageBytes + pageBytes; }

/// Pages of `range` in which `wanted` and `present` differ, joined where they touch. @param all  takes every page
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

/// Reads the pages that will be written once more, where a read is not repeated anyway. Throws a refusal when they
/// differ: the undo file would hold wrong bytes. Pages that are skipped held what was to be written.
void readAgain(seeprom& chip, const writePlan& plan, watchedReads& reads)
{
    if (!chip.readsOnce() || plan.total > mostReadAgain) {
        return;
    }
    for (const byteRange& range : plan.ranges) {
        const auto part = std::span(plan.old).subspan(range.offset - plan.whole.offset, range.length);
        const byteVector first(part.begin(), part.end());
        const byteVector now = reads.read(range, readOld);
        if (first != now) {
            chip.noteWavering(range.offset, first, now);
            const std::size_t bytes = differing(range.offset, first, now).size();
            throw failure{.code = exitRefused,
                          .what = fmt::format("two reads of the old bytes differ in {}: an undo file would hold wrong "
                                              "ones",
                                              countText(bytes, "byte")),
                          .tryThis = "try --voted 5, or a lower --speed",
                          .device = chip.target().label,
                          .step = readOld,
                          .verdict = "flaky"};
        }
    }
}

} // namespace

writePlan makePlan(seeprom& chip, const byteRange& whole, std::span<const unsigned char> bytes,
                   const planOptions& options, widthGuard& width)
{
    return readWatched(chip, width, [&](watchedReads reads) {
        writePlan plan{.whole = whole, .bytes = bytes, .old = reads.read(whole, readOld), .ranges = {}};
        plan.ranges = differingPages(whole, bytes, plan.old, chip.pageBytes(), options.allPages);
        for (const byteRange& range : plan.ranges) {
            plan.total += range.length;
        }
        readAgain(chip, plan, reads);
        if (!plan.ranges.empty()) {
            plan.part = findIdentity(chip.target(), servedBytes(chip), reads.reader(identityStep));
        }
        if (!plan.ranges.empty() && options.contents) {
            plan.contents = findContents(chip, whole, plan.old, bytes, reads.reader(contentsStep));
        }
        return plan;
    });
}

std::uint32_t pagesIn(const byteRange& range, std::uint32_t pageBytes)
{
    return range.length == 0 ? 0 : (range.offset + range.length - 1) / pageBytes - range.offset / pageBytes + 1;
}

byteRange partWritten(const writePlan& plan, std::uint32_t done)
{
    std::uint32_t end = plan.whole.offset;
    for (const byteRange& range : plan.ranges) {
        const std::uint32_t part = std::min(done, range.length);
        end = part != 0 ? range.offset + part : end;
        done -= part;
    }
    return {plan.whole.offset, end - plan.whole.offset};
}

doubtfulWrite inDoubt(const writePlan& plan)
{
    return {.whole = plan.whole, .wanted = plan.bytes, .old = plan.old, .ranges = plan.ranges};
}

} // namespace kest::tools
