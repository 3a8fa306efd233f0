#include "tools/common/carefulwrite.h"

#include <algorithm>
#include <fmt/core.h>
#include <optional>

#include "tools/common/bus.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/readback.h"
#include "tools/common/undofile.h"
#include "tools/common/widthguard.h"
#include "tools/common/writeplan.h"

namespace kest::tools
{
namespace
{

/// Whether the part is one that may be written so, when something is to be written.
identity checkPart(const device& target, const writePlan& plan, bool force, widthGuard& width)
{
    if (plan.ranges.empty()) {
        return identity::notExpected;
    }
    width.beforeWriting(plan.old, plan.bytes);
    return requireExpected(target, plan.part, force);
}

/// Whether the part's contents may become what is written.
contentsFinding checkContents(const device& target, const writePlan& plan, bool dryRun)
{
    if (!plan.contents.doubt.empty() && !dryRun) {
        askForContents(target, plan.contents);
    }
    return plan.contents;
}

writeReport reportOf(const writePlan& plan, std::uint32_t pageBytes)
{
    writeReport report;
    report.bytesWritten = plan.total;
    for (const byteRange& range : plan.ranges) {
        report.pagesWritten += pagesIn(range, pageBytes);
    }
    report.pagesSkipped = pagesIn(plan.whole, pageBytes) - report.pagesWritten;
    return report;
}

/// @return the number of bytes written: all, or those before a signal came
std::uint32_t writeRanges(seeprom& chip, const writePlan& plan, const std::string& undoFile)
{
    std::uint32_t done = 0;
    try {
        for (const byteRange& range : plan.ranges) {
            const std::uint32_t written =
                chip.write(range.offset, plan.bytes.subspan(range.offset - plan.whole.offset, range.length));
            done += written;
            if (written < range.length) {
                break;
            }
        }
    } catch (failure& why) {
        const interruptsHeld calm;
        explainFailedWrite(chip, inDoubt(plan), why);
        why.tryThis = restoreHint(undoFile);
        throw;
    }
    return done;
}

/// Reads back what was written before a signal came, and says what came of it.
std::string whatIsWritten(seeprom& chip, const writePlan& plan, std::uint32_t done)
{
    const std::string written = fmt::format("{} of {} bytes are written", done, plan.total);
    const byteRange part = partWritten(plan, done);
    const auto wanted = plan.bytes.first(part.length);
    try {
        const byteVector now = chip.read(part, "read back");
        const auto equal = static_cast<std::uint32_t>(std::ranges::mismatch(wanted, now).in1 - wanted.begin());
        return equal == part.length ? written + " and verified"
                                    : fmt::format("{}, but what was read back differs from offset {} (0x{:X}) on",
                                                  written, part.offset + equal, part.offset + equal);
    } catch (const failure&) {
        return written + "; whether they arrived is not known: reading back failed";
    }
}

/// What went out before a signal came.
struct partlyDone {
    std::uint32_t bytes = 0;
    bool trial = false; ///< the byte of a width trial, too
    bool takenBack = false; ///< it was, and is as it was before
    std::optional<pageWatch> watch; ///< from the first page on
};

/// Writes what the plan says, until a signal comes.
partlyDone writePages(seeprom& chip, const writePlan& plan, widthGuard& width, const std::string& undoFile)
{
    partlyDone done;
    if (interruptSignal() == 0) {
        width.tryOut(undoFile);
        done.takenBack = interruptSignal() != 0 && width.takeTrialBack();
        done.trial = width.hasTried();
        if (interruptSignal() == 0 && !width.keepsFirst()) {
            removeOldUndo();
        }
        done.watch.emplace(chip);
        done.bytes = writeRanges(chip, plan, undoFile);
    }
    return done;
}

/// Reports a signal that came before all was written.
[[noreturn]] void throwCutShort(seeprom& chip, const writePlan& plan, const partlyDone& done,
                                const std::string& undoFile)
{
    failure why = interruption(interruptSignal(), chip.target().label, "write");
    const interruptsHeld calm;
    if (done.bytes != 0 || done.trial) {
        why.what += "; " + (done.bytes != 0 ? whatIsWritten(chip, plan, done.bytes)
                                            : "nothing but the byte of the trial is written");
        why.tryThis = restoreHint(undoFile);
    } else {
        dropUndo(undoFile);
        why.what +=
            done.takenBack ? "; the byte of a trial is put back, nothing else was written" : "; nothing was written";
    }
    throw why;
}

/// Compares what was written. Whatever comes of it, all is written: a failure names what brings the old bytes back.
void verifyAll(seeprom& chip, const writePlan& plan, const pageWatch& watch, const std::string& undoFile)
{
    try {
        verifyWritten(chip, inDoubt(plan), watch);
    } catch (failure& why) {
        if (why.code == exitVerifyFailed) {
            why.tryThis += "; " + restoreHint(undoFile);
        } else {
            why.what = fmt::format("all {} are written, but reading them back failed: {}",
                                   countText(plan.total, "byte"), why.what);
            why.tryThis = restoreHint(undoFile);
        }
        throw;
    }
}

/// A signal that came after the last page was sent waits until the bytes have been compared.
void finishWrite(seeprom& chip, const writePlan& plan, const pageWatch& watch, bool verify, writeReport& report)
{
    {
        const interruptsHeld calm;
        if (verify) {
            verifyAll(chip, plan, watch, report.undoFile);
            report.verified = true;
        }
    }
    if (const int signal = interruptSignal()) {
        failure why = interruption(signal, chip.target().label, "write");
        why.what +=
            fmt::format("; all {} bytes are written{}", plan.total, verify ? " and verified" : ", not verified");
        why.tryThis = restoreHint(report.undoFile);
        throw why;
    }
}

/// For a second ^C, which ends the program whatever is under way. They last as long as this object.
class lastWords
{
public:
    lastWords(const device& target, const std::string& undoFile)
    {
        setLastWords(failureLine("kestctl", {.what = "ended at once; what is written is not known",
                                             .tryThis = restoreHint(undoFile),
                                             .device = target.label,
                                             .step = "write"}) +
                     "\n");
    }
    lastWords(const lastWords&) = delete;
    lastWords& operator=(const lastWords&) = delete;
    ~lastWords() { setLastWords({}); }
};

void askFor(const seeprom& chip, const writeReport& report, bool yes)
{
    const device& target = chip.target();
    if (chip.touchesHardware()) {
        confirm(fmt::format("{}: write {} ({}) at {}?", target.label, countText(report.bytesWritten, "byte"),
                            countText(report.pagesWritten, "page"), addressText(target.end().address)),
                yes);
    }
}

void hold(std::optional<deviceOperation>& operation, const device& target, const carefulWriteOptions& options)
{
    if (!options.held) {
        operation.emplace(
            target, operationRequest{.use = operationUse::write, .doing = options.doing, .waitNs = options.waitNs});
    }
}

/// Runs a step of a write before the first byte goes out.
template <typename Step>
auto beforeWriting(Step step)
{
    try {
        return step();
    } catch (failure& why) {
        if (isInterruption(why)) {
            why.what += "; nothing was written";
        }
        throw;
    }
}

} // namespace

writeReport writeCarefully(seeprom& chip, std::uint32_t offset, std::span<const unsigned char> bytes,
                           const carefulWriteOptions& options)
{
    const byteRange whole{offset, static_cast<std::uint32_t>(bytes.size())};
    const device& target = chip.target();
    const interruptWatch watch;
    std::optional<deviceOperation> operation;
    if (chip.touchesHardware()) {
        refuseDoubtfulWrite(target, options.force);
        beforeWriting([&] { hold(operation, target, options); });
    }
    widthGuard width(chip, whole, {.yes = options.yes, .dryRun = options.dryRun, .unproved = options.widthUnproved});
    const planOptions planned{.allPages = options.allPages, .contents = !options.force && !options.contentsKnown};
    const writePlan plan = beforeWriting([&] { return makePlan(chip, whole, bytes, planned, width); });
    writeReport report = reportOf(plan, chip.pageBytes());
    report.part = beforeWriting([&] { return checkPart(target, plan, options.force, width); });
    report.width = width.finding();
    report.contents = beforeWriting([&] { return checkContents(target, plan, options.dryRun); });
    if (options.dryRun || plan.ranges.empty()) {
        report.verified = plan.ranges.empty();
        return report;
    }
    beforeWriting([&] { askFor(chip, report, options.yes); });
    report.undoFile = saveUndo(target, dumpOf(chip, offset, plan.old));
    const lastWords words(target, report.undoFile);
    const partlyDone done = writePages(chip, plan, width, report.undoFile);
    report.width = width.finding();
    if (done.bytes < plan.total) {
        throwCutShort(chip, plan, done, report.undoFile);
    }
    finishWrite(chip, plan, *done.watch, options.verify, report);
    return report;
}

} // namespace kest::tools
