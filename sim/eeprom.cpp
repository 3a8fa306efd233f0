#include "sim/eeprom.h"

#include "base/clock.h"

namespace kest::sim
{

bool eeprom::start(direction, busClock& clock, chipFaults&)
{
    // a START ends whatever the chip was doing
    deselect();
    return !m_cycle.isRunning(clock.now);
}

bool eeprom::take(std::uint8_t byte, busClock& clock)
{
    if (m_counter.takesOffset()) {
        m_counter.take(byte);
        return true;
    }
    if (m_protection.refuses(m_counter.at(), clock.now)) {
        return false;
    }
    latchByte(byte);
    return true;
}

// Only the column counts up: a long write wraps inside its page.
void eeprom::latchByte(std::uint8_t byte)
{
    const std::uint32_t column = m_counter.at() % m_pageBytes;
    m_latch[column] = byte;
    m_latched.set(column);
    m_counter.set(m_counter.at() - column + (column + 1) % m_pageBytes);
}

std::uint8_t eeprom::give(busClock&, chipFaults&)
{
    std::uint8_t byte = 0xFF;
    m_storage.read(m_counter.at(), {&byte, 1});
    m_counter.forward();
    return byte;
}

void eeprom::stop(busClock& clock, chipFaults& faults)
{
    if (m_latched.any() && !m_protection.covers(m_counter.at(), clock.now)) {
        beginWriteCycle(clock.now, faults);
    }
    deselect();
}

// A fault without a time loses the page and keeps the cycle from ending; one with a time only draws the cycle out.
void eeprom::beginWriteCycle(std::uint64_t now, chipFaults& faults)
{
    const auto stuck = faults.meets(faultKind::stuckWriteCycle);
    if (stuck && stuck->value == 0) {
        m_cycle.beginStuck(stuck->number);
        return;
    }
    program(now + (stuck ? std::uint64_t{stuck->value} * nsPerMs : cycleNs()));
}

std::uint64_t eeprom::cycleNs()
{
    const std::uint64_t shortest = std::min(m_settings.shortestWriteCycleNs, m_settings.writeCycleNs);
    return shortest + nextChoice().below(0, static_cast<std::uint32_t>(m_settings.writeCycleNs - shortest) + 1);
}

void eeprom::program(std::uint64_t doneAt)
{
    std::array<std::uint8_t, longestPage> page{};
    const std::span cells{page.data(), m_pageBytes};
    const std::uint32_t pageStart = m_counter.at() - m_counter.at() % m_pageBytes;
    // on an adapter that sends a STOP between messages, power may have been lost in an earlier one
    m_cycle.settle(m_storage);
    m_storage.read(pageStart, cells);
    m_cycle.begin(doneAt, pageStart, cells);
    for (std::size_t column = 0; column < cells.size(); ++column) {
        if (m_latched.test(column)) {
            cells[column] = m_latch[column];
        }
    }
    m_storage.program(pageStart, cells);
}

void eeprom::deselect()
{
    m_latched.reset();
    m_counter.endOffset();
}

// The byte was not sent to its end, so it does not count.
void eeprom::cut()
{
    deselect();
    m_counter.back();
}

void eeprom::exchange(stateFields& fields)
{
    std::uint32_t at = m_counter.at();
    fields.number(at);
    fields.check(at < m_type.sizeBytes, "an EEPROM's address counter");
    m_counter.set(at);
    m_cycle.exchange(fields, m_type.sizeBytes);
}

// Where the counter begins is not known; parts differ, and so does one part from time to time.
void eeprom::powerUp()
{
    deselect();
    m_counter.set(nextChoice().below(0, m_type.sizeBytes));
}

void eeprom::asNew()
{
    m_cycle = {};
    powerUp();
}

std::vector<listedRegister> eeprom::list(std::uint64_t now)
{
    const bool busy = m_cycle.isRunning(now);
    std::vector<listedRegister> lines{{"counter", m_counter.at(), "next byte that a read without an offset gives"},
                                      {"busy", busy ? 1U : 0U,
                                       m_cycle.isStuck() ? "write cycle that does not end"
                                       : busy            ? "write cycle"
                                                         : "ready"}};
    if (m_protection.hasPin()) {
        lines.push_back(m_protection.listed(now));
    }
    return lines;
}

} // namespace kest::sim
