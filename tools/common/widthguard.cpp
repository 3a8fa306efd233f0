#include "tools/common/widthguard.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>

#include "tools/common/device.h"
#include "tools/common/failure.h"
#include "tools/common/firstundo.h"
#include "tools/common/interrupt.h"
#include "tools/common/output.h"
#include "tools/common/trialverdict.h"
#include "tools/common/undofile.h"
#include "tools/common/widthproof.h"
#include "tools/common/widthrefusal.h"

namespace kest::tools
{
namespace
{

constexpr const char* readingDoubt =
    "whether the read of the old bytes changed the part, as it does a ferroelectric one with one offset byte, is not "
    "known";
constexpr const char* readingEnded =
    "ended at once; whether a read changed the part, as it does a ferroelectric one with one offset byte, is not known";
constexpr const char* trialEnded = "ended at once; whether a byte that was written as a trial is back is not known";

std::string wordsFor(const device& target, const char* what, const std::string& hint)
{
    return failureLine("kestctl", {.what = what, .tryThis = hint, .device = target.label, .step = widthStep}) + "\n";
}

} // namespace

widthGuard::widthGuard(seeprom& chip, const byteRange& whole, const widthOptions& options)
    : m_chip(chip), m_range(whole), m_options(options),
      m_needed(chip.touchesHardware() && chip.target().end().type->kind == deviceKind::seeprom),
      m_claimedBytes(offsetBytesOf(*chip.target().end().type)), m_provedByTable(isWidthProved(chip.target())),
      m_accepted(options.unproved || m_provedByTable)
{
}

bool widthGuard::isOpen() const { return m_finding && !isProved(*m_finding); }

/// Proves, and refuses a type that the part can't be.
void widthGuard::prove()
{
    m_finding = proveWidth(m_chip.target(), m_chip.speedKhz(), m_range);
    throwIfInterrupted(m_chip.target().label, widthStep);
    settle();
}

void widthGuard::settle()
{
    const deviceTypeInfo& type = *m_chip.target().end().type;
    if (isProved(*m_finding) && !canBe(*m_finding, type)) {
        throw widthRefusal(m_chip.target(), fmt::format("the part is no {}: {}", type.chip, widthText(*m_finding)),
                           fittingHint(*m_finding));
    }
}

void widthGuard::askForWidth()
{
    if (m_accepted || m_options.dryRun) {
        return;
    }
    const std::string what = fmt::format("the offset width is {}", widthText(*m_finding));
    if (!canAsk()) {
        throw widthRefusal(m_chip.target(), what, unprovedHint);
    }
    confirm(fmt::format("{}: {}; a write in the wrong width destroys other bytes.", m_chip.target().label, what),
            false);
    m_accepted = true;
}

void widthGuard::beforeReading()
{
    if (!m_needed || (m_claimedBytes == 1 && !m_chip.target().behindHub())) {
        return;
    }
    prove();
    // on wires that garble nothing is sure to be put back; a hub that knows the part refuses what is wrong itself
    const bool canWatch = !m_finding->first.empty() && m_finding->verdict != widthVerdict::flaky;
    if (!isOpen() || m_finding->byHub || canWatch || m_accepted) {
        watchReads();
        return;
    }
    if (m_finding->error != 0) {
        // a part that does not answer at all is a failure with a diagnosis of its own
        readBehindOne(m_chip);
    }
    if (m_options.dryRun) {
        throw widthRefusal(m_chip.target(), fmt::format("the offset width is {}", widthText(*m_finding)), unprovedHint);
    }
    askForWidth();
    watchReads();
}

/// The undo file for a part with one offset byte, saved when it is not yet.
firstUndo& widthGuard::firstFile()
{
    return m_firstUndo ? *m_firstUndo : m_firstUndo.emplace(m_chip, m_finding->first);
}

/// What the reads can change is on the disk before, and named when they are ended at once.
void widthGuard::watchReads()
{
    if (watchesReads()) {
        m_words.emplace(wordsFor(m_chip.target(), readingEnded, firstFile().hint()));
    }
}

void widthGuard::willRead(const byteRange& range)
{
    const std::uint32_t end = range.offset + range.length;
    for (std::uint32_t at = range.offset / 256; range.length != 0 && at <= (end - 1) / 256; ++at) {
        m_readsChange.insert(at);
    }
}

/// A part whose reads behind one offset byte do not begin there shows other bytes, but not by a change. Bytes that did
/// change show where the part ends.
firstChange widthGuard::changeByReading()
{
    const firstAgain now = readFirstAgain(m_chip);
    const firstChange change = now.unlike ? firstChange::none : changeOf(now, m_finding->first, m_readsChange);
    if (change == firstChange::there) {
        const std::size_t start = std::max(startBytes, *m_readsChange.rbegin() + 1);
        m_finding->end = findShortEnd(m_chip, *now.bytes, start).value_or(partEnd::notKnown);
    }
    return change;
}

/// A read behind two offset bytes has changed the part, which is proved to hold its old bytes again.
failure widthGuard::changedByReading(firstChange change)
{
    if (change == firstChange::elsewhere) {
        return widthRefusal(m_chip.target(),
                            fmt::format("the offset width is not known: the read of the old bytes changed bytes, as an "
                                        "offset byte does that arrives as another one; {}",
                                        backText(true)),
                            "try a lower --speed");
    }
    m_finding->verdict = widthVerdict::oneByte;
    return widthRefusal(m_chip.target(),
                        fmt::format("the part is no {}: a read behind two offset bytes changed it, as it does a "
                                    "ferroelectric part with one; {}",
                                    m_chip.target().end().type->chip, backText(true)),
                        fittingHint(*m_finding));
}

void widthGuard::afterReading()
{
    if (!watchesReads()) {
        return;
    }
    firstChange change = firstChange::none;
    bool isBack = true;
    {
        const interruptsHeld calm;
        change = changeByReading();
        isBack = change == firstChange::none || putBack(m_chip, m_finding->first);
    }
    m_words.reset();
    const bool isSeen = change == firstChange::there || change == firstChange::elsewhere;
    if (isBack && isSeen) {
        throwSeen(m_chip.target(), changedByReading(change));
    }
    if (!isBack && (change == firstChange::there || !m_accepted)) {
        throwSeen(m_chip.target(),
                  widthRefusal(m_chip.target(), fmt::format("the offset width is not known: {}", readingDoubt),
                               firstFile().keep()));
    }
}

void widthGuard::afterFailedRead(failure& why)
{
    // a part of another width can give other bytes each time
    if (m_needed && !m_finding && why.verdict == std::string_view("flaky")) {
        prove();
        why.what += isOpen() ? fmt::format("; the offset width is {}", widthText(*m_finding)) : "";
        return;
    }
    if (!watchesReads()) {
        return;
    }
    const interruptsHeld calm;
    const firstChange change = changeByReading();
    if (change == firstChange::none) {
        return;
    }
    if (!putBack(m_chip, m_finding->first)) {
        why.what += fmt::format("; {}", readingDoubt);
        why.tryThis = firstFile().keep();
    } else if (change != firstChange::notKnown) {
        failure changed = changedByReading(change);
        if (!isInterruption(why)) {
            changed.what += fmt::format("; the read ended early: {}", why.what);
            throw changed;
        }
        why.what += "; " + changed.what;
        why.tryThis = changed.tryThis;
    }
}

void widthGuard::beforeWriting(std::span<const unsigned char> old, std::span<const unsigned char> wanted)
{
    if (!m_needed) {
        return;
    }
    // a hub that had a trouble to report may have got over it
    if (!m_finding || (isOpen() && m_chip.target().behindHub())) {
        prove();
    }
    if (!m_options.dryRun && !m_options.yes && canAsk()) {
        // before the question
        std::fputs((widthLine(m_chip.target(), *m_finding) + "\n").c_str(), stderr);
    }
    if (!isOpen()) {
        return;
    }
    if (m_finding->verdict == widthVerdict::uniform && !m_provedByTable) {
        m_trial = chooseTrial(m_claimedBytes, m_finding->first, m_range, old, wanted);
    }
    if (!m_trial) {
        askForWidth();
    }
}

/// @param hint  how the old bytes are restored; that of the file for a part with one offset byte is added when it stays
trialResult widthGuard::lookAtTrial(std::string& hint)
{
    firstUndo& file = firstFile();
    const finalWords words(wordsFor(m_chip.target(), trialEnded, fmt::format("{}; {}", hint, file.hint())));
    trialResult result = tools::tryOut(m_chip, *m_trial, m_finding->first);
    if (!result.isBack && result.end != trialEnd::asClaimed) {
        hint += "; " + file.keep();
    }
    return result;
}

void widthGuard::tryOut(const std::string& undoFile)
{
    if (!m_trial) {
        keepUnproved();
        return;
    }
    trialResult result{.seen = {}, .isBack = true};
    std::string hint = restoreHint(undoFile);
    try {
        result = lookAtTrial(hint);
        if (!settleTrial(m_chip, *m_trial, result, hint, *m_finding)) {
            m_trial.reset();
            askForWidth();
        }
    } catch (const failure& why) {
        if (!result.isBack) {
            throw;
        }
        dropUndo(undoFile);
        throwSeen(m_chip.target(), why);
    }
    keepUnproved();
}

/// The undo file of a write whose width is not proved may not fit the part: the other one stays beside it.
void widthGuard::keepUnproved()
{
    if (m_claimedBytes == 2 && watchesReads() && !m_provedByTable) {
        const failure word{.what = "the offset width is not proved",
                           .tryThis = firstFile().keep(),
                           .device = m_chip.target().label,
                           .step = widthStep};
        std::fputs((failureLine("kestctl", word) + "\n").c_str(), stderr);
    }
}

bool widthGuard::takeTrialBack()
{
    const bool isBack = m_trial && takeBack(m_chip, *m_trial);
    if (isBack) {
        m_trial.reset();
    }
    return isBack;
}

} // namespace kest::tools
