#include "sim/sensor.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
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
    highest,
    maker = 7
};
// LM92: as in bits 2-0 of its temperature register.
enum alarmFlag : std::uint8_t {
    overTos = 1, // LM75
    belowLow = 1, // LM92
    aboveHigh = 2,
    critical = 4
};
enum configurationBit : std::uint8_t {
    shutdown = 0x01,
    interruptMode = 0x02,
    firstOutputHigh = 0x04, // O.S. of an LM75, T_CRIT_A of an LM92: active high
    intHigh = 0x08 // INT of an LM92
};
constexpr unsigned faultQueueShift = 3, faultQueueMask = 3;
constexpr std::uint8_t noRegister = 0xFF;
constexpr std::uint16_t lastBitOfFirstByte = 0x0100;
// what goes over SDA after it
constexpr std::uint8_t oneBitLow = 0x7F;
constexpr std::int32_t microPerDegree = 1'000'000;
// the power has come since the state was loaded: the first conversion begins at the next use
constexpr std::uint64_t atNextUse = std::numeric_limits<std::uint64_t>::max();

std::string degreeText(double celsius)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.4f C", celsius);
    return text.data();
}

std::int32_t toMicro(double celsius) { return static_cast<std::int32_t>(std::lround(celsius * microPerDegree)); }

void exchangeSigned(stateFields& fields, std::int32_t& value)
{
    auto bits = static_cast<std::uint32_t>(value);
    fields.number(bits);
    value = static_cast<std::int32_t>(bits);
}

listedRegister listOutput(const char* name, bool active, bool activeHigh)
{
    return {name, active == activeHigh ? 1U : 0U, active ? "active" : "inactive"};
}
} // namespace

sensor::sensor(const sensorType& chipType, double degreesCelsius, unsigned temperatureBits)
    : m_type{chipType}, m_firstMicroCelsius{toMicro(degreesCelsius)}, m_bits{temperatureBits}
{
    const auto* const found = std::ranges::find(m_type.conversions, m_bits, &sensorConversion::bits);
    m_conversionNs = (found == m_type.conversions.end() ? m_type.conversions.begin() : found)->lastingNs;
    powerUp();
    m_fileMicroCelsius = m_aroundMicroCelsius = m_firstMicroCelsius;
}

void sensor::follow(const temperatureRamp& ramp, std::uint64_t now)
{
    advance(std::min(ramp.begin, now));
    for (std::uint64_t end = conversionEnd(); end <= std::min(ramp.end(), now); end = conversionEnd()) {
        m_aroundMicroCelsius = inRange(ramp.at(end));
        advance(end);
    }
    m_aroundMicroCelsius = inRange(ramp.at(now));
    // those after the ramp
    advance(now);
}

std::int32_t sensor::inRange(std::int32_t microCelsius) const
{
    return std::clamp(microCelsius, m_type.lowestCelsius * microPerDegree, m_type.highestCelsius * microPerDegree);
}

// A read gives the temperature as it was at its START: no conversion tears its bytes.
bool sensor::start(direction, busClock& clock, chipFaults&)
{
    deselect();
    advance(clock.now);
    return true;
}

bool sensor::take(std::uint8_t byte, busClock& clock)
{
    if (m_bytesTaken == 0) {
        m_pointer = byte & m_type.pointerMask;
    } else if (chosen().writable && chosen().bytes == 1) {
        write(byte, clock.now);
    } else if (chosen().writable && m_bytesTaken % 2 == 1) {
        m_firstByte = byte;
    } else if (chosen().writable) {
        write(static_cast<std::uint16_t>(m_firstByte << 8 | byte), clock.now);
    }
    ++m_bytesTaken;
    return true;
}

// With a queue of one conversion, a new limit is compared with the latest result at once; a longer queue counts
// conversions. Shutdown resets the latch, and its end begins a conversion.
void sensor::write(std::uint16_t word, std::uint64_t now)
{
    advance(now);
    const bool wasDown = configured(shutdown);
    m_registers[m_pointer] = word & chosen().kept;
    if (configured(shutdown)) {
        m_thermostat.resetLatch();
        return;
    }
    if (wasDown) {
        m_conversionBegan = now;
    }
    if (m_hasMeasured && queue() == 1) {
        compare(1);
    }
}

