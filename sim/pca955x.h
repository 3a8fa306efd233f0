/// Register chips of the PCA955x family: LED drivers PCA9551 and PCA9552, expanders PCA9554 and PCA9555. Sources: NXP
/// product data sheets PCA9551, PCA9552, PCA9554/PCA9554A, PCA9555, "Register definitions" and "Bus transactions".
#pragma once

#include "sim/chip.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kest::sim
{

/// How the register pointer moves after each data byte.
enum class pointerStep : std::uint8_t {
    byFlag, ///< to the next register when the auto-increment flag 0x10 is set, from the last one to the first
    pairs, ///< to the other register of the pair
    stays,
};

struct pca955xType {
    std::string_view name;
    bool leds; ///< LED selectors of two bits a pin, else output, polarity and direction of one bit a pin
    std::uint8_t pins;
    std::uint8_t registers;
    std::uint8_t pointerMask; ///< bits of the command byte that choose the register
    pointerStep step;
    std::uint8_t prescaler0; ///< first of prescaler 0, duty cycle 0, prescaler 1, duty cycle 1; LED drivers only
    std::uint8_t blinkClockHz; ///< clock of the blinking, divided by prescaler + 1; LED drivers only
};

inline constexpr std::array pca955xTypes{
    pca955xType{.name = "PCA9551",
                .leds = true,
                .pins = 8,
                .registers = 7,
                .pointerMask = 0x07,
                .step = pointerStep::byFlag,
                .prescaler0 = 1,
                .blinkClockHz = 38},
    pca955xType{.name = "PCA9552",
                .leds = true,
                .pins = 16,
                .registers = 10,
                .pointerMask = 0x0F,
                .step = pointerStep::byFlag,
                .prescaler0 = 2,
                .blinkClockHz = 44},
    pca955xType{.name = "PCA9554",
                .leds = false,
                .pins = 8,
                .registers = 4,
                .pointerMask = 0x03,
                .step = pointerStep::stays,
                .prescaler0 = 0,
                .blinkClockHz = 0},
    pca955xType{.name = "PCA9555",
                .leds = false,
                .pins = 16,
                .registers = 8,
                .pointerMask = 0x07,
                .step = pointerStep::pairs,
                .prescaler0 = 0,
                .blinkClockHz = 0},
};
static_assert(std::ranges::all_of(pca955xTypes, [](const pca955xType& type) {
    const int ports = type.pins / 8;
    return type.pins % 8 == 0 && type.registers <= type.pointerMask + 1 &&
           type.registers == (type.leds ? ports + 4 + 2 * ports : 4 * ports) &&
           (!type.leds || type.prescaler0 == ports) && (type.leds == (type.blinkClockHz != 0)) &&
           (type.pins == 16 || type.step != pointerStep::pairs);
}));

class pca955x final : public chip
{
public:
    /// @param levelsOutside  what drives the pins from outside, bit 0 pin 0; a pin that nothing drives is pulled up
    pca955x(const pca955xType& chipType, std::uint16_t levelsOutside) : m_type{chipType}, m_outside{levelsOutside}
    {
        powerUp();
    }

    bool start(direction way, busClock& clock, chipFaults& faults) override;
    bool take(std::uint8_t byte, busClock& clock) override;
    std::uint8_t give(busClock& clock, chipFaults& faults) override;
    void stop(busClock&, chipFaults&) override { deselect(); }
    void deselect() override { m_commandNext = true; }
    void cut() override;
    void exchange(stateFields& fields) override;
    void powerUp() override;
    std::vector<listedRegister> list(std::uint64_t now) override;

    /// Whether a LED driver's pin is pulled low, by its output all the time or blinking, or from outside.
    [[nodiscard]] bool isPulledLow(unsigned pin) const;
    /// Whether a pin is low at a bus time, ns.
    [[nodiscard]] bool isLow(unsigned pin, std::uint64_t now) const { return !level(pin, now); }
    /// Whether a LED driver's pin is low at a bus time, or was since watched(): a part of a blink period that passed
    /// with the bus idle is not lost.
    [[nodiscard]] bool hasBeenLow(unsigned pin, std::uint64_t now) const;
    /// Whoever watches a pin has seen it up to that bus time.
    void watched(std::uint64_t now) { m_watchedAt = now; }

private:
    enum selector : std::uint8_t {
        low, ///< LED on
        released, ///< LED off
        blink0,
        blink1
    };
    [[nodiscard]] std::uint8_t portCount() const { return static_cast<std::uint8_t>(m_type.pins / 8); }
    [[nodiscard]] selector selectorOf(unsigned pin) const;
    [[nodiscard]] bool expanderOutput(unsigned pin) const;
    [[nodiscard]] bool level(unsigned pin, std::uint64_t now) const;
    [[nodiscard]] std::uint8_t levels(unsigned port, std::uint64_t now) const;
    [[nodiscard]] std::uint8_t changedInputs(unsigned port) const;
    [[nodiscard]] listedRegister listInterrupt() const;
    [[nodiscard]] std::uint8_t inputs(unsigned port, std::uint64_t now) const;
    [[nodiscard]] std::uint64_t blinkPeriodNs(unsigned which) const;
    [[nodiscard]] bool blinkLow(unsigned which, std::uint64_t now) const;
    [[nodiscard]] std::uint8_t value(unsigned registerNumber, std::uint64_t now) const;
    [[nodiscard]] unsigned current() const { return m_pointer & m_type.pointerMask; }
    [[nodiscard]] std::string registerName(unsigned registerNumber) const;
    [[nodiscard]] std::string pinText(unsigned registerNumber, std::uint64_t now) const;
    void movePointer();

    const pca955xType& m_type;
    const std::uint16_t m_outside;
    std::uint8_t m_pointer = 0; ///< command byte as it stands
    std::array<std::uint8_t, 16> m_registers{}; ///< input registers are not kept: they are what the pins are
    std::uint64_t m_watchedAt = 0; ///< bus time, ns
    std::array<std::uint8_t, 2> m_levelsRead{}; ///< an expander's pins when each port was last read, or at power-up
    bool m_commandNext = true; ///< the next byte of a write is the command byte
    std::uint8_t m_pointerBefore = 0; ///< this and the next: before the byte given last
    std::array<std::uint8_t, 2> m_levelsReadBefore{};
};

} // namespace kest::sim
