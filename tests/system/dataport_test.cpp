/// LED drivers, expanders, sensors and detection, from the exported functions down to the chips.
#include <random>
#include <sys/wait.h>
#include <thread>

#include "tests/system/library_machine.h"

namespace kest::test
{
namespace
{

class DataPort : public LibraryMachine
{
protected:
    static std::uint32_t codeOf(ErrlEntry* entry)
    {
        const std::unique_ptr<ErrlEntry> owned(entry);
        return owned ? owned->getRC() : 0;
    }
    static std::uint32_t writePins(const std::string& text, kest_dpOperation operation, unsigned bits,
                                   unsigned mask = 0)
    {
        return codeOf(KEST_dpWrite(text.c_str(), operation, bits, mask, nullptr, 0));
    }
    static std::uint32_t configure(const std::string& text, kest_dpConfig config, unsigned value)
    {
        return codeOf(KEST_dpConfig(text.c_str(), config, value, nullptr));
    }
    static unsigned pinsOf(const std::string& text, unsigned mask = 0xFFFF)
    {
        unsigned value = 0xDEAD0000;
        EXPECT_EQ(0U, codeOf(KEST_dpRead(text.c_str(), mask, &value, nullptr, 0)));
        return value;
    }
    /// Registers of the chip, read over the bus without the library.
    [[nodiscard]] Bytes registersAt(std::uint8_t chipAddress, std::uint8_t first, std::size_t count) const
    {
        Bytes pointer{first};
        Bytes data(count);
        std::array<sim::segment, 2> segments{{{.address = chipAddress, .way = sim::direction::write, .bytes = pointer},
                                              {.address = chipAddress, .way = sim::direction::read, .bytes = data}}};
        EXPECT_EQ(sim::outcome::done, wires->transfer(segments, 0).end);
        return data;
    }

    const std::string leds8 = "sim:planar,L,9551,C4";
    const std::string leds16 = "sim:planar,L,9552,C0";
    const std::string expander8 = "sim:planar,L,9554,42";
    const std::string expander16 = "sim:planar,L,9555,40";
};

/// Selectors of sixteen pins, two bits each, computed pin by pin.
struct SelectorModel {
    std::array<unsigned, 16> pins{};

