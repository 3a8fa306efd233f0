// The bus's timing as its recorded waveforms show it, against the minima of the bus standard.
#include "tests/sim/decoder.h"
#include "tests/sim/machinetest.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <sstream>

namespace kest::sim::test
{

namespace
{

/// The shortest of each time in a waveform, in ticks of 100 ns.
struct Timing {
    long low = none, high = none, setUpStart = none, holdStart = none, setUpStop = none, busFree = none,
         setUpData = none, holdData = none;
    static constexpr long none = 1'000'000'000;
};

/// Measures a waveform, edge by edge.
class Meter
{
public:
    Timing measure(const std::string& vcd)
    {
        std::istringstream lines{vcd};
        std::string line;
        long tick = -1;
        while (std::getline(lines, line)) {
            if (line[0] == '#') {
                tick = std::stol(line.substr(1));
            } else if (tick > 0 && (line == "0!" || line == "1!")) {
                clockEdge(tick, line[0] == '1');
            } else if (tick > 0 && (line == "0\"" || line == "1\"")) {
                dataEdge(tick, line[0] == '1');
            }
        }
        return m_shortest;
    }

private:
    static void note(long& shortest, long now, long since)
    {
        if (since >= 0) {
            shortest = std::min(shortest, now - since);
        }
    }
    void clockEdge(long now, bool level)
    {
        if (level) {
            note(m_shortest.low, now, m_clockFell);
            note(m_shortest.setUpData, now, m_dataMoved);
            m_clockRose = now;
        } else {
            note(m_shortest.high, now, m_clockRose);
            note(m_shortest.holdStart, now, m_started);
            m_clockFell = now;
        }
        m_clock = level;
        m_dataMoved = m_started = -1;
        m_stopped = level ? m_stopped : -1;
    }
    void dataEdge(long now, bool level)
    {
        if (!m_clock) {
            note(m_shortest.holdData, now, m_clockFell);
            m_dataMoved = now;
        } else if (level) {
            note(m_shortest.setUpStop, now, m_clockRose);
            m_stopped = now;
            m_started = -1;
        } else {
            note(m_shortest.busFree, now, m_stopped);
            note(m_shortest.setUpStart, now, m_clockRose);
            m_started = now;
        }
    }

    Timing m_shortest;
    bool m_clock = true;
    // ticks, -1 when it has not been
    long m_clockRose = -1, m_clockFell = -1; ///< the latest
    long m_dataMoved = -1; ///< while SCL is low now
    long m_started = -1; ///< the START whose hold time runs
    long m_stopped = -1; ///< the STOP since which the bus is free
};

/// Shortest times that a clock's mode asks for, in ticks, each with one to spare: those of the bus standard are 4.7,
/// 4.0, 4.7, 4.0, 4.0, 4.7, 0.25 and 0 us at 100 kHz, 1.3, 0.6, 0.6, 0.6, 0.6, 1.3, 0.1 and 0 us at 400 kHz, 0.5, 0.26,
/// 0.26, 0.26, 0.26, 0.5, 0.05 and 0 us at 1 MHz.
struct ClockRow {
    unsigned khz;
    long period;
    Timing least;
};
const ClockRow clocks[] = {
    {100,
     100,
     {.low = 48,
      .high = 41,
      .setUpStart = 48,
      .holdStart = 41,
      .setUpStop = 41,
      .busFree = 48,
      .setUpData = 4,
      .holdData = 1}},
    {400,
     25,
     {.low = 14,
      .high = 7,
      .setUpStart = 7,
      .holdStart = 7,
      .setUpStop = 7,
      .busFree = 14,
      .setUpData = 2,
      .holdData = 1}},
    {1000,
     10,
     {.low = 6,
      .high = 4,
      .setUpStart = 4,
      .holdStart = 4,
      .setUpStop = 4,
      .busFree = 6,
      .setUpData = 2,
      .holdData = 1}},
};

class WireTiming : public MachineTest
{
public:
    /// A machine that records, at a clock. Every chip can follow it.
    void record(unsigned khz)
    {
        const std::string fast = "max_khz = 1000\n";
        home.put("machine.toml",
                 "[[bus]]\nname = \"planar\"\nspeed_khz = " + std::to_string(khz) + "\n" +
                     chip("24C02", "0xA0", fast + "image = \"a.bin\"") + chip("24C256", "0xA2", "image = \"b.bin\"") +
                     chip("LM75", "0x90", fast) + chip("PCA9552", "0xC4", fast) + chip("PCA9555", "0x40", fast) +
                     chip("HUB922", "0x80", fast) + chip("24C02", "0xA4", "hub = 0x80\nport = 2\nimage = \"c.bin\""));
        open();
        ASSERT_TRUE(machine->startWave("planar", file()));
    }
    std::filesystem::path file() const { return home.path / "planar.vcd"; }