std::uint8_t sensor::give(busClock&, chipFaults&)
{
    const unsigned index = m_bytesGiven++;
    const std::uint16_t word = value(m_pointer);
    // in interrupt mode a read of any register lets the output go
    m_thermostat.resetLatch();
    if (chosen().bytes == 0) {
        return noRegister;
    }
    const bool low = chosen().bytes == 1 || index % 2 == 1;
    return static_cast<std::uint8_t>(low ? word : word >> 8);
}

// The byte was not read to its end.
void sensor::cut()
{
    deselect();
    m_thermostat.undoReset();
}

// A part whose two bytes are not read to the end misses the NACK of the first, and keeps its last bit on SDA for one more
// clock. Only a 0 holds the line.
cutRead sensor::drivesOn() const
{
    if (chosen().bytes != 2 || m_bytesGiven % 2 == 0 || (value(m_pointer) & lastBitOfFirstByte) != 0) {
        return {};
    }
    return {oneBitLow, 0};
}

bool sensor::configured(std::uint16_t bit) const { return (m_registers[conf] & bit) != 0; }

std::uint8_t sensor::queue() const { return m_type.faultQueue[m_registers[conf] >> faultQueueShift & faultQueueMask]; }

// Ends the conversions that are over by now.
void sensor::advance(std::uint64_t now)
{
    poweredAt(now);
    if (configured(shutdown) || now < m_conversionBegan) {
        return;
    }
    const std::uint64_t ended = (now - m_conversionBegan) / m_conversionNs;
    if (ended != 0) {
        m_conversionBegan += ended * m_conversionNs;
        measure(ended);
    }
}

// When the conversion under way ends. In shutdown there is none.
std::uint64_t sensor::conversionEnd() const
{
    return configured(shutdown) ? atNextUse : m_conversionBegan + m_conversionNs;
}

void sensor::measure(std::uint64_t conversions)
{
    m_measuredMicroCelsius = m_aroundMicroCelsius;
    m_hasMeasured = true;
    compare(conversions);
}

std::uint16_t sensor::value(unsigned number) const
{
    if (number != temp) {
        return m_registers[number];
    }
    return static_cast<std::uint16_t>(wordOf(m_measuredMicroCelsius) | (isLm92() ? m_thermostat.alarms() : 0));
}

// Two's complement, left-justified; 1 degree is 0x0100 for an LM75, 0x0080 for an LM92 with its sign in bit 15.
std::uint16_t sensor::wordOf(std::int32_t microCelsius) const
{
    const double steps = static_cast<double>(microCelsius) * (isLm92() ? 16 : m_bits == 11 ? 8 : 2) / microPerDegree;
    return static_cast<std::uint16_t>(static_cast<int>(std::lround(steps)) * (1 << (16 - m_bits)));
}

double sensor::degrees(std::uint16_t word) const
{
    return static_cast<std::int16_t>(word) / (isLm92() ? 128.0 : 256.0);
}

// The limits have no finer steps than their registers: further bits of the temperature do not count.
void sensor::compare(std::uint64_t conversions)
{
    const auto word = [this](unsigned number) -> int { return static_cast<std::int16_t>(m_registers[number]); };
    const int now = static_cast<std::int16_t>(wordOf(m_measuredMicroCelsius) & m_type.registers[overtemperature].kept);
    const int over = word(overtemperature);
    const int back = word(hysteresis);
    if (!isLm92()) {
        const std::array limits{comparedLimit{.passed = now > over, .left = now < back}};
        m_thermostat.compare(limits, conversions, queue());
        return;
    }
    // in the order of the alarm flags
    const std::array limits{
        comparedLimit{.passed = now<word(lowest), .left = now> word(lowest) + back},
        comparedLimit{.passed = now > word(highest), .left = now < word(highest) - back},
        comparedLimit{.passed = now > over, .left = now < over - back},
    };
    m_thermostat.compare(limits, conversions, queue());
}

