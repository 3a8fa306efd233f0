#include "sim/sensor.h"

#include <cmath>
#include <cstdio>

namespace kest::sim
{

namespace
{
enum registerNumber : std::uint8_t {
    temp,
    conf,
    hysteresis,
    overtemperature, // LM75's TOS, LM92's T_CRIT
    lowest, // LM92 alone
    // LM92 alone
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
    if (bytesTaken == 0) {
        pointer = byte & type.pointerMask;
    } else if (chosen().writable && chosen().bytes == 1) {
        registers[pointer] = byte & chosen().kept;
    } else if (chosen().writable && bytesTaken % 2 == 1) {
        firstByte = byte;
    } else if (chosen().writable) {
        registers[pointer] = static_cast<std::uint16_t>((firstByte << 8 | byte) & chosen().kept);
    }
    ++bytesTaken;
    compare();
    return true;
}

std::uint8_t sensor::give(busClock&, chipFaults&)
{
    const unsigned index = bytesGiven++;
    const std::uint16_t word = value(pointer);
    std::uint8_t byte = noRegister;
    if (chosen().bytes == 1 || (chosen().bytes == 2 && index % 2 == 1)) {
        byte = static_cast<std::uint8_t>(word);
    } else if (chosen().bytes == 2) {
        byte = static_cast<std::uint8_t>(word >> 8);
    }
    return byte;
}

std::uint16_t sensor::value(unsigned number) const { return number == temp ? temperature() : registers[number]; }

// Two's complement, left-justified; 1 degree is 0x0100 for an LM75, 0x0080 for an LM92 with its sign in bit 15.
std::uint16_t sensor::temperature() const
{
    const bool lm92 = bits == 13;
    const double steps = celsius * (lm92 ? 16 : bits == 11 ? 8 : 2);
    const auto word = static_cast<std::uint16_t>(static_cast<int>(std::lround(steps)) * (1 << (16 - bits)));
    return static_cast<std::uint16_t>(word | (lm92 ? alarms : 0));
}

double sensor::limit(unsigned number) const
{
    return static_cast<std::int16_t>(registers[number]) / (bits == 13 ? 128.0 : 256.0);
}

void sensor::alarm(std::uint8_t flag, bool reached, bool left)
{
    const bool stays = (alarms & flag) != 0 && !left;
    alarms = static_cast<std::uint8_t>(reached || stays ? alarms | flag : alarms & ~flag);
}

// Comparator mode: an alarm ends when the temperature is back by the hysteresis.
void sensor::compare()
{
    if (bits != 13) {
        alarm(overTos, celsius > limit(overtemperature), celsius < limit(hysteresis));
    } else {
        const double back = limit(hysteresis);
        alarm(critical, celsius > limit(overtemperature), celsius < limit(overtemperature) - back);
        alarm(aboveHigh, celsius > limit(highest), celsius < limit(highest) - back);
        alarm(belowLow, celsius<limit(lowest), celsius> limit(lowest) + back);
    }
}

void sensor::state(stateFields& fields)
{
    fields.numbers(pointer, alarms);
    for (auto& word : registers) {
        fields.number(word);
    }
    fields.check(pointer <= type.pointerMask && alarms <= (critical | aboveHigh | belowLow),
                 "a sensor's pointer or alarms");
    for (std::size_t i = 0; i < registers.size(); ++i) {
        fields.check(((registers[i] ^ type.registers[i].atPowerUp) & ~unsigned{type.registers[i].kept}) == 0,
                     "bits of a sensor's register that never change");
    }
    pointer &= type.pointerMask;
    // the machine file may give another temperature by now
    compare();
}

void sensor::powerUp()
{
    deselect();
    pointer = 0;
    alarms = 0;
    for (std::size_t i = 0; i < registers.size(); ++i) {
        registers[i] = type.registers[i].atPowerUp;
    }
    compare();
}

std::vector<listedRegister> sensor::list(std::uint64_t)
{
    std::vector<listedRegister> lines;
    for (unsigned number = 0; number < type.registers.size(); ++number) {
        const sensorRegister& row = type.registers[number];
        std::string text = number == conf || number == 7 ? "" : degreeText(limit(number));
        if (number == temp) {
            text = degreeText(celsius) + (alarms != 0 && bits != 13 ? ", O.S. active" : "");
        }
        if (number == temp && bits == 13) {
            for (const auto& [flag, name] : {std::pair{critical, "critical"}, {aboveHigh, "high"}, {belowLow, "low"}}) {
                text += (alarms & flag) != 0 ? std::string{", "} + name : std::string{};
            }
        }
        if (!row.name.empty()) {
            lines.push_back({std::string{row.name}, value(number), text});
        }
    }
    return lines;
}

} // namespace kest::sim