    // What goes over the bus, and how a decoder is to tell it.

    void sends(std::uint8_t address, const Bytes& bytes)
    {
        EXPECT_EQ(outcome::done, on->write(address, bytes).end);
        told += "S" + addressed('W', address) + " A" + sent(bytes) + " P ";
    }
    void reads(std::uint8_t address, std::size_t length)
    {
        const Answer got = on->read(address, length);
        EXPECT_EQ(outcome::done, got.end);
        told += "S" + addressed('R', address) + " A" + received(got.data) + " P ";
    }
    void readsAt(std::uint8_t address, const Bytes& offset, std::size_t length)
    {
        const Answer got = on->readAt(address, offset, length);
        EXPECT_EQ(outcome::done, got.end);
        told += "S" + addressed('W', address) + " A" + sent(offset) + " Sr" + addressed('R', address) + " A" +
                received(got.data) + " P ";
    }
    outcome asks(std::uint8_t address)
    {
        const outcome end = on->probe(address);
        told += "S" + addressed('W', address) + (end == outcome::done ? " A P " : " N P ");
        return end;
    }
    static std::string hexOf(unsigned byte)
    {
        std::array<char, 3> text{};
        std::snprintf(text.data(), text.size(), "%02X", byte & 0xFFU);
        return text.data();
    }
    static std::string addressed(char way, std::uint8_t address)
    {
        return std::string{" "} + way + hexOf(address >> 1U);
    }
    static std::string sent(const Bytes& bytes)
    {
        std::string text;
        for (const std::uint8_t byte : bytes) {
            text += " " + hexOf(byte) + " A";
        }
        return text;
    }
    // the last byte is not acknowledged
    static std::string received(const Bytes& bytes)
    {
        std::string text = sent(bytes);
        text.back() = 'N';
        return text;
    }

    void memories()
    {
        sends(0xA2, Bytes{0x01, 0x00} + counting(64, 0x30));
        on->idleMs(10);
        readsAt(0xA2, {0x01, 0x00}, 64);
        reads(0xA2, 3);
        // busy: asked until it answers
        sends(0xA0, {0x10, 0xAB, 0xCD});
        for (int asked = 0; asked < 1000 && asks(0xA0) != outcome::done; ++asked) {}
        readsAt(0xA0, {0x10}, 2);
    }
    void registers()
    {
        readsAt(0x90, {0}, 2);
        sends(0xC4, {0x16, 0x55, 0x54});
        readsAt(0xC4, {0x10}, 10);
        sends(0x40, {0x02, 0xF0, 0x0F});
        readsAt(0x40, {0x00}, 2);
        asks(0x70);
    }
    void hub()
    {
        sends(0x80, {2, 0xA4, 0x10, 0x5A, 0xA5});
        on->idleMs(10);
        readsAt(0x80, {2, 0xA4, 0x10}, 3);
        sends(0x80, {0x20, 0x06});
        reads(0x80, 1);
    }
    void troubles()
    {
        for (const char* kind : {"nack", "nack-data", "arbitration", "short", "corrupt", "hold-sda", "hold-scl"}) {
            for (const char* way : {"write", "read"}) {
                for (const std::uint64_t byte : {0U, 1U}) {
                    machine->addFault({.kind = kind, .way = way, .count = 1, .byte = byte});
                    on->readAt(0xA2, {0x01, 0x00}, 3);
                    on->planar->reset();
                    machine->clearFaults();
                    on->readAt(0xA2, {0x01, 0x00}, 1);
                }
            }
        }
    }
    void recoveries()
    {
        on->planar->reset();
        on->planar->reset();
        on->planar->clocks(9);
        on->probe(0xA0);
        machine->addFault({.kind = "hold-sda", .count = 1});
        on->probe(0xA0);
        on->planar->clocks(9);
        machine->clearFaults();
        on->probe(0xA0);
        machine->addFault({.kind = "hold-scl", .count = 1});
        on->probe(0xA0);
        machine->powerCycle();
        on->probe(0xA0);
    }