    void apply(kest_dpOperation operation, unsigned bits, unsigned mask)
    {
        for (unsigned pin = 0; pin < pins.size(); ++pin) {
            const bool chosen = (bits >> pin & 1) != 0;
            const bool masked = (mask >> pin & 1) != 0;
            if (operation == KEST_DP_COPY && masked) {
                pins.at(pin) = (pins.at(pin) & 2) | (chosen ? 1U : 0U);
            } else if (operation == KEST_DP_SELECT_00 && chosen) {
                pins.at(pin) = 0;
            } else if (operation == KEST_DP_SELECT_01 && chosen) {
                pins.at(pin) = 1;
            } else if (operation == KEST_DP_SELECT_10 && chosen) {
                pins.at(pin) = 2;
            } else if (operation == KEST_DP_SELECT_11 && chosen) {
                pins.at(pin) = 3;
            }
        }
    }
    [[nodiscard]] Bytes registers(std::size_t count) const
    {
        Bytes values(count);
        for (std::size_t pin = 0; pin < 4 * count; ++pin) {
            values.at(pin / 4) = static_cast<std::uint8_t>(values.at(pin / 4) | pins.at(pin) << (2 * (pin % 4)));
        }
        return values;
    }
};

TEST_F(DataPort, LedSelectorsFollowEveryOperation)
{
    std::mt19937 random(1);
    SelectorModel wide;
    SelectorModel narrow;
    // as after power-up: off
    wide.pins.fill(1);
    narrow.pins.fill(1);
    for (int round = 0; round < 200; ++round) {
        const auto operation = static_cast<kest_dpOperation>(random() % 5);
        // pin 15 resets the hubs
        const unsigned bits = random() & 0x7FFF;
        const unsigned mask = random() & 0x7FFF;
        ASSERT_EQ(0U, writePins(leds16, operation, bits, mask));
        ASSERT_EQ(0U, writePins(leds8, operation, bits & 0xFF, mask & 0xFF));
        wide.apply(operation, bits, mask);
        narrow.apply(operation, bits & 0xFF, mask & 0xFF);
        ASSERT_EQ(wide.registers(4), registersAt(0xC0, 0x16, 4)) << round;
        ASSERT_EQ(narrow.registers(2), registersAt(0xC4, 0x15, 2)) << round;
    }
}

TEST_F(DataPort, LedInputsShowWhatTheLedsDo)
{
    // driven low
    ASSERT_EQ(0U, writePins(leds16, KEST_DP_SELECT_00, 0x0007));
    // released
    ASSERT_EQ(0U, writePins(leds16, KEST_DP_SELECT_01, 0x7FF8));
    EXPECT_EQ(0x7FF8U, pinsOf(leds16, 0x7FFF));
    EXPECT_EQ(0x00F8U, pinsOf(leds16, 0x00FF));
    ASSERT_EQ(0U, writePins(leds8, KEST_DP_SELECT_00, 0x81));
    EXPECT_EQ(0x7EU, pinsOf(leds8));
}

TEST_F(DataPort, ExpanderOutputsAndDirections)
{
    ASSERT_EQ(0U, configure(expander16, KEST_DP_CONFIG_OUTPUT, 0x0F0F));
    EXPECT_EQ((Bytes{0xF0, 0xF0}), registersAt(0x40, 6, 2));
    ASSERT_EQ(0U, writePins(expander16, KEST_DP_SELECT_00, 0x0105));
    EXPECT_EQ((Bytes{0xFA, 0xFE}), registersAt(0x40, 2, 2));
    EXPECT_EQ(0x0E0AU, pinsOf(expander16, 0x0F0F));
    ASSERT_EQ(0U, writePins(expander16, KEST_DP_SELECT_11, 0x0001));
    ASSERT_EQ(0U, writePins(expander16, KEST_DP_COPY, 0x0200, 0x0300));
    EXPECT_EQ((Bytes{0xFB, 0xFE}), registersAt(0x40, 2, 2));
    ASSERT_EQ(0U, configure(expander16, KEST_DP_CONFIG_INPUT, 0x0F0F));
    EXPECT_EQ((Bytes{0xFF, 0xFF}), registersAt(0x40, 6, 2));

    ASSERT_EQ(0U, configure(expander8, KEST_DP_CONFIG_OUTPUT, 0x3C));
    EXPECT_EQ((Bytes{0xC3}), registersAt(0x42, 3, 1));
    ASSERT_EQ(0U, writePins(expander8, KEST_DP_SELECT_10, 0x08));
    EXPECT_EQ((Bytes{0xF7}), registersAt(0x42, 1, 1));
    EXPECT_EQ(0x34U, pinsOf(expander8, 0x3C));
}

TEST_F(DataPort, RawRegisters)
{
    struct Row {
        std::string text;
        std::uint8_t address;
        kest_dpConfig config;
        std::uint8_t number;
    };
    const std::vector<Row> rows{
        {leds8, 0xC4, KEST_DP_CONFIG_PRESCALER0, 1},    {leds8, 0xC4, KEST_DP_CONFIG_DUTY0, 2},
        {leds8, 0xC4, KEST_DP_CONFIG_PRESCALER1, 3},    {leds8, 0xC4, KEST_DP_CONFIG_DUTY1, 4},
        {leds16, 0xC0, KEST_DP_CONFIG_PRESCALER0, 2},   {leds16, 0xC0, KEST_DP_CONFIG_DUTY0, 3},
        {leds16, 0xC0, KEST_DP_CONFIG_PRESCALER1, 4},   {leds16, 0xC0, KEST_DP_CONFIG_DUTY1, 5},
        {expander8, 0x42, KEST_DP_CONFIG_POLARITY0, 2}, {expander16, 0x40, KEST_DP_CONFIG_POLARITY0, 4},
        {expander16, 0x40, KEST_DP_CONFIG_POLARITY1, 5}};
    std::uint8_t value = 0x21;
    for (const Row& one : rows) {
        EXPECT_EQ(0U, configure(one.text, one.config, value)) << one.text << one.config;
        EXPECT_EQ(Bytes{value}, registersAt(one.address, one.number, 1)) << one.text << one.config;
        ++value;
    }
    EXPECT_EQ(0x8000132DU, configure(leds8, KEST_DP_CONFIG_POLARITY0, 1));
    EXPECT_EQ(0x8000132DU, configure(expander8, KEST_DP_CONFIG_DUTY0, 1));
    EXPECT_EQ(0x8000132DU, configure(expander16, static_cast<kest_dpConfig>(8), 1));
}

TEST_F(DataPort, MissingChipFailsAndLeavesNoLock)
{
    EXPECT_EQ(0x40001311U, writePins("sim:planar,L,9552,C6", KEST_DP_SELECT_00, 1));
    EXPECT_TRUE(unlocked(0xC6));
    machine->addFault({.kind = "nack-data", .bus = "planar", .address = 0xC0, .count = 1, .byte = 1});
    EXPECT_NE(0U, writePins(leds16, KEST_DP_SELECT_00, 1));
    EXPECT_TRUE(unlocked(0xC0));
    EXPECT_EQ(0U, writePins(leds16, KEST_DP_SELECT_00, 1));
}

constexpr int changesEach = 60;

/// Switches its own two pins on and off; at the end pin 2n is on and pin 2n+1 off. @return how many calls failed
int blinkOwnPins(unsigned worker)
{
    const std::string text = "sim:planar,L,9552,C0";
    const unsigned own = 3U << (2 * worker);
    int failed = 0;
    const auto change = [&](kest_dpOperation operation, unsigned bits) {
        const std::unique_ptr<ErrlEntry> entry(KEST_dpWrite(text.c_str(), operation, bits, 0, nullptr, 0));
        failed += entry ? 1 : 0;
    };
    for (int count = 0; count < changesEach; ++count) {
        change(KEST_DP_SELECT_10, own);
        change(KEST_DP_SELECT_01, own & 0xAAAA);
        change(KEST_DP_SELECT_00, own & 0x5555);
    }
    return failed;
}

TEST_F(DataPort, ThreadsAndProcessesChangingDifferentPinsLoseNoChange)
{
    std::vector<pid_t> children;
    for (const unsigned worker : {0U, 1U, 2U}) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(blinkOwnPins(worker));
        }
        children.push_back(child);
    }
    std::array<int, 3> failures{};
    {
        std::vector<std::jthread> threads;
        for (const unsigned worker : {3U, 4U, 5U}) {
            threads.emplace_back([worker, &failures] { failures.at(worker - 3) = blinkOwnPins(worker); });
        }
    }
    EXPECT_EQ((std::array<int, 3>{0, 0, 0}), failures);
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    // pins 0-11: on, off, on, off, ...; 12-15 as after power-up
    EXPECT_EQ((Bytes{0x44, 0x44, 0x44, 0x55}), registersAt(0xC0, 0x16, 4));
}

