/// What a chip goes on driving when its controller left in the middle of a read.
#pragma once

#include "sim/statefields.h"

#include <cstdint>

namespace kest::sim
{

/// A chip that sends data changes SDA after each clock and cannot tell that nobody listens any more. In the acknowledge
/// slot it lets go of SDA and sees it high, which is a NACK: it lets go for good. So nine clocks always free the bus.
/// Source: NXP UM10204, "Bus clear".
class cutRead
{
public:
    /// Nobody drives.
    cutRead() = default;
    /// @param byte      what the chip sends
    /// @param bitsSent  how many of its bits the controller has clocked, 0 to 7
    cutRead(std::uint8_t byte, unsigned bitsSent) : m_byte{byte}, m_bitsSent{static_cast<std::uint8_t>(bitsSent)} {}

    /// Whether the bit that comes next holds SDA low.
    [[nodiscard]] bool holdsSda() const { return m_bitsSent < acknowledgeSlot && (m_byte << m_bitsSent & 0x80) == 0; }
    /// One clock pulse with SDA released by everybody else.
    void clockPulse()
    {
        if (m_bitsSent < acknowledgeSlot) {
            ++m_bitsSent;
        } else {
            letGo();
        }
    }
    /// A START, a STOP, or the loss of power.
    void letGo() { *this = {}; }

    /// Loads it from the state file, or stores it there.
    void exchange(stateFields& fields)
    {
        fields.numbers(m_byte, m_bitsSent);
        fields.check(m_bitsSent <= nobody, "the bit of a read that was cut off");
    }

private:
    static constexpr std::uint8_t acknowledgeSlot = 8, nobody = 9;

    std::uint8_t m_byte = 0;
    std::uint8_t m_bitsSent = nobody;
};

} // namespace kest::sim