    std::string told;
};

TEST_F(WireTiming, EveryKindOfJobKeepsEachMinimumOfTheStandardWithATickToSpare)
{
    const std::map<std::string, void (WireTiming::*)()> jobs{{"memories", &WireTiming::memories},
                                                             {"registers", &WireTiming::registers},
                                                             {"hub", &WireTiming::hub},
                                                             {"troubles", &WireTiming::troubles},
                                                             {"recoveries", &WireTiming::recoveries}};
    for (const ClockRow& row : clocks) {
        for (const auto& [name, job] : jobs) {
            // the recording's ticks begin within a bit
            for (const std::uint64_t phaseNs : {0U, 40U, 99U}) {
                SCOPED_TRACE(std::to_string(row.khz) + " kHz, " + name + ", " + std::to_string(phaseNs));
                record(row.khz);
                on->planar->idle(1'000'000 + phaseNs);
                (this->*job)();
                const Timing got = Meter{}.measure(home.text("planar.vcd"));
                EXPECT_LE(row.least.low, got.low);
                EXPECT_LE(row.least.high, got.high);
                EXPECT_LE(row.least.setUpStart, got.setUpStart);
                EXPECT_LE(row.least.holdStart, got.holdStart);
                EXPECT_LE(row.least.setUpStop, got.setUpStop);
                EXPECT_LE(row.least.busFree, got.busFree);
                EXPECT_LE(row.least.setUpData, got.setUpData);
                EXPECT_LE(row.least.holdData, got.holdData);
                // and each of them has been met
                EXPECT_GT(1'000'000, std::max({got.low, got.high, got.setUpStart, got.holdStart, got.setUpStop,
                                               got.busFree, got.setUpData, got.holdData}));
                // no clock is faster than it says
                EXPECT_LE(row.period, got.low + got.high);
            }
        }
    }
}

TEST_F(WireTiming, TheSameRecordingsDecodeToTheBytesMovedAlsoBehindAHub)
{
    needDecoder();
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    for (const ClockRow& row : clocks) {
        for (const auto job : {&WireTiming::memories, &WireTiming::registers, &WireTiming::hub}) {
            SCOPED_TRACE(row.khz);
            record(row.khz);
            told.clear();
            (this->*job)();
            EXPECT_EQ(told, seenIn(file()) + " ");
        }
    }
    // the hub's status, and what it fetched
    EXPECT_NE(std::string::npos, told.find("Sr R40 A 00 A 5A A A5 N P")) << told;
}

// At 400 kHz a bit is 1.5 us low and 1.0 us high; at 100 kHz 5 us each; at 1 MHz 0.6 and 0.4 us.
TEST_F(WireTiming, PartsOfABit)
{
    struct {
        unsigned khz;
        long low, high;
    } const rows[] = {{100, 50, 50}, {400, 15, 10}, {1000, 6, 4}};
    for (const auto& row : rows) {
        record(row.khz);
        on->write(0xA2, {0x12, 0x34});
        on->readAt(0xA2, {0x12, 0x34}, 2);
        const Timing got = Meter{}.measure(home.text("planar.vcd"));
        EXPECT_EQ(row.low, got.low) << row.khz;
        EXPECT_EQ(row.high, got.high) << row.khz;
        EXPECT_EQ(row.high, got.setUpStart) << row.khz;
        EXPECT_EQ(row.high, got.holdStart) << row.khz;
        EXPECT_EQ(row.high, got.setUpStop) << row.khz;
        EXPECT_EQ(row.low, got.busFree) << row.khz;
    }
}

// START at 0: SDA falls 1.5 us later. A byte of zeros, refused; the STOP's SDA rises as its bit ends.
TEST_F(WireTiming, AWaveformEdgeByEdge)
{
    record(400);
    on->probe(0xFE);
    const std::string text = home.text("planar.vcd");
    const std::size_t begin = text.find("#0\n");
    ASSERT_NE(std::string::npos, begin);
    std::string expected = "#0\n1!\n1\"\n#15\n0\"\n#25\n0!\n";
    // seven ones
    expected += "#32\n1\"\n#40\n1!\n#50\n0!\n";
    for (int bit = 2; bit < 8; ++bit) {
        expected += "#" + std::to_string(25 * bit + 15) + "\n1!\n#" + std::to_string(25 * bit + 25) + "\n0!\n";
    }
    // a zero, write; nobody acknowledges
    expected += "#207\n0\"\n#215\n1!\n#225\n0!\n#232\n1\"\n#240\n1!\n#250\n0!\n";
    expected += "#257\n0\"\n#265\n1!\n#275\n1\"\n#276\n";
    EXPECT_EQ(expected, text.substr(begin));
}

} // namespace

} // namespace kest::sim::test
