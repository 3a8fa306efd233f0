#include "sim/sharedbus.h"

#include "sim/scenario.h"
#include "sim/wavefile.h"

#include <algorithm>

namespace kest::sim
{

sharedBus::sharedBus(const machineDescription& all, std::size_t index, const std::filesystem::path& folder,
                     realClock* clock)
    : m_about{all.buses[index]}, m_index{index},
      m_machineSeed{all.seed}, m_choices{all.choicesOf(m_about)}, m_clock{clock}, m_chips{all, index, folder}
{
}

void sharedBus::attach(stateFile& states, std::uint64_t layoutMark)
{
    m_file = &states;
    m_mark = layoutMark;
}

bool sharedBus::load()
{
    if (!m_file->usable(m_mark)) {
        return false;
    }
    if (readRecord() != nullptr) {
        m_damaged = true;
        return false;
    }
    // the machine file may pull other lines low by now
    m_chips.driveResetLines(m_state.faults, m_state.now);
    return writePage() && settle() && isSound();
}

/// @return what is damaged apart from the chips; null: nothing
const char* sharedBus::readRecord()
{
    const auto record = m_file->current(m_index);
    stateFields fields{record.first(busStateBytes), stateFields::way::load};
    m_state = busState{};
    m_state.choices = m_choices;
    m_state.exchange(fields);
    if (fields.damaged() != nullptr) {
        return fields.damaged();
    }
    m_chips.beginUse(record.subspan(busStateBytes), m_state);
    return m_state.page.pending && !m_chips.holds(m_state.page) ? "the page on its way into an image" : nullptr;
}

std::string sharedBus::damage()
{
    const char* what = readRecord();
    if (what == nullptr) {
        m_chips.loadAll();
        what = m_chips.damage();
    }
    m_chips.endUse();
    return what == nullptr ? std::string{} : "bus '" + fullName(m_about) + "': " + what + " cannot be";
}

bool sharedBus::isSound()
{
    if (m_chips.damage() != nullptr) {
        m_damaged = true;
    }
    return m_chips.damage() == nullptr && !m_chips.imageLost();
}

void sharedBus::store()
{
    const auto before = m_file->current(m_index);
    const auto record = m_file->spare(m_index);
    stateFields fields{record.first(busStateBytes), stateFields::way::store};
    m_state.exchange(fields);
    m_chips.store(before.subspan(busStateBytes), record.subspan(busStateBytes));
    m_file->turn(m_index);
}

// First the waveform, then the state, then the image: the image can be written again from the state, and a waveform
// without its state does not count.
bool sharedBus::commit(waveText* wave)
{
    if (!isSound()) {
        return false;
    }
    if (wave != nullptr) {
        appendWave(*wave);
        m_state.waveAt = wave->end();
    }
    store();
    return writePage() && settle();
}

// Torn pages are in the state until they are in their images. The second record ends that, so that nothing is written
// twice: a user may have put another image there meanwhile.
bool sharedBus::settle()
{
    if (!m_state.torn) {
        return true;
    }
    if (!m_chips.settle() || !isSound()) {
        return false;
    }
    m_state.torn = false;
    store();
    return true;
}

bool sharedBus::writePage()
{
    if (!m_state.page.pending) {
        return true;
    }
    if (!m_chips.store(m_state.page)) {
        return false;
    }
    m_state.page.pending = false;
    // the page's mark is the record's first byte
    m_file->current(m_index)[0] = 0;
    return true;
}

outcome sharedBus::heldLine() const
{
    if (m_state.sclHeld && !isHoldOver()) {
        return outcome::sclHeld;
    }
    return isSdaLow() ? outcome::sdaHeld : outcome::done;
}

bool sharedBus::isSdaLow() const { return (m_state.sdaHeld && !isHoldOver()) || m_state.driven.holdsSda(); }

// A hold of SDA outlasts its fault's count: it ends with a reset of the bus.
bool sharedBus::isHoldOver() const
{
    const auto fault = std::ranges::find(m_state.faults, m_state.heldBy, &faultRecord::number);
    if (fault == m_state.faults.end() || fault->letGo) {
        return true;
    }
    const bool timeIsUp = m_state.heldUntil != 0 && m_state.now >= m_state.heldUntil;
    return m_state.sclHeld && (timeIsUp || !fault->usable());
}

void sharedBus::endHold(waveText& wave)
{
    if (!m_state.held() || !isHoldOver()) {
        return;
    }
    const bool timeIsUp = m_state.heldUntil != 0 && m_state.now >= m_state.heldUntil;
    const std::uint64_t since = timeIsUp ? m_state.heldUntil : m_state.now;
    if (m_state.sclHeld) {
        wave.scl(since, true);
    } else if (!m_state.driven.holdsSda()) {
        wave.sda(since, true);
    }
    m_state.letLinesGo();
}

void sharedBus::countAttempt()
{
    const auto fault = std::ranges::find(m_state.faults, m_state.heldBy, &faultRecord::number);
    if (fault != m_state.faults.end()) {
        ++fault->matched;
        ++fault->struck;
    }
}

void sharedBus::showFreedLine(waveText& wave) const
{
    if (!m_state.sclHeld && !m_state.waveAt.scl) {
        wave.scl(m_state.now, true);
    } else if (!isSdaLow()) {
        wave.sda(m_state.now, true);
    }
}

void sharedBus::playDueEvents(waveText& wave)
{
    if (m_state.events.empty()) {
        return;
    }
    // a hold that ended by itself did so earlier
    endHold(wave);
    playEvents(m_chips, m_state);
    endHold(wave);
    showFreedLine(wave);
}

void sharedBus::passTime(std::uint64_t end, waveText& wave)
{
    // those that came due in the latest transaction come before all that time brings
    playDueEvents(wave);
    while (m_state.now < end) {
        m_state.now = nextEventTime(m_state, end);
        playDueEvents(wave);
    }
}

void sharedBus::appendWave(waveText& wave)
{
    m_state.recording =
        appendToWaveFile(m_file->wavePath(m_index), m_state.waveBytes, wave.take(), wave.tail(m_state.now));
}

busUse::busUse(sharedBus& bus)
    : m_bus{bus}, m_held{*bus.m_file, bus.m_index}, m_loaded{m_held.held() && bus.load()}, m_wave{bus.beginWaveText()}
{
    if (!m_loaded) {
        return;
    }
    catchUp();
    m_bus.playDueEvents(m_wave);
    // an event met now may have torn a page without its image
    m_loaded = m_bus.isSound();
}

// In real time the bus's clock goes on between transactions, too.
void busUse::catchUp()
{
    busState& state = m_bus.state();
    if (m_bus.clock() != nullptr) {
        m_startedAt = m_bus.clock()->nowNs();
    }
    if (state.clockStamp != 0 && m_startedAt > state.clockStamp) {
        m_bus.passTime(std::min(state.now + std::min(m_startedAt - state.clockStamp, latestTime), latestTime), m_wave);
        // a hold that ended by itself did so earlier
        m_bus.endHold(m_wave);
        m_bus.chips().driveResetLines(state.faults, state.now);
    }
    m_timeAtStart = state.now;
}

bool busUse::commit()
{
    if (!m_loaded || !m_bus.isSound()) {
        return false;
    }
    waitForBusTime();
    return m_bus.commit(isShown() ? &m_wave : nullptr);
}

// A recording shows how far time has come.
bool busUse::isShown() const
{
    const busState& state = m_bus.state();
    return state.recording && (!m_wave.isEmpty() || state.now != m_timeAtStart);
}

void busUse::waitForBusTime()
{
    if (m_bus.clock() == nullptr) {
        return;
    }
    busState& state = m_bus.state();
    const std::uint64_t end = m_startedAt + (state.now - std::min(m_timeAtStart, state.now));
    m_bus.clock()->sleepUntil(end);
    state.clockStamp = std::max(end, m_startedAt);
}

} // namespace kest::sim
