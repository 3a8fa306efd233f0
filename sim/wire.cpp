#include "sim/wire.h"

#include <algorithm>

namespace kest::sim
{

static_assert(std::ranges::all_of(busModes, [](const busMinima& mode) { return keepsMinima(mode, waveText::tickNs); }),
              "a waveform shows each minimum with a tick to spare");

void wire::scl(std::uint64_t now, bool level)
{
    if (m_wave != nullptr) {
        m_wave->scl(now, level);
    }
}

void wire::sda(std::uint64_t now, bool level)
{
    if (m_wave != nullptr) {
        m_wave->sda(now, level);
    }
}

void wire::start()
{
    if (m_busTaken) {
        // high for as long as a data bit, then the START
        sda(middleOfLow(), true);
        scl(endOfLow(), true);
        pass();
        sda(clock.now, false);
        clock.now += highNs();
        scl(clock.now, false);
    } else {
        // lines that the recording has not seen rise; the two never move in one tick
        scl(clock.now, true);
        sda(clock.now + waveText::tickNs, true);
        sda(endOfLow(), false);
        scl(endOfBit(), false);
        pass();
    }
    m_busTaken = true;
}

void wire::stop()
{
    // it is high still after the clocks of a recovery
    scl(clock.now, false);
    sda(middleOfLow(), false);
    scl(endOfLow(), true);
    sda(endOfBit(), true);
    pass();
    m_busTaken = false;
}

void wire::bit(bool level)
{
    sda(middleOfLow(), level);
    scl(endOfLow(), true);
    scl(endOfBit(), false);
    pass();
}

void wire::byte(std::uint8_t value, bool acknowledged)
{
    cutByte(value, 8);
    bit(!acknowledged);
}

void wire::cutByte(std::uint8_t value, unsigned bits)
{
    if (m_wave == nullptr) {
        // nobody sees the levels
        clock.now += bits * clock.bitLasting;
        return;
    }
    for (unsigned i = 0; i < bits; ++i) {
        bit((value >> (7 - i) & 1) != 0);
    }
}

void wire::pulse(bool level)
{
    scl(clock.now, false);
    sda(middleOfLow(), level);
    scl(endOfLow(), true);
    pass();
}

void wire::leaveSdaHeld()
{
    // on a free bus it falls no earlier than for a START
    sda(m_busTaken ? middleOfLow() : endOfLow(), false);
    scl(endOfLow(), true);
    pass();
    m_busTaken = false;
}

void wire::leaveSclHeld(std::uint64_t patienceNs, bool level)
{
    if (m_busTaken) {
        sda(middleOfLow(), level);
    } else {
        scl(clock.now + highNs(), false);
    }
    clock.now += std::max(patienceNs, clock.bitLasting);
    m_busTaken = false;
}

} // namespace kest::sim
