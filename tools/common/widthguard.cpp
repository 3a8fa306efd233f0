#include "tools/common/widthguard.h"

#include <cstdio>
#include <fmt/core.h>

#include "tools/common/failure.h"
#include "tools/common/output.h"
#include "tools/common/signalblock.h"
#include "tools/common/widthproof.h"

namespace kest::tools
{
namespace
{

constexpr const char* otherWays = "--width-unproved writes all the same, or 'width_proved = true' in the device table";

/// Whether bytes behind one offset byte have changed since the proof.
bool hasChanged(const seeprom& chip, const std::vector<std::uint8_t>& first)
{
    const signalBlock quiet;
    offsetReads reads(chip.target(), chip.speedKhz());
    const auto now = readFirstAgain(reads);
    return now && *now != first;
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
        refuse(fmt::format("the part is no {}: {}", type.chip, widthText(*m_finding)),
               fmt::format("types that would fit: {}", fittingText(*m_finding)));
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
    if (!isOpen() || m_finding->first.empty() || !hasChanged(m_chip, m_finding->first)) {
        return;
    }
    const bool isBack = putBack(m_chip, m_finding->first);
    m_finding->verdict = widthVerdict::oneByte;
    refuse(fmt::format("the part is no {}: a read behind two offset bytes changed it, as it does a ferroelectric part "
                       "with one; {}",
                       m_chip.target().end().type->chip,
                       isBack ? "it holds its old bytes" : "whether it holds its old bytes is not known"),
           fmt::format("types that would fit: {}", fittingText(*m_finding)));
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

void widthGuard::tryOut()
{
    if (!m_trial) {
        return;
    }
    const std::string seen = tools::tryOut(m_chip, *m_trial, m_finding->first);
    const bool isOne = (m_claimedBytes == 1) == seen.empty();
    m_finding->verdict = isOne ? widthVerdict::oneByte : widthVerdict::twoBytes;
    if (!seen.empty()) {
        refuse(seen, fmt::format("types that would fit: {}", fittingText(*m_finding)));
    }
    m_finding->seen = fmt::format("a byte written at offset 0x{:X} as a trial reads back", m_trial->offset);
}

} // namespace kest::tools
