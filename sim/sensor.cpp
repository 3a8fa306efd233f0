#include "sim/sensor.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

namespace kest::sim
{

namespace
{
enum registerNumber : std::uint8_t {
    temp,
    conf,
    hysteresis,
    overtemperature, // LM75's TOS, LM92's T_CRIT
    lowest, // this one and the next: LM92 alone
    highest
};
enum alarmFlag : std::uint8_t {
    overTos = 1, // LM75
    belowLow = 1, // LM92
    aboveHigh = 2,
    critical = 4
};
constexpr std::uint8_t noRegister = 0xFF;

std::string degreeText(double celsius)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.4f C", celsius);
    return text.data();
}
} // namespace

bool sensor::start(direction, busClock&, chipFaults&)
{
    deselect();
    return true;
}

bool sensor::take(std::uint8_t byte, busClock&)
{
    if (m_bytesTaken == 0) {
        m_pointer = byte & m_type.pointerMask;
    } else if (chosen().writable && chosen().bytes == 1) {
        m_registers[m_pointer] = byte & chosen().kept;
    } else if (chosen().writable && m_bytesTaken % 2 == 1) {
        m_firstByte = byte;
    } else if (chosen().writable) {
        m_registers[m_pointer] = static_cast<std::uint16_t>((m_firstByte << 8 | byte) & chosen().kept);
    }
    ++m_bytesTaken;
    compare();
    return true;
}

std::uint8_t sensor::give(busClock&, chipFaults&)
{
    const unsigned index = m_bytesGiven++;
    const std::uint16_t word = value(m_pointer);
    if (chosen().bytes == 0) {
        return noRegister;
    }
    const bool low = chosen().bytes == 1 || index % 2 == 1;
    return static_cast<std::uint8_t>(low ? word : word >> 8);
}

std::uint16_t sensor::value(unsigned number) const { return number == temp ? temperature() : m_registers[number]; }

// Two's complement, left-justified; 1 degree is 0x0100 for an LM75, 0x0080 for an LM92 with its sign in bit 15.
std::uint16_t sensor::temperature() const
{
    const bool lm92 = m_bits == 13;
    const double steps = m_celsius * (lm92 ? 16 : m_bits == 11 ? 8 : 2);
    const auto word = static_cast<std::uint16_t>(static_cast<int>(std::lround(steps)) * (1 << (16 - m_bits)));
    return static_cast<std::uint16_t>(word | (lm92 ? m_alarms : 0));
}

double sensor::limit(unsigned number) const
{
    return static_cast<std::int16_t>(m_registers[number]) / (m_bits == 13 ? 128.0 : 256.0);
}

void sensor::alarm(std::uint8_t flag, bool reached, bool left)
{
    const bool stays = (m_alarms & flag) != 0 && !left;
    m_alarms = static_cast<std::uint8_t>(reached || stays ? m_alarms | flag : m_alarms & ~flag);
}

// Comparator mode: an alarm ends when the temperature is back by the hysteresis.
void sensor::compare()
{
    if (m_bits != 13) {
        alarm(overTos, m_celsius > limit(overtemperature), m_celsius < limit(hysteresis));
    } else {
        const double back = limit(hysteresis);
        alarm(critical, m_celsius > limit(overtemperature), m_celsius < limit(overtemperature) - back);
        alarm(aboveHigh, m_celsius > limit(highest), m_celsius < limit(highest) - back);
        alarm(belowLow, m_celsius<limit(lowest), m_celsius> limit(lowest) + back);
    }
}

void sensor::exchange(stateFields& fields)
{
    fields.numbers(m_pointer, m_alarms);
    for (auto& word : m_registers) {
        fields.number(word);
    }
    fields.check(m_pointer <= m_type.pointerMask && m_alarms <= (critical | aboveHigh | belowLow),
                 "a sensor's pointer or alarms");
    for (std::size_t i = 0; i < m_registers.size(); ++i) {
        fields.check(((m_registers[i] ^ m_type.registers[i].atPowerUp) & ~unsigned{m_type.registers[i].kept}) == 0,
                     "bits of a sensor's register that never change");
    }
    m_pointer &= m_type.pointerMask;
    // the machine file may give another temperature by now
    compare();
}

void sensor::powerUp()
{
    deselect();
    m_pointer = 0;
    m_alarms = 0;
    for (std::size_t i = 0; i < m_registers.size(); ++i) {
        m_registers[i] = m_type.registers[i].atPowerUp;
    }
    compare();
}

std::vector<listedRegister> sensor::list(std::uint64_t)
{
    std::vector<listedRegister> lines;
    for (unsigned number = 0; number < m_type.registers.size(); ++number) {
        const sensorRegister& row = m_type.registers[number];
        std::string text = number == conf || number == 7 ? "" : degreeText(limit(number));
        if (number == temp) {
            text = degreeText(m_celsius) + (m_alarms != 0 && m_bits != 13 ? ", O.S. active" : "");
        }
        if (number == temp && m_bits == 13) {
            for (const auto& [flag, name] : {std::pair{critical, "critical"}, {aboveHigh, "high"}, {belowLow, "low"}}) {
                text += (m_alarms & flag) != 0 ? std::string{", "} + name : std::string{};
            }
        }
        if (!row.name.empty()) {
            lines.push_back({std::string{row.name}, value(number), text});
        }
    }
    return lines;
}

} // namespace kest::sim
