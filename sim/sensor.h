/// Temperature sensors LM75 and LM92. Sources: National Semiconductor / TI LM75B, NXP LM75B (11 bits) and National
/// Semiconductor LM92 data sheets, "Pointer register", "Temperature register", "Configuration register", "Shutdown mode".
#pragma once

#include "base/clock.h"
#include "sim/chip.h"
#include "sim/ramp.h"
#include "sim/thermostat.h"

#include <array>
#include <string_view>

namespace kest::sim
{

struct sensorRegister {
    std::string_view name; ///< empty: no register of that number
    std::uint8_t bytes;
    bool writable;
    std::uint16_t atPowerUp;
    std::uint16_t kept; ///< bits that a write sets
};

/// How long a conversion takes in parts that give a temperature of so many bits.
struct sensorConversion {
    unsigned bits;
    std::uint64_t lastingNs;
};

struct sensorType {
    std::string_view name;
    std::uint8_t pointerMask;
    std::array<sensorRegister, 8> registers; ///< by pointer; number 0 is the temperature, 1 the configuration
    int lowestCelsius, highestCelsius;
    std::array<sensorConversion, 2> conversions; ///< by bits; 0 bits: no such part
    std::array<std::uint8_t, 4> faultQueue; ///< conversions in a row that change an alarm, by configuration bits 4-3
};

inline constexpr sensorRegister noSensorRegister{.name = {}, .bytes = 0, .writable = false, .atPowerUp = 0, .kept = 0};

inline constexpr std::array sensorTypes{
    sensorType{
        .name = "LM75",
        .pointerMask = 0x03,
        .registers{{
            {.name = "TEMP", .bytes = 2, .writable = false, .atPowerUp = 0, .kept = 0},
            {.name = "CONF", .bytes = 1, .writable = true, .atPowerUp = 0x00, .kept = 0x1F},
            {.name = "THYST", .bytes = 2, .writable = true, .atPowerUp = 0x4B00, .kept = 0xFF80},
            {.name = "TOS", .bytes = 2, .writable = true, .atPowerUp = 0x5000, .kept = 0xFF80},
            noSensorRegister,
            noSensorRegister,
            noSensorRegister,
            noSensorRegister,
        }},
        .lowestCelsius = -55,
        .highestCelsius = 125,
        .conversions{{{.bits = 9, .lastingNs = 300 * nsPerMs}, {.bits = 11, .lastingNs = 100 * nsPerMs}}},
        .faultQueue{1, 2, 4, 6},
    },
    sensorType{
        .name = "LM92",
        .pointerMask = 0x07,
        .registers{{
            {.name = "TEMP", .bytes = 2, .writable = false, .atPowerUp = 0, .kept = 0},
            {.name = "CONF", .bytes = 1, .writable = true, .atPowerUp = 0x00, .kept = 0x1F},
            {.name = "THYST", .bytes = 2, .writable = true, .atPowerUp = 0x0100, .kept = 0xFFF8},
            {.name = "TCRIT", .bytes = 2, .writable = true, .atPowerUp = 0x2800, .kept = 0xFFF8},
            {.name = "TLOW", .bytes = 2, .writable = true, .atPowerUp = 0x0500, .kept = 0xFFF8},
            {.name = "THIGH", .bytes = 2, .writable = true, .atPowerUp = 0x2000, .kept = 0xFFF8},
            noSensorRegister,
            {.name = "ID", .bytes = 2, .writable = false, .atPowerUp = 0x8001, .kept = 0},
        }},
        .lowestCelsius = -55,
        .highestCelsius = 150,
        .conversions{{{.bits = 13, .lastingNs = nsPerSecond}, {.bits = 0, .lastingNs = 0}}},
        // bit 3 is a polarity there
        .faultQueue{1, 1, 4, 4},
    },
};
static_assert(std::ranges::all_of(sensorTypes, [](const sensorType& type) {
    return type.pointerMask < type.registers.size() && std::ranges::all_of(type.faultQueue, [](std::uint8_t queue) {
               return queue != 0 && queue <= thermostat::longestQueue;
           });
}));

/// The temperature around it is part of its state: the machine file gives the first one, follow() each later one. A
/// machine file that is edited to another temperature gives the first one anew, as if it had always been that.
class sensor final : public chip
{
public:
    /// @param degreesCelsius   temperature around it at first
    /// @param temperatureBits  9 or 11 for an LM75, 13 for an LM92
    sensor(const sensorType& chipType, double degreesCelsius, unsigned temperatureBits);

    /// Lets the temperature around it change evenly. Each conversion measures what there is at its end.
    /// What is out of the sensor's range counts as the range's end.
    /// @param now  bus time, ns; not before that of the latest use. The ramp may have begun since then
    void follow(const temperatureRamp& ramp, std::uint64_t now);
    /// The temperature around it, millionths of a degree Celsius.
    [[nodiscard]] std::int32_t microCelsius() const { return m_aroundMicroCelsius; }

    bool start(direction way, busClock& clock, chipFaults& faults) override;
    bool take(std::uint8_t byte, busClock& clock) override;
    std::uint8_t give(busClock& clock, chipFaults& faults) override;
    void stop(busClock&, chipFaults&) override { deselect(); }
    void cut() override;
    [[nodiscard]] cutRead drivesOn() const override;
    void deselect() override { m_bytesTaken = m_bytesGiven = 0; }
    void exchange(stateFields& fields) override;
    void powerUp() override;
    void poweredAt(std::uint64_t now) override;
    void asNew() override;
    std::vector<listedRegister> list(std::uint64_t now) override;

private:
    [[nodiscard]] const sensorRegister& chosen() const { return m_type.registers[m_pointer]; }
    [[nodiscard]] bool isLm92() const { return m_bits == 13; }
    [[nodiscard]] bool configured(std::uint16_t bit) const;
    [[nodiscard]] std::uint16_t wordOf(std::int32_t microCelsius) const;
    [[nodiscard]] std::uint16_t value(unsigned number) const;
    [[nodiscard]] double degrees(std::uint16_t word) const;
    [[nodiscard]] std::uint8_t queue() const;
    [[nodiscard]] std::int32_t inRange(std::int32_t microCelsius) const;
    [[nodiscard]] std::uint64_t conversionEnd() const;
    void takeUp(std::uint64_t now);
    void advance(std::uint64_t now);
    void measure(std::uint64_t conversions);
    void compare(std::uint64_t conversions);
    void write(std::uint16_t word, std::uint64_t now);
    [[nodiscard]] bool outputActive(std::uint8_t alarms) const;
    [[nodiscard]] std::string meaningOf(unsigned number) const;
    [[nodiscard]] std::string temperatureText() const;
    [[nodiscard]] std::string configurationText() const;

    const sensorType& m_type;
    const std::int32_t m_firstMicroCelsius;
    const unsigned m_bits;
    std::uint64_t m_conversionNs = 0;

    std::uint8_t m_pointer = 0;
    std::array<std::uint16_t, 8> m_registers{};
    thermostat m_thermostat;
    std::int32_t m_fileMicroCelsius = 0; ///< the machine file's temperature that the state began with
    std::int32_t m_aroundMicroCelsius = 0;
    std::int32_t m_measuredMicroCelsius = 0; ///< by the latest conversion that ended; 0 before the first
    bool m_hasMeasured = false;
    std::uint64_t m_conversionBegan = 0; ///< bus time, ns

    // Of the transaction under way.
    unsigned m_bytesTaken = 0, m_bytesGiven = 0;
    std::uint8_t m_firstByte = 0; ///< of a two-byte register: it changes with the second
};

} // namespace kest::sim
