#include "sim/busmodel.h"

#include "base/clock.h"
#include "sim/controller.h"

#include <algorithm>
#include <functional>

namespace kest::sim
{

namespace
{
constexpr unsigned recoveryClocks = 9;
} // namespace

// Lets `act` drive the bus's lines, and commits the new state.
// @param act  gets the lines, and what commits the state as it is by then
// @return whether all of it was committed
template <typename Act>
bool busModel::drive(busUse& use, std::uint32_t speedKhz, Act act)
{
    busState& state = m_shared.state();
    waveText& wave = use.wave();
    const std::uint64_t bitNs = nsPerMs / clockKhz(speedKhz, defaultSpeedKhz());
    wire lines{state.now, bitNs, state.recording ? &wave : nullptr};
    const auto keep = [&] {
        state.now = std::min(lines.clock.now, latestTime);
        m_shared.endHold(wave);
        return use.commit();
    };
    m_shared.endHold(wave);
    act(lines, std::ref(keep));
    return keep();
}

// Bytes from a lost image mean nothing, and a page made with them would destroy what the image holds when it is back.
// So a transaction that met a lost image has not been.
transferResult busModel::transfer(std::span<segment> segments, std::uint32_t speedKhz)
{
    busUse use{m_shared};
    if (!use.usable()) {
        return {.end = outcome::gone};
    }
    transferResult result;
    const auto odd = std::ranges::find_if(segments, [](const segment& part) { return (part.address & 1) != 0; });
    if (odd != segments.end()) {
        result.end = outcome::addressNotAcknowledged;
        result.segment = static_cast<std::size_t>(odd - segments.begin());
    } else if (!takes(adapter(), segments)) {
        result.end = outcome::refused;
    } else if (result.end = m_shared.heldLine(); !segments.empty()) {
        result = attempt(use, segments, speedKhz);
    }
    result.busTimeNs = m_shared.state().now;
    return result;
}

// One that meets a held line counts as well, so that a scenario by transactions goes on while the bus is held.
transferResult busModel::attempt(busUse& use, std::span<segment> segments, std::uint32_t speedKhz)
{
    busState& state = m_shared.state();
    ++state.transactions;
    transferResult result{.end = m_shared.heldLine()};
    if (result.end == outcome::sclHeld) {
        return meetHeldScl(use, speedKhz);
    }
    if (result.end == outcome::sdaHeld) {
        result.end = use.commit() ? result.end : outcome::gone;
        return result;
    }
    const bool good = drive(use, speedKhz, [&](wire& lines, const partKept& keep) {
        result = runTransaction(adapter(), m_shared.chips(), state, lines, segments, keep);
    });
    result.end = good ? result.end : outcome::gone;
    return result;
}

// The controller waits for SCL until it gives up.
transferResult busModel::meetHeldScl(busUse& use, std::uint32_t speedKhz)
{
    const bool good = drive(use, speedKhz, [this](wire& lines, const auto&) {
        lines.leaveSclHeld(patienceNs(adapter()));
        m_shared.countAttempt();
    });
    return {.end = good ? outcome::sclHeld : outcome::gone};
}

transferResult busModel::probe(std::uint8_t address, std::uint32_t speedKhz)
{
    segment alone{address, direction::write, {}, false};
    return transfer({&alone, 1}, speedKhz);
}

// Whether the adapter is there: done, or what it reports.
outcome busModel::lookForAdapter() const
{
    const std::vector<faultRecord>& faults = m_shared.state().faults;
    const auto gone = std::ranges::find_if(faults, [](const faultRecord& record) {
        return record.kind == faultKind::gone && record.struck != 0 && record.usable();
    });
    return gone == faults.end() ? outcome::done : endWithoutAdapter(*gone);
}

// No clock goes out while SCL is held.
// @param act  gets the lines, and returns who still holds the bus
template <typename Act>
outcome busModel::recover(Act act)
{
    busUse use{m_shared};
    if (!use.usable()) {
        return outcome::gone;
    }
    if (const outcome adapter = lookForAdapter(); adapter != outcome::done) {
        return adapter;
    }
    if (m_shared.heldLine() == outcome::sclHeld) {
        return meetHeldScl(use, 0).end;
    }
    outcome after = outcome::done;
    const bool good = drive(use, 0, [&](wire& lines, const auto&) {
        lines.beforeClocks();
        after = act(lines);
    });
    return good ? after : outcome::gone;
}

void busModel::pulse(wire& lines, unsigned count)
{
    for (unsigned i = 0; i < count; ++i) {
        m_shared.state().driven.clockPulse();
        lines.pulse(m_shared.heldLine() != outcome::sdaHeld);
    }
}

outcome busModel::reset()
{
    return recover([this](wire& lines) {
        if (m_shared.state().resetsToGo == 0) {
            m_shared.state().letLinesGo();
        }
        pulse(lines, recoveryClocks);
        endReset();
        const outcome after = m_shared.heldLine();
        if (after == outcome::done) {
            lines.stop();
        }
        return after;
    });
}

void busModel::endReset()
{
    busState& state = m_shared.state();
    state.driven.letGo();
    if (state.resetsToGo != 0) {
        --state.resetsToGo;
    }
    for (auto& record : state.faults) {
        record.ended = record.ended || (record.untilReset && !rowOf(record.kind).ofHub);
    }
}

outcome busModel::clocks(unsigned count)
{
    return recover([this, count](wire& lines) {
        pulse(lines, count);
        return m_shared.heldLine();
    });
}

outcome busModel::lines()
{
    const busUse use{m_shared};
    if (!use.usable()) {
        return outcome::gone;
    }
    const outcome adapter = lookForAdapter();
    return adapter == outcome::done ? m_shared.heldLine() : adapter;
}

std::uint64_t busModel::busTimeNs()
{
    const busUse use{m_shared};
    return use.usable() ? m_shared.state().now : 0;
}

void busModel::idle(std::uint64_t nanoseconds)
{
    realClock* const clock = m_shared.clock();
    if (clock == nullptr) {
        passTime(nanoseconds);
        return;
    }
    passTime(0);
    // Between the two others may use the bus. The clock itself has let the time pass by then.
    clock->sleepUntil(clock->nowNs() + std::min(nanoseconds, latestTime));
    passTime(0);
}

void busModel::passTime(std::uint64_t nanoseconds)
{
    busUse use{m_shared};
    if (!use.usable()) {
        return;
    }
    const std::uint64_t now = m_shared.state().now;
    m_shared.passTime(std::min(now + std::min(nanoseconds, latestTime), latestTime), use.wave());
    use.commit();
}

} // namespace kest::sim
