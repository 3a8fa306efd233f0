/// Temperature sensors LM75 and LM92. Sources: National Semiconductor / TI LM75B, NXP LM75A (11 bits) and National
/// Semiconductor LM92 data sheets, "Pointer register", "Temperature register", "Configuration register".
#pragma once

#include "sim/chip.h"

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

struct sensorType {
    std::string_view name;
    std::uint8_t pointerMask;
    std::array<sensorRegister, 8> registers; ///< by pointer; number 0 is the temperature, 1 the configuration
    int lowestCelsius, highestCelsius;
};

inline constexpr std::array sensorTypes{
    sensorType{"LM75",
               0x03,
               {{{"TEMP", 2, false, 0, 0},
                 {"CONF", 1, true, 0x00, 0x1F},
                 {"THYST", 2, true, 0x4B00, 0xFF80},
                 {"TOS", 2, true, 0x5000, 0xFF80}}},
               -55,
               125},
    sensorType{"LM92",
               0x07,
               {{{"TEMP", 2, false, 0, 0},
                 {"CONF", 1, true, 0x00, 0x1F},
                 {"THYST", 2, true, 0x0100, 0xFFF8},
                 {"TCRIT", 2, true, 0x2800, 0xFFF8},
                 {"TLOW", 2, true, 0x0500, 0xFFF8},
                 {"THIGH", 2, true, 0x2000, 0xFFF8},
                 {},
                 {"ID", 2, false, 0x8001, 0}}},
               -55,
               150},
};

class sensor final : public chip
{
public:
    /// @param temperatureBits  9 or 11 for an LM75, 13 for an LM92
    sensor(const sensorType& chipType, double degreesCelsius, unsigned temperatureBits)
        : m_type{chipType}, m_celsius{degreesCelsius}, m_bits{temperatureBits}
    {
        powerUp();
    }

    bool start(direction way, busClock& clock, chipFaults& faults) override;
    bool take(std::uint8_t byte, busClock& clock) override;
    std::uint8_t give(busClock& clock, chipFaults& faults) override;
    void stop(busClock&, chipFaults&) override { deselect(); }
    void deselect() override { m_bytesTaken = m_bytesGiven = 0; }
    void exchange(stateFields& fields) override;
    void powerUp() override;
    std::vector<listedRegister> list(std::uint64_t now) override;

private:
    [[nodiscard]] const sensorRegister& chosen() const { return m_type.registers[m_pointer]; }
    [[nodiscard]] std::uint16_t temperature() const;
    [[nodiscard]] std::uint16_t value(unsigned number) const;
    [[nodiscard]] double limit(unsigned number) const;
    void compare();
    void alarm(std::uint8_t flag, bool reached, bool left);

    const sensorType& m_type;
    const double m_celsius;
    const unsigned m_bits;
    std::uint8_t m_pointer = 0;
    std::array<std::uint16_t, 8> m_registers{};
    std::uint8_t m_alarms = 0; ///< LM75: bit 0 O.S. active; LM92: as in bits 2-0 of its temperature register
    unsigned m_bytesTaken = 0, m_bytesGiven = 0;
    std::uint8_t m_firstByte = 0; ///< of a two-byte register: it changes with the second
};

} // namespace kest::sim
