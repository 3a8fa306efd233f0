#include "sim/pca955x.h"

#include "base/clock.h"

namespace kest::sim
{

namespace
{
constexpr std::uint8_t autoIncrement = 0x10;
// what a register number without a register reads as
constexpr std::uint8_t noRegister = 0xFF;
// steps of a blink period
constexpr std::uint64_t blinkSteps = 256;
} // namespace

bool pca955x::start(direction, busClock&, chipFaults&)
{
    deselect();
    return true;
}

bool pca955x::take(std::uint8_t byte, busClock&)
{
    if (m_commandNext) {
        m_pointer = byte;
        m_commandNext = false;
        return true;
    }
    // an input register acknowledges its byte and ignores it
    if (current() >= portCount() && current() < m_type.registers) {
        m_registers[current()] = byte;
    }
    movePointer();
    return true;
}

std::uint8_t pca955x::give(busClock& clock, chipFaults&)
{
    const std::uint8_t byte = value(current(), clock.now);
    m_pointerBefore = m_pointer;
    m_levelsReadBefore = m_levelsRead;
    if (!m_type.leds && current() < portCount()) {
        m_levelsRead.at(current()) = levels(current(), clock.now);
    }
    movePointer();
    return byte;
}

// A byte counts as read in its acknowledge slot: the pointer and the interrupt output wait for that.
void pca955x::cut()
{
    deselect();
    m_pointer = m_pointerBefore;
    m_levelsRead = m_levelsReadBefore;
}

void pca955x::movePointer()
{
    const auto keep = static_cast<std::uint8_t>(m_pointer & ~m_type.pointerMask);
    if (m_type.step == pointerStep::pairs) {
        m_pointer ^= 1;
    } else if (m_type.step == pointerStep::byFlag && (m_pointer & autoIncrement) != 0) {
        m_pointer = static_cast<std::uint8_t>(keep | (current() + 1 >= m_type.registers ? 0 : current() + 1));
    }
}

std::uint8_t pca955x::value(unsigned registerNumber, std::uint64_t now) const
{
    if (registerNumber < portCount()) {
        return inputs(registerNumber, now);
    }
    return registerNumber < m_type.registers ? m_registers[registerNumber] : noRegister;
}

std::uint8_t pca955x::levels(unsigned port, std::uint64_t now) const
{
    unsigned all = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        all |= static_cast<unsigned>(level(8 * port + bit, now)) << bit;
    }
    return static_cast<std::uint8_t>(all);
}

std::uint8_t pca955x::inputs(unsigned port, std::uint64_t now) const
{
    const unsigned inverted = m_type.leds ? 0U : m_registers[2U * portCount() + port];
    return static_cast<std::uint8_t>(levels(port, now) ^ inverted);
}

// Pins that are inputs and differ from their last read. An expander's levels do not depend on time.
std::uint8_t pca955x::changedInputs(unsigned port) const
{
    return static_cast<std::uint8_t>((levels(port, 0) ^ m_levelsRead.at(port)) & m_registers[3U * portCount() + port]);
}

// Open drain: low while an input differs from its last read, so a read of its port and its return both let it go.
listedRegister pca955x::listInterrupt() const
{
    std::string pins;
    for (unsigned pin = 0; pin < m_type.pins; ++pin) {
        if ((changedInputs(pin / 8) >> pin % 8 & 1) != 0) {
            pins += (pins.empty() ? "active, changed: " : ", ") + std::to_string(pin);
        }
    }
    return {"INT", pins.empty() ? 1U : 0U, pins.empty() ? "inactive" : pins};
}

bool pca955x::level(unsigned pin, std::uint64_t now) const
{
    const bool fromOutside = (m_outside >> pin & 1) != 0;
    if (!m_type.leds) {
        return expanderOutput(pin) ? (m_registers[portCount() + pin / 8] >> pin % 8 & 1) != 0 : fromOutside;
    }
    const selector chosen = selectorOf(pin);
    const bool pullsDown = chosen == low || (chosen >= blink0 && blinkLow(chosen - blink0, now));
    // open drain: it pulls down or lets go
    return !pullsDown && fromOutside;
}

bool pca955x::expanderOutput(unsigned pin) const
{
    return (m_registers[3U * portCount() + pin / 8] >> pin % 8 & 1) == 0;
}

pca955x::selector pca955x::selectorOf(unsigned pin) const
{
    return static_cast<selector>(m_registers[m_type.prescaler0 + 4U + pin / 4] >> 2 * (pin % 4) & 3);
}

// (prescaler + 1) / clock seconds
std::uint64_t pca955x::blinkPeriodNs(unsigned which) const
{
    return (m_registers[m_type.prescaler0 + 2 * which] + std::uint64_t{1}) * nsPerSecond / m_type.blinkClockHz;
}

