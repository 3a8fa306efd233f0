#include "sim/wire.h"

namespace kest::sim
{

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
        sda(quarter(1), true);
        scl(quarter(2), true);
        sda(quarter(3), false);
    } else {
        // it was held when the recording last saw the lines
        scl(clock.now + clock.bitLasting / 8, true);
        sda(quarter(1), true);
        sda(quarter(2), false);
    }
    scl(quarter(4), false);
    pass();
    m_busTaken = true;
}

void wire::stop()
{
    scl(clock.now + clock.bitLasting / 8, false);
    sda(quarter(1), false);
    scl(quarter(2), true);
    sda(quarter(3), true);
    pass();
    m_busTaken = false;
}

void wire::bit(bool level)
{
    sda(quarter(1), level);
    scl(quarter(2), true);
    scl(quarter(4), false);
    pass();
}

void wire::byte(std::uint8_t value, bool acknowledged)
{
    cutByte(value, 8);
    bit(!acknowledged);
}

void wire::cutByte(std::uint8_t value, unsigned bits)
{
    for (unsigned i = 0; i < bits; ++i) {
        bit((value >> (7 - i) & 1) != 0);
    }
}

void wire::pulse(bool level)
{
    scl(clock.now + clock.bitLasting / 8, false);
    sda(quarter(1), level);
    scl(quarter(2), true);
    pass();
}

void wire::leave(bool sclLevel, bool sdaLevel)
{
    sda(quarter(1), sdaLevel);
    scl(quarter(2), sclLevel);
    pass();
}

} // namespace kest::sim
