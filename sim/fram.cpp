#include "sim/fram.h"

#include <span>

namespace kest::sim
{

fram::fram(const eepromType& chipType, const eepromSettings& options, memory& cells)
    : m_sizeBytes{chipType.sizeBytes}, m_storage{cells},
      m_protection{options.protect, options.area, chipType.sizeBytes}, m_counter{chipType.sizeBytes,
                                                                                 chipType.offsetBytes, options.half}
{
}

bool fram::start(direction, busClock&, chipFaults&)
{
    deselect();
    return true;
}

bool fram::take(std::uint8_t byte, busClock& clock)
{
    if (m_counter.takesOffset()) {
        m_counter.take(byte);
        return true;
    }
    if (m_protection.refuses(m_counter.at(), clock.now)) {
        return false;
    }
    if (m_protection.covers(m_counter.at(), clock.now)) {
        flush();
    } else {
        if (m_waitingBytes == m_waiting.size() || m_counter.at() != m_waitingAt + m_waitingBytes) {
            flush();
        }
        if (m_waitingBytes == 0) {
            m_waitingAt = m_counter.at();
        }
        m_waiting[m_waitingBytes] = byte;
        ++m_waitingBytes;
    }
    m_counter.forward();
    return true;
}

std::uint8_t fram::give(busClock&, chipFaults&)
{
    std::uint8_t byte = 0xFF;
    m_storage.read(m_counter.at(), {&byte, 1});
    m_counter.forward();
    return byte;
}

// A memory that would not take the bytes has lost its image, and the transaction fails with it.
void fram::flush()
{
    if (m_waitingBytes != 0) {
        m_storage.write(m_waitingAt, std::span{m_waiting}.first(m_waitingBytes));
    }
    m_waitingBytes = 0;
}

void fram::deselect()
{
    flush();
    m_counter.endOffset();
}

void fram::cut()
{
    deselect();
    m_counter.back();
}

void fram::exchange(stateFields& fields)
{
    std::uint32_t at = m_counter.at();
    fields.number(at);
    fields.check(at < m_sizeBytes, "a memory's address counter");
    m_counter.set(at);
}

void fram::powerUp()
{
    m_waitingBytes = 0;
    m_counter.endOffset();
    m_counter.set(nextChoice().below(0, m_sizeBytes));
}

std::vector<listedRegister> fram::list(std::uint64_t now)
{
    std::vector<listedRegister> lines{{"counter", m_counter.at(), "next byte that a read without an offset gives"}};
    if (m_protection.hasPin()) {
        lines.push_back(m_protection.listed(now));
    }
    return lines;
}

} // namespace kest::sim
