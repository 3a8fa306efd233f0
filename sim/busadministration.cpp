#include "sim/busadministration.h"

#include "base/quietwrites.h"
#include "sim/power.h"
#include "sim/wavefile.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include <unistd.h>

namespace kest::sim
{

bool busAdministration::listRegisters(std::vector<chipListing>& into)
{
    const busUse use{m_shared};
    if (!use.usable()) {
        return false;
    }
    std::vector<chipListing> listings = m_shared.chips().list(m_shared.state().now);
    if (!m_shared.isSound()) {
        return false;
    }
    std::ranges::move(listings, std::back_inserter(into));
    return true;
}

// Makes a change that may let go of a line between transactions.
template <typename Change>
void busAdministration::withFreedLines(waveText& wave, Change change)
{
    // one that ended by itself did so earlier
    m_shared.endHold(wave);
    change();
    m_shared.showFreedLine(wave);
}

bool busAdministration::powerCycle()
{
    busUse use{m_shared};
    if (!use.usable()) {
        return false;
    }
    withFreedLines(use.wave(), [this] { losePower(m_shared.chips(), m_shared.state()); });
    // without its image a page would be torn into one that nobody wrote: that does not count
    return use.commit();
}

void busAdministration::makeNew()
{
    m_shared.state() = busState{};
    m_shared.chips().asNew();
    m_shared.chips().driveResetLines(m_shared.state().faults, m_shared.state().now);
    m_shared.store();
}

void busAdministration::replaceFileFaults(std::vector<faultRecord> fromFile)
{
    if (!m_shared.load()) {
        return;
    }
    std::vector<faultRecord>& faults = m_shared.state().faults;
    for (const auto& record : faults) {
        if (!record.fromFile) {
            fromFile.push_back(record);
        }
    }
    waveText wave = m_shared.beginWaveText();
    withFreedLines(wave, [&] {
        faults = std::move(fromFile);
        endEffects();
    });
    m_shared.commit(m_shared.state().recording ? &wave : nullptr);
}

std::size_t busAdministration::roomForFaults()
{
    const busUse use{m_shared};
    return use.usable() ? mostFaults - std::min(addedFaults(), mostFaults) : mostFaults;
}

std::size_t busAdministration::addedFaults()
{
    return static_cast<std::size_t>(std::ranges::count(m_shared.state().faults, false, &faultRecord::fromFile));
}

// Those that a scenario still brings have their room. Torn pages go into their images first: when one does not take its
// page, the fault is not there either.
bool busAdministration::addFault(const faultRecord& record)
{
    busUse use{m_shared};
    busState& state = m_shared.state();
    if (!use.usable() || (state.torn && !use.commit())) {
        errno = ENODEV;
        return false;
    }
    const auto waiting =
        static_cast<std::size_t>(std::ranges::count(state.events, eventKind::fault, &eventRecord::kind));
    if (addedFaults() + waiting >= mostFaults) {
        errno = ENOSPC;
        return false;
    }
    state.faults.push_back(record);
    if (!use.commit()) {
        errno = ENODEV;
        return false;
    }
    return true;
}

// The effects of a fault end with it.
void busAdministration::endEffects()
{
    const faultEnded ended = [this](std::uint32_t number) {
        const std::vector<faultRecord>& faults = m_shared.state().faults;
        return std::ranges::find(faults, number, &faultRecord::number) == faults.end();
    };
    if (ended(m_shared.state().heldBy)) {
        m_shared.state().letLinesGo();
    }
    m_shared.chips().endEffects(ended);
}

std::optional<std::size_t> busAdministration::clearFaults(std::optional<std::uint32_t> number)
{
    busUse use{m_shared};
    if (!use.usable()) {
        return std::nullopt;
    }
    std::size_t cleared = 0;
    withFreedLines(use.wave(), [&] {
        cleared = std::erase_if(m_shared.state().faults,
                                [&](const faultRecord& record) { return !number || record.number == *number; });
        endEffects();
    });
    return use.commit() ? std::optional{cleared} : std::nullopt;
}

bool busAdministration::listFaults(std::vector<listedFault>& into)
{
    const busUse use{m_shared};
    if (!use.usable()) {
        return false;
    }
    const busDescription& about = m_shared.description();
    for (const auto& record : m_shared.state().faults) {
        const auto known = std::ranges::find(into, record.number, &listedFault::number);
        if (known != into.end()) {
            known->struck += record.struck;
        } else {
            into.push_back({record.number, describeFault(record, fullName(about), about.node, m_shared.machineSeed()),
                            record.struck});
        }
    }
    return true;
}

bool busAdministration::usable()
{
    const busUse use{m_shared};
    return use.usable();
}

bool busAdministration::play(std::vector<eventRecord> events)
{
    busUse use{m_shared};
    if (!use.usable()) {
        errno = ENODEV;
        return false;
    }
    const auto faults = static_cast<std::size_t>(std::ranges::count(events, eventKind::fault, &eventRecord::kind));
    if (addedFaults() + faults > mostFaults) {
        errno = ENOSPC;
        return false;
    }
    busState& state = m_shared.state();
    for (eventRecord& event : events) {
        event.at += event.byTime ? state.now : state.transactions;
    }
    state.events = std::move(events);
    if (!use.commit()) {
        errno = ENODEV;
        return false;
    }
    return true;
}

bool busAdministration::mayStartWave(const std::string& path)
{
    const busUse use{m_shared};
    if (!use.usable() || path.size() > stateFile::longestPath) {
        errno = use.usable() ? ENAMETOOLONG : ENODEV;
        return false;
    }
    return mayOpenWaveFile(path);
}

bool busAdministration::isRecording()
{
    const busUse use{m_shared};
    return use.usable() && m_shared.state().recording;
}

bool busAdministration::startWave(const std::string& path)
{
    const quietWrites quiet;
    busUse use{m_shared};
    if (!use.usable() || path.size() > stateFile::longestPath) {
        errno = use.usable() ? ENAMETOOLONG : ENODEV;
        return false;
    }
    // what is due comes first: what may fail of it, an image that does not take its page, leaves the recording as it is
    if (!use.commit()) {
        errno = ENODEV;
        return false;
    }
    const int wave = openWaveFile(path);
    if (wave < 0) {
        return false;
    }
    const bool good = beginWave(use, wave, path);
    const int error = errno;
    close(wave);
    errno = error;
    return good;
}

// When this recording cannot begin, the one under way goes on: what is done to it here counts only once committed. The
// path is not in the records, and changes only while nothing is recorded: no recording gets another one's path.
bool busAdministration::beginWave(busUse& use, int file, const std::string& path)
{
    busState& state = m_shared.state();
    if (state.recording) {
        m_shared.appendWave(use.wave());
    }
    const waveEnd begin{m_shared.heldLine() != outcome::sclHeld, !m_shared.isSdaLow(), 0};
    const std::string head = waveText::header(m_shared.description().name, begin.scl, begin.sda);
    if (!replaceWave(file, head)) {
        return false;
    }
    state.recording = false;
    if (!use.commit()) {
        errno = ENODEV;
        return false;
    }
    m_shared.setWavePath(path);
    state.recording = true;
    state.waveOrigin = state.now;
    state.waveBytes = head.size();
    state.waveAt = begin;
    use.wave() = m_shared.beginWaveText();
    if (!use.commit()) {
        errno = ENODEV;
        return false;
    }
    return true;
}

bool busAdministration::stopWave()
{
    busUse use{m_shared};
    busState& state = m_shared.state();
    if (!use.usable() || !state.recording) {
        errno = use.usable() ? ENOENT : ENODEV;
        return false;
    }
    m_shared.endHold(use.wave());
    m_shared.appendWave(use.wave());
    state.recording = false;
    if (!use.commit()) {
        errno = ENODEV;
        return false;
    }
    return true;
}

} // namespace kest::sim