TEST_F(DataPort, ThermalWords)
{
    KEST_thermal_sensor_info sensor{.devicePath = "sim:planar,L,75,90", .temperature = 1, .status = 0};
    EXPECT_EQ(0U, codeOf(KEST_thermal_sensor_read_temperature_data(&sensor)));
    const Bytes word = registersAt(0x90, 0, 2);
    EXPECT_EQ(word.at(0) << 8 | word.at(1), sensor.temperature);
    EXPECT_EQ(0x55, sensor.status);
    sensor.devicePath = "sim:planar,L,92,9A";
    EXPECT_EQ(0x80001329U, codeOf(KEST_thermal_sensor_read_temperature_data(&sensor)));
    EXPECT_EQ(0, sensor.temperature);
    EXPECT_EQ(0xAA, sensor.status);
}

TEST_F(DataPort, Detection)
{
    const auto detect = [](const char* text) { return codeOf(KEST_detectDevice(text, nullptr)); };
    for (const char* const present :
         {"sim:planar@A0,L", "sim:planar@C0,L,9552,C0", "sim:planar@80,l", "sim:planar@90,L"}) {
        EXPECT_EQ(0U, detect(present)) << present;
    }
    EXPECT_EQ(0x80001311U, detect("sim:planar@B0,L"));
    EXPECT_EQ(0x80001315U, detect("sim:planar@A0"));
    EXPECT_EQ(0x40001311U, detect("sim:nowhere@A0,L"));
    // no address: nothing is probed
    EXPECT_NE(0U, detect("sim:planar,L"));
    machine->addFault({.kind = "hold-sda", .bus = "planar", .address = 0xA0, .count = 1});
    EXPECT_EQ(0x80001309U, detect("sim:planar@A0,L"));
}

TEST_F(DataPort, BehindAHubTheLayerRefusesRegisterTransfers)
{
    EXPECT_EQ(0x8000130EU, writePins("sim:planar,L,922,80,3,9552,C0", KEST_DP_SELECT_00, 1));
    unsigned value = 0;
    EXPECT_EQ(0x8000130EU, codeOf(KEST_dpRead("sim:planar,L,922,80,3,75,90", 0xFFFF, &value, nullptr, 0)));
}

} // namespace
} // namespace kest::test
