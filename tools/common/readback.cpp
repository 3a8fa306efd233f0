#include "tools/common/readback.h"

#include <algorithm>
#include <fmt/core.h>
#include <string_view>

#include "platform/host/iic/tools.h"
#include "tools/common/diagnosis.h"
#include "tools/common/entryfailure.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

using host::iic::pageWaits;

/// Text and hint for pages that hold their old bytes.
struct keptText {
    const char* verdict;
    std::string what;
    const char* tryThis;
};
keptText textOf(keptBecause why, const pageCount& pages)
{
    const std::uint32_t all = pages.old + pages.taken;
    const std::string some = fmt::format("{} of {} hold the old bytes", pages.old, countText(all, "page"));
    switch (why) {
    case keptBecause::writeProtected:
        return {"write-protected",
                "the chip is write-protected: it holds the old bytes, and was never busy after a page",
                checkProtection};
    case keptBecause::partlyProtected:
        return {"write-protected",
                "part of the chip is write-protected: " + some + ", and the chip was not busy after them",
                checkProtection};
    case keptBecause::lost:
        return {"lost", some + ", although the chip was busy after them: they were lost", "try again"};
    case keptBecause::neverBusy:
        return {"not-known", some + "; whether they are write-protected is not known: this chip is never busy",
                checkProtection};
    default:
        return {"not-known", some + "; whether they are write-protected is not known: the chip was not asked itself",
                checkProtection};
    }
}

/// What was read first instead of what was written.
struct difference {
    std::uint32_t index = 0;
    std::uint32_t offset = 0;
    std::string text;
};
difference differenceOf(const doubtfulWrite& write, const byteVector& now)
{
    const auto index = static_cast<std::uint32_t>(std::ranges::mismatch(write.wanted, now).in1 - write.wanted.begin());
    const std::uint32_t offset = write.whole.offset + index;
    return {index, offset,
            fmt::format("what was read back differs from offset {} (0x{:X}) on: wrote {:02x}, read {:02x}", offset,
                        offset, write.wanted[index], now[index])};
}

[[noreturn]] void throwFlaky(seeprom& chip, const doubtfulWrite& write, const byteVector& first, const byteVector& now)
{
    std::uint32_t differing = 0;
    for (std::size_t at = 0; at < now.size(); ++at) {
        differing += first[at] != now[at] ? 1U : 0U;
    }
    const auto index = static_cast<std::uint32_t>(std::ranges::mismatch(first, now).in1 - first.begin());
    failure why{.code = exitVerifyFailed,
                .what = fmt::format("{}; two reads differ in {}: what the chip holds is not known",
                                    differenceOf(write, now).text, countText(differing, "byte")),
                .tryThis = "try --voted 5, or a lower --speed",
                .device = chip.target().label,
                .step = "verify",
                .verdict = "flaky"};
    logFailure(why, {.reason = reasonReadsDiffer,
                     .words = {write.whole.offset + index, differing, write.whole.length},
                     .text = chip.target().text});
    throw why;
}

/// Two reads agree on bytes that were not written.
[[noreturn]] void throwKept(seeprom& chip, const doubtfulWrite& write, const byteVector& now, const pageWaits& waits)
{
    const pageCount pages = countPages(write, now, chip.pageBytes());
    const difference found = differenceOf(write, now);
    failure why{.code = exitVerifyFailed, .what = found.text, .device = chip.target().label, .step = "verify"};
    toolEntry entry{.reason = reasonVerifyDiffers,
                    .words = {found.offset, write.wanted[found.index], now[found.index]},
                    .text = chip.target().text};
    if (pages.old == 0 || pages.other != 0 || !chip.touchesHardware()) {
        why.tryThis = "two reads agree on bytes that are neither old nor new: check the type of the device";
        why.verdict = "other-bytes";
    } else {
        const keptText kept = textOf(whyKept(pages, waits, chip.target().behindHub()), pages);
        why.what += "; " + kept.what;
        why.tryThis = kept.tryThis;
        why.verdict = kept.verdict;
        if (std::string_view(kept.verdict) == "write-protected") {
            entry.reason = reasonProtected;
            entry.words = {pages.firstOld, pages.old, pages.old + pages.taken};
        }
    }
    logFailure(why, entry);
    throw why;
}

} // namespace