// Low for (256 - PWM) / 256 of each period: PWM 0 is low all the time, and no PWM is high all the time. The chip's
// oscillator runs freely; here the periods count from bus time 0, each with its low part first.
bool pca955x::blinkLow(unsigned which, std::uint64_t now) const
{
    const std::uint64_t periodNs = blinkPeriodNs(which);
    const std::uint64_t pwm = m_registers[m_type.prescaler0 + 2 * which + 1];
    return now % periodNs * blinkSteps / periodNs < blinkSteps - pwm;
}

bool pca955x::hasBeenLow(unsigned pin, std::uint64_t now) const
{
    if (!isPulledLow(pin)) {
        return false;
    }
    if (isLow(pin, now) || isLow(pin, m_watchedAt)) {
        return true;
    }
    // it blinks: a period that has begun since then began low
    const std::uint64_t periodNs = blinkPeriodNs(selectorOf(pin) - blink0);
    return now / periodNs != m_watchedAt / periodNs;
}

// Blinking pulls low, too: at any PWM it is low for a part of each period.
bool pca955x::isPulledLow(unsigned pin) const { return (m_outside >> pin & 1) == 0 || selectorOf(pin) != released; }

void pca955x::exchange(stateFields& fields)
{
    fields.number(m_pointer);
    fields.bytes(m_registers);
    fields.number(m_watchedAt);
    fields.check(m_watchedAt <= fields.busTime(), "the time at which a pin was seen");
    fields.bytes(m_levelsRead);
    fields.check(!m_type.leds || m_levelsRead == decltype(m_levelsRead){}, "pins that a LED driver has not read");
    fields.check(m_type.pins == 16 || m_levelsRead[1] == 0, "pins that a PCA955x does not have");
    for (unsigned number = 0; number < m_registers.size(); ++number) {
        fields.check((number >= portCount() && number < m_type.registers) || m_registers[number] == 0,
                     "a register that a PCA955x does not have");
    }
}

void pca955x::powerUp()
{
    deselect();
    m_pointer = 0;
    m_watchedAt = 0;
    m_registers.fill(0);
    m_levelsRead.fill(0);
    const auto set = [this](unsigned first, unsigned count, std::uint8_t byte) {
        std::fill_n(m_registers.begin() + first, count, byte);
    };
    if (m_type.leds) {
        for (const unsigned which : {0U, 1U}) {
            set(m_type.prescaler0 + 2 * which, 1, 0xFF);
            set(m_type.prescaler0 + 2 * which + 1, 1, 0x80);
        }
        // all LEDs off
        set(m_type.prescaler0 + 4U, 2U * portCount(), 0x55);
    } else {
        set(portCount(), portCount(), 0xFF);
        // all pins inputs
        set(3U * portCount(), portCount(), 0xFF);
        m_levelsRead = {levels(0, 0), portCount() == 2 ? levels(1, 0) : std::uint8_t{0}};
    }
}

std::string pca955x::registerName(unsigned registerNumber) const
{
    const unsigned ports = portCount();
    constexpr std::array blinking{"PSC0", "PWM0", "PSC1", "PWM1"};
    constexpr std::array functions{"INPUT", "OUTPUT", "POLARITY", "CONFIG"};
    if (m_type.leds && registerNumber >= m_type.prescaler0 + 4U) {
        return "LS" + std::to_string(registerNumber - m_type.prescaler0 - 4);
    }
    if (m_type.leds && registerNumber >= m_type.prescaler0) {
        return blinking.at(registerNumber - m_type.prescaler0);
    }
    const std::string number = ports > 1 ? std::to_string(registerNumber % ports) : std::string{};
    return functions.at(registerNumber / ports) + number;
}

// What the pins of that register do; empty for registers that belong to no pin.
std::string pca955x::pinText(unsigned registerNumber, std::uint64_t now) const
{
    constexpr std::array selectors{"low", "off", "blink0", "blink1"};
    const unsigned firstSelector = m_type.prescaler0 + 4U;
    std::string text;
    const auto pin = [&text](unsigned number, std::string_view what) {
        text += (text.empty() ? "pin " : ", ") + std::to_string(number) + " ";
        text += what;
    };
    if (m_type.leds && registerNumber >= firstSelector) {
        for (unsigned i = 4 * (registerNumber - firstSelector), end = i + 4; i < end; ++i) {
            pin(i, selectors.at(selectorOf(i)));
        }
    } else if (registerNumber < portCount()) {
        for (unsigned i = 8 * registerNumber, end = i + 8; i < end; ++i) {
            pin(i, level(i, now) ? "1" : "0");
        }
    } else if (!m_type.leds && registerNumber / portCount() == 3) {
        for (unsigned i = 8 * (registerNumber % portCount()), end = i + 8; i < end; ++i) {
            pin(i, !expanderOutput(i) ? "input" : level(i, now) ? "output 1" : "output 0");
        }
    }
    return text;
}

std::vector<listedRegister> pca955x::list(std::uint64_t now)
{
    std::vector<listedRegister> lines;
    for (unsigned number = 0; number < m_type.registers; ++number) {
        lines.push_back({registerName(number), value(number, now), pinText(number, now)});
    }
    if (!m_type.leds) {
        lines.push_back(listInterrupt());
    }
    return lines;
}

} // namespace kest::sim
