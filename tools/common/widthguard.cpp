#include "tools/common/widthguard.h"

#include <cstdio>
#include <fmt/core.h>

#include "tools/common/device.h"
#include "tools/common/failure.h"
#include "tools/common/firstundo.h"
#include "tools/common/interrupt.h"
#include "tools/common/output.h"
#include "tools/common/undofile.h"
#include "tools/common/widthproof.h"

namespace kest::tools
{
namespace
{

const char* backText(bool isBack)
{
    return isBack ? "it holds its old bytes" : "whether it holds its old bytes is not known";
}

constexpr const char* step = "width proof";
constexpr const char* readingDoubt =
    "whether the read of the old bytes changed the part, as it does a ferroelectric one with one offset byte, is not "
    "known";
constexpr const char* otherWays = "--width-unproved writes all the same, or 'width_proved = true' in the device table";

} // namespace

widthGuard::widthGuard(seeprom& chip, const byteRange& whole, const widthOptions& options)
    : m_chip(chip), m_range(whole), m_options(options),
      m_needed(chip.touchesHardware() && chip.target().end().type->kind == deviceKind::seeprom),
      m_claimedBytes(offsetBytesOf(*chip.target().end().type)),
      m_accepted(options.unproved || isWidthProved(chip.target()))
{
}

bool widthGuard::isOpen() const { return m_finding && !isProved(*m_finding); }

failure widthGuard::refusal(const std::string& what, const std::string& tryThis) const
{
    return {.code = exitRefused, .what = what, .tryThis = tryThis, .device = m_chip.target().label, .step = step};
}

std::string widthGuard::fittingHint() const { return fmt::format("types that would fit: {}", fittingText(*m_finding)); }

/// Proves, and refuses a type that the part can't be.
void widthGuard::prove()
{
    m_finding = proveWidth(m_chip.target(), m_chip.speedKhz(), m_range);
    throwIfInterrupted(m_chip.target().label, step);
    settle();
}

void widthGuard::settle()
{
    const deviceTypeInfo& type = *m_chip.target().end().type;
    if (isProved(*m_finding) && !canBe(*m_finding, type)) {
        throw refusal(fmt::format("the part is no {}: {}", type.chip, widthText(*m_finding)), fittingHint());
    }
}

void widthGuard::askForWidth()
{
    if (m_accepted || m_options.dryRun) {
        return;
    }
    const std::string what = fmt::format("the offset width is {}", widthText(*m_finding));
    if (!canAsk()) {
        throw refusal(what, otherWays);
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
        return;
    }
    if (m_finding->error != 0) {
        // a part that does not answer at all is a failure with a diagnosis of its own
        readBehindOne(m_chip);
    }
    if (m_options.dryRun) {
        throw refusal(fmt::format("the offset width is {}", widthText(*m_finding)), otherWays);
    }
    askForWidth();
}

void widthGuard::willRead(const byteRange& range)
{
    const std::uint32_t end = range.offset + range.length;
    for (std::uint32_t at = range.offset / 256; range.length != 0 && at <= (end - 1) / 256; ++at) {
        m_readsChange.insert(at);
    }
}

/// A part whose reads behind one offset byte do not begin there shows other bytes, but not by a change.
firstChange widthGuard::changeByReading() const
{
    const firstAgain now = readFirstAgain(m_chip);
    const firstChange change = changeOf(now, m_finding->first, m_readsChange);
    return now.unlike || change == firstChange::elsewhere ? firstChange::none : change;
}

/// A read behind two offset bytes has changed the part, which is proved to hold its old bytes again.
failure widthGuard::changedByReading()
{
    m_finding->verdict = widthVerdict::oneByte;
    return refusal(fmt::format("the part is no {}: a read behind two offset bytes changed it, as it does a "
                               "ferroelectric part with one; {}",
                               m_chip.target().end().type->chip, backText(true)),
                   fittingHint());
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
        isBack = change == firstChange::none || putBack(m_chip, m_finding->first, m_readsChange);
    }
    if (isBack && change == firstChange::there) {
        throwSeen(changedByReading());
    }
    if (!isBack && (change == firstChange::there || !m_accepted)) {
        throwSeen(refusal(fmt::format("the offset width is not known: {}", readingDoubt), keepFirst()));
    }
}

