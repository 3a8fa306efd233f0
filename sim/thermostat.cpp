#include "sim/thermostat.h"

#include <algorithm>

namespace kest::sim
{

void thermostat::compare(std::span<const comparedLimit> limits, std::uint64_t conversions, std::uint8_t queue)
{
    for (std::size_t i = 0; i < limits.size(); ++i) {
        const auto alarm = static_cast<std::uint8_t>(1U << i);
        const bool lasts = (m_alarms & alarm) != 0;
        const bool changes = lasts ? limits[i].left && !limits[i].passed : limits[i].passed;
        std::uint8_t& inARow = m_inARow.at(i);
        inARow = static_cast<std::uint8_t>(changes ? inARow + std::min<std::uint64_t>(conversions, longestQueue) : 0);
        if (inARow >= queue) {
            m_alarms ^= alarm;
            m_latch |= alarm;
            inARow = 0;
        }
    }
}

void thermostat::exchangeAlarms(stateFields& fields)
{
    fields.number(m_alarms);
    fields.check(m_alarms <= allAlarms, "a sensor's pointer or alarms");
}

void thermostat::exchangeRest(stateFields& fields)
{
    fields.number(m_latch);
    fields.check(m_latch <= allAlarms, "a sensor's interrupt");
    for (auto& inARow : m_inARow) {
        fields.number(inARow);
        fields.check(inARow < longestQueue, "a sensor's fault queue");
    }
}

} // namespace kest::sim
