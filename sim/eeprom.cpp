#include "sim/eeprom.h"

#include "base/clock.h"

#include <limits>

namespace kest::sim
{

namespace
{
constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();
} // namespace

bool eeprom::start(direction, busClock& clock, chipFaults&)
{
    // a START ends whatever the chip was doing
    deselect();
    return clock.now >= m_writeDoneAt;
}

bool eeprom::take(std::uint8_t byte, busClock&)
{
    if (m_offsetBytesSeen < m_type.offsetBytes) {
        m_counter = wrap(m_offsetBytesSeen == 0 ? byte : m_counter << 8 | byte);
        ++m_offsetBytesSeen;
        return true;
    }
    if (m_settings.protect == protection::nak) {
        return false;
    }
    latchByte(byte);
    return true;
}

// Only the column counts up: a long write wraps inside its page.
void eeprom::latchByte(std::uint8_t byte)
{
    const std::uint32_t column = m_counter % m_type.pageBytes;
    m_latch[column] = byte;
    m_latched.set(column);
    m_counter = m_counter - column + (column + 1) % m_type.pageBytes;
}

std::uint8_t eeprom::give(busClock&, chipFaults&)
{
    const std::uint8_t byte = cell(m_counter);
    m_counter = wrap(m_counter + 1);
    return byte;
}

void eeprom::stop(busClock& clock, chipFaults& faults)
{
    if (m_latched.any() && m_settings.protect == protection::none) {
        beginWriteCycle(clock.now, faults);
    }
    deselect();
}

// A fault without a time loses the page and keeps the cycle from ending; one with a time only draws the cycle out.
void eeprom::beginWriteCycle(std::uint64_t now, chipFaults& faults)
{
    const auto stuck = faults.meets(faultKind::stuckWriteCycle);
    if (stuck && stuck->value == 0) {
        m_writeDoneAt = never;
        m_stuckBy = stuck->number;
        return;
    }
    program();
    m_writeDoneAt = now + (stuck ? std::uint64_t{stuck->value} * nsPerMs : m_settings.writeCycleNs);
}

void eeprom::program()
{
    std::array<std::uint8_t, longestPage> page{};
    const std::span cells{page.data(), m_type.pageBytes};
    const std::uint32_t pageStart = m_counter - m_counter % m_type.pageBytes;
    m_storage.read(pageStart, cells);
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
    m_offsetBytesSeen = 0;
}

// The byte was not sent to its end, so it does not count.
void eeprom::cut()
{
    deselect();
    m_counter = wrap(m_counter - 1);
}

std::uint8_t eeprom::cell(std::uint32_t offset) const
{
    std::uint8_t byte = 0xFF;
    m_storage.read(offset, {&byte, 1});
    return byte;
}

void eeprom::exchange(stateFields& fields)
{
    fields.numbers(m_counter, m_writeDoneAt, m_stuckBy);
    fields.check(m_counter < m_type.sizeBytes, "an EEPROM's address counter");
    fields.check(m_stuckBy != 0 ? m_writeDoneAt == never : m_writeDoneAt <= fields.busTime() + longestWaitNs,
                 "the end of a write cycle");
}

void eeprom::powerUp()
{
    deselect();
    m_counter = 0;
    m_writeDoneAt = 0;
    m_stuckBy = 0;
}

void eeprom::endEffects(const faultEnded& ended)
{
    if (m_stuckBy != 0 && ended(m_stuckBy)) {
        m_stuckBy = 0;
        m_writeDoneAt = 0;
    }
}

std::vector<listedRegister> eeprom::list(std::uint64_t now)
{
    const bool busy = now < m_writeDoneAt;
    return {{"counter", m_counter, "next byte that a read without an offset gives"},
            {"busy", busy ? 1U : 0U,
             m_stuckBy != 0 ? "write cycle that does not end"
             : busy         ? "write cycle"
                            : "ready"}};
}

} // namespace kest::sim