pageWatch::pageWatch(const seeprom& chip)
    : m_bus{chip.target().bus, chip.target().node}, m_address(chip.target().head().address),
      m_watches(chip.touchesHardware()), m_before(sums())
{
}

pageWaits pageWatch::sums() const
{
    int error = 0;
    const auto wires = m_watches ? host::iic::toolBus::open(m_bus.path, nodeNumber(m_bus.node), error) : nullptr;
    return wires == nullptr ? pageWaits{} : wires->waitsAfterPages(m_address);
}

pageWaits pageWatch::waits() const
{
    const pageWaits now = sums();
    return {.pages = now.pages - m_before.pages,
            .busyPages = now.busyPages - m_before.busyPages,
            .unaskedPages = now.unaskedPages - m_before.unaskedPages,
            .lastPolls = now.lastPolls};
}

pageCount countPages(const doubtfulWrite& write, std::span<const unsigned char> now, std::uint32_t pageBytes)
{
    pageCount count;
    for (const byteRange& range : write.ranges) {
        const std::uint32_t end = range.offset + range.length;
        for (std::uint32_t at = range.offset; at < end;) {
            const std::uint32_t next = std::min(end, at / pageBytes * pageBytes + pageBytes);
            const auto part = [&](std::span<const unsigned char> bytes) {
                return bytes.subspan(at - write.whole.offset, next - at);
            };
            if (std::ranges::equal(part(now), part(write.wanted))) {
                ++count.taken;
            } else if (!std::ranges::equal(part(now), part(write.old))) {
                ++count.other;
            } else if (count.old++ == 0) {
                const auto same = std::ranges::mismatch(part(write.wanted), part(write.old)).in1;
                count.firstOld = at + static_cast<std::uint32_t>(same - part(write.wanted).begin());
            }
            at = next;
        }
    }
    return count;
}

keptBecause whyKept(const pageCount& pages, const pageWaits& waits, bool behindHub)
{
    if (waits.pages == 0 || waits.unaskedPages != 0 || (behindHub && waits.busyPages != 0)) {
        return keptBecause::notSeen;
    }
    if (waits.busyPages == 0) {
        return pages.taken == 0 ? keptBecause::writeProtected : keptBecause::neverBusy;
    }
    return waits.busyPages <= pages.taken ? keptBecause::partlyProtected : keptBecause::lost;
}

void verifyWritten(seeprom& chip, const doubtfulWrite& write, const pageWatch& watch)
{
    const byteVector first = chip.read(write.whole, "verify");
    if (std::ranges::equal(write.wanted, first)) {
        return;
    }
    const byteVector now = chip.read(write.whole, "verify");
    chip.noteWavering(write.whole.offset, first, now);
    if (std::ranges::equal(write.wanted, now)) {
        return;
    }
    if (first != now) {
        throwFlaky(chip, write, first, now);
    }
    throwKept(chip, write, now, watch.waits());
}

void explainFailedWrite(seeprom& chip, const doubtfulWrite& write, failure& why)
{
    try {
        const byteVector now = chip.read(write.whole, "read back");
        const auto equal = std::ranges::mismatch(write.wanted, now).in1 - write.wanted.begin();
        const pageCount pages = countPages(write, now, chip.pageBytes());
        // behind a hub it was the hub that refused
        if (why.verdict == std::string_view(verdictRefusedByte) && !chip.target().behindHub() && pages.taken == 0 &&
            pages.other == 0 && chip.read(write.whole, "read back") == now) {
            why.what = "the chip is write-protected: it refused a data byte, and holds the old bytes";
            why.verdict = "write-protected";
        }
        why.what += fmt::format("; the first {} of {} bytes are certain (read back)", equal, write.whole.length);
    } catch (const failure&) {
        why.what += "; how many bytes arrived is not known: reading back failed, too";
    }
}

} // namespace kest::tools
