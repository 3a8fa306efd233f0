/// The comparing part of a temperature sensor: which limits were passed, after how many conversions, and the latch of
/// its interrupt mode. Sources: National Semiconductor / TI LM75B, NXP LM75B and National Semiconductor LM92 data sheets,
/// "Fault queue", "Comparator mode", "Interrupt mode".
#pragma once

#include "sim/statefields.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kest::sim
{

/// What a conversion says about one limit. Both may hold when the hysteresis is set beyond the limit: then it is passed.
struct comparedLimit {
    bool passed; ///< the temperature is beyond the limit
    bool left; ///< it is back by the hysteresis
};

/// An alarm begins, and ends, after as many conversions in a row as the fault queue asks for. In interrupt mode each
/// begin and each end sets a latch, which a read of any register resets.
class thermostat
{
public:
    static constexpr std::size_t mostLimits = 3;
    static constexpr std::uint8_t longestQueue = 6;

    /// Conversions that ended with the same result.
    /// @param limits  at most mostLimits; alarm number n is that of limit n
    /// @param queue   conversions in a row that change an alarm
    void compare(std::span<const comparedLimit> limits, std::uint64_t conversions, std::uint8_t queue);

    /// Bit n: alarm n.
    [[nodiscard]] std::uint8_t alarms() const { return m_alarms; }
    /// Bit n: alarm n has begun or ended since the latch was reset.
    [[nodiscard]] std::uint8_t latch() const { return m_latch; }
    void resetLatch()
    {
        m_latchBefore = m_latch;
        m_latch = 0;
    }
    /// What reset it last did not take place.
    void undoReset() { m_latch = m_latchBefore; }
    void powerUp() { *this = {}; }
    /// Load it from the state file, or store it there, in two parts.
    void exchangeAlarms(stateFields& fields);
    void exchangeRest(stateFields& fields);

private:
    static constexpr std::uint8_t allAlarms = (1U << mostLimits) - 1;

    std::uint8_t m_alarms = 0;
    std::uint8_t m_latch = 0;
    std::uint8_t m_latchBefore = 0; ///< of the transaction under way
    std::array<std::uint8_t, mostLimits> m_inARow{}; ///< conversions that ask for a change
};

} // namespace kest::sim
