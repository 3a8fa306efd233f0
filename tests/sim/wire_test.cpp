// What goes over the wires, as recorded waveforms show it: its timing against the minima of the bus standard, and its
// bytes as two decoders see them.
#include "tests/sim/decoder.h"
#include "tests/sim/wirejobs.h"

#include <map>

namespace kest::sim::test
{

namespace
{

/// A fault that strikes a read of three bytes, and what goes over the bus from that read to the end of the bus reset
/// after it.
struct Trouble {
    const char *kind, *way;
    std::uint64_t byte;
    const char* told;
};

// The chip has 12 3C 56 at 0x0100. A cut byte goes on where its next bit is 0, as it is in 0x12: the reset clocks the
// rest of it out. It clocks ones out where nobody drives. Where SDA is held the first bit is a 0.
constexpr const char* untroubled = "S W51 A 01 A 00 A Sr R51 A 12 A 3C A 56 N P";
const Trouble troubles[] = {
    {"nack", "write", 0, "S W51 N P"},
    {"nack", "read", 0, "S W51 A 01 A 00 A Sr R51 N P"},
    {"nack-data", "write", 0, "S W51 A 01 N P"},
    {"nack-data", "write", 1, "S W51 A 01 A 00 N P"},
    {"nack-data", "read", 1, untroubled},
    // the other controller addresses the general call
    {"arbitration", "write", 0, "S W00 N P"},
    {"arbitration", "write", 1, "S W51 A 01 A 00 N P"},
    {"arbitration", "read", 0, "S W51 A 01 A 00 A Sr W00 N P"},
    {"arbitration", "read", 1, "S W51 A 01 A 00 A Sr R51 A 12 A 3C N P"},
    {"short", "write", 0, "S W51 A P"},
    {"short", "write", 1, "S W51 A 01 A P"},
    {"short", "read", 0, "S W51 A 01 A 00 A Sr R51 A 12 N P"},
    {"short", "read", 1, "S W51 A 01 A 00 A Sr R51 A 12 A P"},
    {"corrupt", "write", 0, "S W51 A FE A 00 A Sr R51 A FF A FF A FF N P"},
    {"corrupt", "write", 1, "S W51 A 01 A FF A Sr R51 A FF A FF A FF N P"},
    {"corrupt", "read", 0, "S W51 A 01 A 00 A Sr R51 A ED A 3C A 56 N P"},
    {"corrupt", "read", 1, "S W51 A 01 A 00 A Sr R51 A 12 A C3 A 56 N P"},
    {"hold-sda", "write", 0, "S R7F N P"},
    {"hold-sda", "write", 1, "S W51 A 01 A 7F N P"},
    {"hold-sda", "read", 0, "S W51 A 01 A 00 A 7F N P"},
    {"hold-sda", "read", 1, "S W51 A 01 A 00 A Sr R51 A 12 A 3C N P"},
    // a START needs SDA, so there is none
    {"hold-scl", "write", 0, ""},
    {"hold-scl", "write", 1, "S W51 A 01 A FF N P"},
    {"hold-scl", "read", 0, "S W51 A 01 A 00 A FF N P"},
    {"hold-scl", "read", 1, "S W51 A 01 A 00 A Sr R51 A 12 A 3C N P"},
};

class WireTiming : public WireJobs
{
public:
    /// Every chip can follow every clock.
    void recordAt(unsigned khz)
    {
        const std::string fast = "max_khz = 1000\n";
        home.put("b.bin", std::string(256, '\xFF') + "\x12\x3C\x56" + std::string(32768 - 259, '\xFF'));
        record(khz, "",
               chip("24C02", "0xA0", fast + "image = \"a.bin\"") + chip("24C256", "0xA2", "image = \"b.bin\"") +
                   chip("LM75", "0x90", fast) + chip("PCA9552", "0xC4", fast) + chip("PCA9555", "0x40", fast) +
                   chip("HUB922", "0x80", fast) + chip("24C02", "0xA4", "hub = 0x80\nport = 2\nimage = \"c.bin\""));
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
    void troubled()
    {
        for (const Trouble& each : troubles) {
            machine->addFault({.kind = each.kind, .way = each.way, .count = 1, .byte = each.byte});
            on->readAt(0xA2, {0x01, 0x00}, 3);
            EXPECT_EQ(outcome::done, on->planar->reset());
            tells(each.told);
            machine->clearFaults();
            readsAt(0xA2, {0x01, 0x00}, 1);
        }
    }
    void recoveries()
    {
        // on a free bus clocks and a STOP are nothing
        on->planar->reset();
        on->planar->reset();
        on->planar->clocks(9);
        EXPECT_EQ(outcome::done, asks(0xA0));
        // held, SDA gives zeros; let go while SCL is high, it makes a STOP
        machine->addFault({.kind = "hold-sda", .count = 1});
        EXPECT_EQ(outcome::sdaHeld, on->probe(0xA0));
        on->planar->clocks(9);
        machine->clearFaults();
        tells("S W00 A P");
        EXPECT_EQ(outcome::done, asks(0xA0));
        machine->addFault({.kind = "hold-scl", .count = 1});
        EXPECT_EQ(outcome::sclHeld, on->probe(0xA0));
        machine->powerCycle();
        EXPECT_EQ(outcome::done, asks(0xA0));
    }
};

using WireJob = void (WireTiming::*)();
const std::map<std::string, WireJob> allJobs{{"memories", &WireTiming::memories},
                                             {"registers", &WireTiming::registers},
                                             {"hub", &WireTiming::hub},
                                             {"troubles", &WireTiming::troubled},
                                             {"recoveries", &WireTiming::recoveries}};

TEST_F(WireTiming, EveryKindOfJobKeepsEachMinimumOfTheStandardWithATickToSpare)
{
    for (const ClockRow& row : clockRows) {
        for (const auto& [name, job] : allJobs) {
            // the recording's ticks begin within a bit
            for (const std::uint64_t phaseNs : {0U, 40U, 99U}) {
                SCOPED_TRACE(std::to_string(row.khz) + " kHz, " + name + ", " + std::to_string(phaseNs));
                recordAt(row.khz);
                on->planar->idle(1'000'000 + phaseNs);
                (this->*job)();
                expectTimes(row);
                expectBytes(false);
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
    for (const ClockRow& row : clockRows) {
        for (const auto& [name, job] : allJobs) {
            SCOPED_TRACE(std::to_string(row.khz) + " kHz, " + name);
            recordAt(row.khz);
            (this->*job)();
            expectBytes(true);
        }
    }
    // the hub's status, and what it fetched
    recordAt(400);
    hub();
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
        recordAt(row.khz);
        on->write(0xA2, {0x12, 0x34});
        on->readAt(0xA2, {0x12, 0x34}, 2);
        const Timing got = timesIn(vcd());
        EXPECT_EQ(row.low, got.low) << row.khz;
        EXPECT_EQ(row.high, got.high) << row.khz;
        EXPECT_EQ(row.high, got.setUpStart) << row.khz;
        EXPECT_EQ(row.high, got.holdStart) << row.khz;
        EXPECT_EQ(row.high, got.setUpStop) << row.khz;
        EXPECT_EQ(row.low, got.busFree) << row.khz;
        EXPECT_EQ(row.low, got.longestLow) << row.khz;
    }
}

// START at 0: SDA falls 1.5 us later. A byte of zeros, refused; the STOP's SDA rises as its bit ends.
TEST_F(WireTiming, AWaveformEdgeByEdge)
{
    recordAt(400);
    on->probe(0xFE);
    const std::string text = vcd();
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
