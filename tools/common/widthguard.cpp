#include "tools/common/widthguard.h"

#include <cstdio>
#include <fmt/core.h>

#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/output.h"
#include "tools/common/signalblock.h"
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

constexpr const char* otherWays = "--width-unproved writes all the same, or 'width_proved = true' in the device table";

/// Whether bytes behind one offset byte have changed since the proof. Nothing when that is not known.
std::optional<bool> hasChanged(const seeprom& chip, const std::vector<std::uint8_t>& first)
{
    const signalBlock quiet;
    const auto now = readFirstAgain(chip).bytes;
    return now ? std::optional(*now != first) : std::nullopt;
}

/// Saves what the part holds if it takes one offset byte: an undo file by the chip's type does not fit such a part.
std::string saveFirst(const seeprom& chip, const std::vector<std::uint8_t>& first)
{
    const device part = asShortPart(chip.target());
    return saveUndo(part, {.text = part.text, .name = part.label, .number = part.number, .bytes = first});
}

/// How to restore such a file, also where the device table names another type.
std::string restoreFirstHint(const seeprom& chip, const std::string& firstFile)
{
    device part = asShortPart(chip.target());
    part.named = false;
    std::string force;
    try {
        refuseOtherType(part, false);
    } catch (const failure&) {
        force = "--force ";
    }
    return fmt::format("'kestctl seeprom restore {}{}' does so for a part with one offset byte", force,
                       shellWord(firstFile));
}

} // namespace

widthGuard::widthGuard(seeprom& chip, const byteRange& whole, const widthOptions& options)
    : m_chip(chip), m_range(whole), m_options(options),
      m_needed(chip.touchesHardware() && chip.target().end().type->kind == deviceKind::seeprom),
      m_claimedBytes(offsetBytesOf(*chip.target().end().type)),
      m_accepted(options.unproved || isWidthProved(chip.target()))
{
}

bool widthGuard::isOpen() const { return m_finding && !isProved(*m_finding); }

void widthGuard::refuse(const std::string& what, const std::string& tryThis) const
{
    throw failure{
        .code = exitRefused, .what = what, .tryThis = tryThis, .device = m_chip.target().label, .step = "width proof"};
}

std::string widthGuard::fittingHint() const { return fmt::format("types that would fit: {}", fittingText(*m_finding)); }

/// Proves, and refuses a type that the part can't be.
void widthGuard::prove()
{
    m_finding = proveWidth(m_chip.target(), m_chip.speedKhz(), m_range);
    settle();
}

void widthGuard::settle()
{
    const deviceTypeInfo& type = *m_chip.target().end().type;
    if (isProved(*m_finding) && !canBe(*m_finding, type)) {
        refuse(fmt::format("the part is no {}: {}", type.chip, widthText(*m_finding)), fittingHint());
    }
}

void widthGuard::askForWidth()
{
    if (m_accepted || m_options.dryRun) {
        return;
    }
    const std::string what = fmt::format("the offset width is {}", widthText(*m_finding));
    if (!canAsk()) {
        refuse(what, otherWays);
    }
    confirm(fmt::format("{}: {}; a write in the wrong width destroys other bytes.", m_chip.target().label, what),
            false);
    m_accepted = true;
}

void widthGuard::beforeReading()
{
    const bool behindHub = m_chip.target().behindHub();
    if (!m_needed || (m_claimedBytes == 1 && !behindHub)) {
        return;
    }
    prove();
    const bool canWatch = !m_finding->first.empty() || m_finding->error != 0;
    if (isOpen() && !behindHub && !canWatch && !m_accepted) {
        if (m_options.dryRun) {
            refuse(fmt::format("the offset width is {}", widthText(*m_finding)), otherWays);
        }
        askForWidth();
    }
}

void widthGuard::afterReading()
{
    if (watchesReads() && hasChanged(m_chip, m_finding->first) == true) {
        putBackAndRefuse("");
    }
}

void widthGuard::afterFailedRead(failure& why)
{
    if (!watchesReads()) {
        return;
    }
    const interruptsHeld calm;
    const auto changed = hasChanged(m_chip, m_finding->first);
    if (changed == true) {
        putBackAndRefuse(fmt::format("; the read ended early: {}", why.what));
    } else if (!changed) {
        why.what += "; whether the read itself changed the part, as it does a ferroelectric one with one offset byte, "
                    "is not known";
    }
}

/// After a read behind two offset bytes has changed the part. @param more  that is to be said
void widthGuard::putBackAndRefuse(const std::string& more)
{
    const interruptsHeld calm;
    const bool isBack = putBack(m_chip, m_finding->first);
    const std::string firstFile = isBack ? "" : saveFirst(m_chip, m_finding->first);
    m_finding->verdict = widthVerdict::oneByte;
    refuse(fmt::format("the part is no {}: a read behind two offset bytes changed it, as it does a ferroelectric part "
                       "with one; {}{}",
                       m_chip.target().end().type->chip, backText(isBack), more),
           isBack ? fittingHint() : restoreFirstHint(m_chip, firstFile));
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
    const std::string firstFile = m_claimedBytes == 2 ? saveFirst(m_chip, m_finding->first) : "";
    const trialResult result = tools::tryOut(m_chip, *m_trial, m_finding->first);
    std::string hint = restoreHint(undoFile);
    if (!firstFile.empty() && result.isBack) {
        dropUndo(firstFile);
    } else if (!firstFile.empty()) {
        hint += "; " + restoreFirstHint(m_chip, firstFile);
    }
    if (result.trouble || !result.isKnown) {
        throwTrial(result, hint);
    }
    const bool isOne = (m_claimedBytes == 1) == result.seen.empty();
    m_finding->verdict = isOne ? widthVerdict::oneByte : widthVerdict::twoBytes;
    if (!result.seen.empty()) {
        refuse(fmt::format("{}; {}", result.seen, backText(result.isBack)),
               result.isBack ? fittingHint() : fittingHint() + "; " + hint);
    }
    m_finding->seen = fmt::format("a byte written at offset 0x{:X} as a trial reads back", m_trial->offset);
}

/// The trial left the width open. @param hint  how the old bytes are restored
void widthGuard::throwTrial(const trialResult& result, const std::string& hint)
{
    const std::string byte =
        m_claimedBytes == 1 && result.isBack
            ? "it holds its old bytes"
            : fmt::format("whether the byte of the trial at offset 0x{:X} is changed is not known", m_trial->offset);
    if (!result.trouble) {
        refuse(fmt::format("the offset width is not known: {}; {}", result.seen, byte), hint);
    }
    failure why = *result.trouble;
    why.what = fmt::format("a trial write for the offset width failed: {}; {}", why.what, byte);
    why.tryThis = hint;
    throw why;
}

} // namespace kest::tools