void sensor::exchange(stateFields& fields)
{
    fields.number(m_pointer);
    fields.check(m_pointer <= m_type.pointerMask, "a sensor's pointer or alarms");
    m_pointer &= m_type.pointerMask;
    m_thermostat.exchangeAlarms(fields);
    for (std::size_t i = 0; i < m_registers.size(); ++i) {
        fields.number(m_registers[i]);
        fields.check(((m_registers[i] ^ m_type.registers[i].atPowerUp) & ~unsigned{m_type.registers[i].kept}) == 0,
                     "bits of a sensor's register that never change");
    }
    m_thermostat.exchangeRest(fields);
    for (auto* const celsius : {&m_fileMicroCelsius, &m_aroundMicroCelsius, &m_measuredMicroCelsius}) {
        exchangeSigned(fields, *celsius);
        fields.check(*celsius >= m_type.lowestCelsius * microPerDegree &&
                         *celsius <= m_type.highestCelsius * microPerDegree,
                     "a sensor's temperature");
    }
    fields.flag(m_hasMeasured);
    fields.number(m_conversionBegan);
    // work through a hub, with a stretched clock there, may have taken it past the bus's time
    fields.check(m_conversionBegan == atNextUse || m_conversionBegan <= fields.busTime() + longestWaitNs,
                 "the begin of a sensor's conversion");
    if (fields.loads()) {
        takeUp(fields.busTime());
    }
}

// What has changed while the state lay in the file: the machine file, or power has come.
void sensor::takeUp(std::uint64_t now)
{
    poweredAt(now);
    if (m_fileMicroCelsius == m_firstMicroCelsius) {
        return;
    }
    m_fileMicroCelsius = m_aroundMicroCelsius = m_firstMicroCelsius;
    if (m_hasMeasured) {
        measure(thermostat::longestQueue);
    }
}

void sensor::powerUp()
{
    deselect();
    m_pointer = 0;
    for (std::size_t i = 0; i < m_registers.size(); ++i) {
        m_registers[i] = m_type.registers[i].atPowerUp;
    }
    m_thermostat.powerUp();
    m_measuredMicroCelsius = 0;
    m_hasMeasured = false;
    m_conversionBegan = atNextUse;
}

void sensor::poweredAt(std::uint64_t now)
{
    if (m_conversionBegan == atNextUse) {
        m_conversionBegan = now;
    }
}

// A new machine has been on for long enough to know its temperatures.
void sensor::asNew()
{
    powerUp();
    m_fileMicroCelsius = m_aroundMicroCelsius = m_firstMicroCelsius;
    m_conversionBegan = 0;
    measure(thermostat::longestQueue);
}

std::vector<listedRegister> sensor::list(std::uint64_t now)
{
    advance(now);
    std::vector<listedRegister> lines;
    for (unsigned number = 0; number < m_type.registers.size(); ++number) {
        if (const sensorRegister& row = m_type.registers[number]; !row.name.empty()) {
            lines.push_back({std::string{row.name}, value(number), meaningOf(number)});
        }
    }
    if (isLm92()) {
        lines.push_back(listOutput("INT", outputActive(belowLow | aboveHigh), configured(intHigh)));
        lines.push_back(listOutput("T_CRIT_A", (m_thermostat.alarms() & critical) != 0, configured(firstOutputHigh)));
    } else {
        lines.push_back(listOutput("O.S.", outputActive(overTos), configured(firstOutputHigh)));
    }
    return lines;
}

// Comparator mode: as long as an alarm lasts. Interrupt mode: from its begin or end until a read.
bool sensor::outputActive(std::uint8_t alarms) const
{
    const std::uint8_t active = configured(interruptMode) ? m_thermostat.latch() : m_thermostat.alarms();
    return (active & alarms) != 0;
}

std::string sensor::meaningOf(unsigned number) const
{
    switch (number) {
    case temp:
        return temperatureText();
    case conf:
        return configurationText();
    case maker:
        return {};
    default:
        return degreeText(degrees(m_registers[number]));
    }
}

std::string sensor::temperatureText() const
{
    std::string text = degreeText(degrees(wordOf(m_measuredMicroCelsius)));
    if (wordOf(m_measuredMicroCelsius) != wordOf(m_aroundMicroCelsius)) {
        text += " (around it " + degreeText(static_cast<double>(m_aroundMicroCelsius) / microPerDegree) + ")";
    }
    if (!isLm92()) {
        return text + (outputActive(overTos) ? ", O.S. active" : "");
    }
    for (const auto& [flag, name] : {std::pair{critical, "critical"}, {aboveHigh, "high"}, {belowLow, "low"}}) {
        text += (m_thermostat.alarms() & flag) != 0 ? std::string{", "} + name : std::string{};
    }
    return text;
}

std::string sensor::configurationText() const
{
    return std::string{configured(shutdown) ? "shut down, " : ""} +
           (configured(interruptMode) ? "interrupt" : "comparator") + " mode, fault queue " + std::to_string(queue());
}

} // namespace kest::sim