void widthGuard::afterFailedRead(failure& why)
{
    if (!watchesReads()) {
        return;
    }
    const interruptsHeld calm;
    const firstChange change = changeByReading();
    if (change == firstChange::none) {
        return;
    }
    if (!putBack(m_chip, m_finding->first, m_readsChange)) {
        why.what += fmt::format("; {}", readingDoubt);
        why.tryThis = keepFirst();
    } else if (change == firstChange::there) {
        failure changed = changedByReading();
        if (!isInterruption(why)) {
            changed.what += fmt::format("; the read ended early: {}", why.what);
            throw changed;
        }
        why.what += "; " + changed.what;
        why.tryThis = changed.tryThis;
    }
}

/// Saves the bytes of a part with one offset byte. @return how to restore them
std::string widthGuard::keepFirst() const { return restoreFirstHint(m_chip, saveFirst(m_chip, m_finding->first)); }

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
    if (m_finding->verdict == widthVerdict::uniform && !m_accepted) {
        m_trial = chooseTrial(m_claimedBytes, m_finding->first, m_range, old, wanted);
    }
    if (!m_trial) {
        askForWidth();
    }
}

void widthGuard::tryOut(const std::string& undoFile)
{
    if (!m_trial) {
        return;
    }
    trialResult result{.seen = {}, .isBack = true};
    try {
        const std::string firstFile = m_claimedBytes == 2 ? saveFirst(m_chip, m_finding->first) : "";
        result = tools::tryOut(m_chip, *m_trial, m_finding->first);
        std::string hint = restoreHint(undoFile);
        if (!firstFile.empty() && (result.isBack || result.end == trialEnd::asClaimed)) {
            dropUndo(firstFile);
        } else if (!firstFile.empty()) {
            hint += "; " + restoreFirstHint(m_chip, firstFile);
        }
        concludeTrial(result, hint);
    } catch (const failure& why) {
        if (!result.isBack) {
            throw;
        }
        dropUndo(undoFile);
        throwSeen(why);
    }
}

/// Throws a failure; an interruption that says the same when there was a signal.
void widthGuard::throwSeen(const failure& why) const
{
    failure thrown = why;
    if (const int signal = interruptSignal()) {
        thrown = interruption(signal, m_chip.target().label, step);
        thrown.what += "; " + why.what;
        thrown.tryThis = why.tryThis;
    }
    throw thrown;
}

/// @param hint  how the old bytes are restored
void widthGuard::concludeTrial(const trialResult& result, const std::string& hint)
{
    switch (result.end) {
    case trialEnd::asClaimed:
        m_finding->verdict = m_claimedBytes == 1 ? widthVerdict::oneByte : widthVerdict::twoBytes;
        m_finding->seen = fmt::format("a byte written at offset 0x{:X} as a trial reads back", m_trial->offset);
        break;
    case trialEnd::inOther:
        m_finding->verdict = widthVerdict::oneByte;
        throw refusal(fmt::format("{}; {}", result.seen, backText(result.isBack)),
                      fittingHint() + (result.isBack ? "" : "; " + hint));
    case trialEnd::unchanged:
        m_finding->verdict = widthVerdict::notDecidable;
        m_finding->seen = result.seen;
        m_trial.reset();
        askForWidth();
        break;
    case trialEnd::notKnown:
        throwTrial(result, hint);
    }
}

/// The trial left the width open. @param hint  how the old bytes are restored
void widthGuard::throwTrial(const trialResult& result, const std::string& hint)
{
    const std::string byte =
        result.isBack
            ? backText(true)
            : fmt::format("whether the byte of the trial at offset 0x{:X} is changed is not known", m_trial->offset);
    if (!result.trouble) {
        throw refusal(fmt::format("the offset width is not known: {}; {}", result.seen, byte),
                      result.isBack ? otherWays : hint);
    }
    failure why = *result.trouble;
    why.what = fmt::format("a trial write for the offset width failed: {}; {}", why.what, byte);
    why.tryThis = result.isBack ? why.tryThis : hint;
    throw why;
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
