// The bus's clock, and its waveform as independent logic-analyser software decodes it.
#include "tests/sim/decoder.h"
#include "tests/sim/machinetest.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace kest::sim::test
{

namespace
{

class BusTime : public MachineTest
{
protected:
    void SetUp() override { power("speed_khz = 100\n" + chip("24C02", "0xA0", "image = \"a.bin\"")); }
};

TEST_F(BusTime, IsABitForEachConditionAndNineForEachByte)
{
    EXPECT_EQ(0U, on->planar->busTimeNs());
    // START, address, STOP
    on->probe(0xA0);
    EXPECT_EQ(on->planar->busTimeNs(), 11U * 10'000);
    // START, address, offset, START, address, 5 bytes, STOP
    on->readAt(0xA0, {0}, 5);
    // a repeated START takes half a bit more than a START
    EXPECT_EQ((11U + 1 + 18 + 1 + 9 + 45 + 1) * 10'000 + 5'000, on->planar->busTimeNs());
    // nobody: the same bits
    on->probe(0xB0);
    EXPECT_EQ((11U + 75 + 11) * 10'000 + 5'000, on->planar->busTimeNs());
    // half a bit ahead of the first of nine clocks, and a STOP
    on->planar->reset();
    EXPECT_EQ((11U + 75 + 11 + 10) * 10'000 + 10'000, on->planar->busTimeNs());
    on->planar->idle(123);
    EXPECT_EQ((11U + 75 + 11 + 10) * 10'000 + 10'123, on->planar->busTimeNs());
}

TEST_F(BusTime, SpeedIsTheBussUnlessTheTransactionSaysOtherwise)
{
    EXPECT_EQ(100U, on->planar->defaultSpeedKhz());
    EXPECT_EQ(on->planar->probe(0xA0, 400).busTimeNs, 11U * 2'500);
    EXPECT_EQ(on->planar->probe(0xA0, 0).busTimeNs, 11U * 2'500 + 11U * 10'000);
    // not beyond 1000 kHz
    EXPECT_EQ(on->planar->probe(0xA0, 5000).busTimeNs, 11U * 2'500 + 11U * 10'000 + 11U * 1'000);
}

TEST_F(BusTime, WholeLargeChipInOneTransaction)
{
    power(chip("24C512", "0xA0", "image = \"large.bin\""));
    // a repeated START takes two fifths of a bit more than a START
    EXPECT_EQ((1U + 9 + 18 + 1 + 9 + 9 * 65536U + 1) * 2'500 + 1'000, on->readAt(0xA0, {0, 0}, 65536).busTimeNs);
}

TEST_F(BusTime, FastModeOnlyCounts)
{
    // an hour
    on->planar->idle(3'600'000'000'000);
    EXPECT_EQ(3'600'000'000'000U, on->planar->busTimeNs());
}

// It ends in an error, so that nobody waits for time that no longer passes. A machine that is opened then starts anew.
TEST_F(BusTime, EndsInAnErrorAndDoesNotWrap)
{
    on->planar->idle((std::uint64_t{1} << 62) - 1);
    EXPECT_EQ(4'611'686'018'427'387'903U, on->planar->busTimeNs());
    on->planar->idle(~std::uint64_t{0});
    EXPECT_EQ(outcome::gone, on->probe(0xA0));
    EXPECT_EQ(outcome::gone, on->planar->reset());
    open();
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(110'000U, on->planar->busTimeNs());
}

/// A clock that nobody waits for: instead of sleeping, it goes forward to the end of the sleep.
class DrivenClock final : public realClock
{
public:
    std::uint64_t nowNs() override { return now; }
    void sleepUntil(std::uint64_t nanoseconds) override { now = std::max(now, nanoseconds); }

    std::uint64_t now = 5'000'000'000;
};

TEST_F(BusTime, RealTimeWaits)
{
    DrivenClock clock;
    const auto real = openMachine(home.path, clock);
    User slow{real->findBus("planar", "")};
    // 1 + 9 + 9 + 1.5 + 9 + 1800 + 1 bits of 10 us
    EXPECT_EQ(outcome::done, slow.readAt(0xA0, {0}, 200).end);
    EXPECT_EQ(5'018'305'000U, clock.now);
    slow.idleMs(4);
    EXPECT_EQ(5'022'305'000U, clock.now);
    EXPECT_EQ(22'305'000U, slow.planar->busTimeNs());
}

// A blinking reset line is low for the first quarter of each second; a conversion takes 300 ms.
TEST_F(BusTime, InRealTimePinsBlinkAndSensorsConvertWhileNobodyLooks)
{
    power(chip("HUB922", "0x80") + chip("PCA9552", "0xC0") + chip("LM75", "0x90", "celsius = 25"));
    DrivenClock clock;
    const auto real = openMachine(home.path, clock);
    User slow{real->findBus("planar", "")};
    real->powerCycle();
    slow.write(0xC0, {0x12, 43, 0xC0, 0, 0, 0x55, 0x55, 0x55, 0x95});
    EXPECT_EQ(outcome::addressNotAcknowledged, slow.probe(0x80));
    EXPECT_EQ((Bytes{0x00, 0x00}), slow.read(0x90, 2).data);
    clock.now += 400'000'000;
    EXPECT_EQ(Bytes{15}, slow.read(0x80, 1).data);
    EXPECT_EQ((Bytes{0x19, 0x00}), slow.read(0x90, 2).data);
    clock.now += 1'000'000'000;
    EXPECT_EQ(Bytes{15}, slow.read(0x80, 1).data);
    EXPECT_EQ(Bytes{0}, slow.read(0x80, 1).data);
}

// The hold is over after 30 ms; the pin is low for the first quarter of the next second.
TEST_F(BusTime, InRealTimeAHoldThatIsOverOutlastsTheResetOfItsHub)
{
    power(chip("HUB922", "0x80") + chip("PCA9552", "0xC0"));
    DrivenClock clock;
    const auto real = openMachine(home.path, clock);
    User slow{real->findBus("planar", "")};
    slow.write(0xC0, {0x12, 43, 0xC0, 0, 0, 0x55, 0x55, 0x55, 0x95});
    clock.now += 400'000'000;
    real->addFault({.kind = "hold-scl", .address = 0x80, .lastsMs = 30});
    EXPECT_EQ(outcome::sclHeld, slow.probe(0x80));
    clock.now += 1'000'000'000;
    EXPECT_EQ(outcome::sclHeld, slow.probe(0x80));
}

// In real time the clock ends a write cycle, whether or not the bus is used meanwhile.
TEST_F(BusTime, RealTimeGoesOnBetweenTransactions)
{
    power(chip("24C02", "0xA0", "image = \"a.bin\"\nwrite_cycle_ms = 1000\nwrite_cycle_min_ms = 1000"));
    DrivenClock clock;
    const auto real = openMachine(home.path, clock);
    User slow{real->findBus("planar", "")};
    EXPECT_EQ(outcome::done, slow.write(0xA0, {0, 1}).end);
    clock.now += 999'000'000;
    EXPECT_EQ(outcome::addressNotAcknowledged, slow.probe(0xA0));
    clock.now += 1'000'000;
    EXPECT_EQ(outcome::done, slow.probe(0xA0));
}

// The cut comes 0.5 s into a write cycle of 1 s; nobody looks for another 2 s. Choice 3 of the chip with seed 1: each byte
// is old, new, or anything.
TEST_F(BusTime, InRealTimeAPowerCutTearsThePageOfItsTime)
{
    power(chip("24C02", "0xA0", "image = \"a.bin\"\nwrite_cycle_ms = 1000\nwrite_cycle_min_ms = 1000"));
    DrivenClock clock;
    const auto real = openMachine(home.path, clock);
    User slow{real->findBus("planar", "")};
    slow.store(0xA0, {0x08, 1});
    clock.now += 1'000'000'000;
    real->play("[[event]]\nat_ms = 500\ndo = \"power-cut\"\n", "s.toml");
    EXPECT_EQ(outcome::done, slow.write(0xA0, {0x10, 1, 2, 3, 4, 5, 6, 7, 8}).end);
    clock.now += 2'500'000'000;
    EXPECT_EQ(outcome::done, slow.probe(0xA0));
    const Bytes image = home.content("a.bin");
    EXPECT_EQ((Bytes{0xFF, 0x02, 0xFF, 0x04, 0x96, 0xA5, 0x07, 0xFF}),
              Bytes(image.begin() + 0x10, image.begin() + 0x18));
}

// From 25 to 45 degrees in ten seconds, from 1 s on. At 6 s a conversion of 300 ms ends.
TEST_F(BusTime, InRealTimeATemperatureRisesFromItsTimeOn)
{
    power(chip("LM75", "0x90", "celsius = 25"));
    DrivenClock clock;
    const auto real = openMachine(home.path, clock);
    User slow{real->findBus("planar", "")};
    // the first use of a bus begins its clock
    slow.idleMs(0);
    real->play("[[event]]\nat_ms = 1000\nbus = \"planar\"\ndo = \"temperature\"\naddress = 0x90\ncelsius = 45\n"
               "over_ms = 10000\n",
               "s.toml");
    clock.now += 6'100'000'000;
    EXPECT_EQ((Bytes{0x23, 0x00}), slow.read(0x90, 2).data);
    clock.now += 60'000'000'000;
    EXPECT_EQ((Bytes{0x2D, 0x00}), slow.read(0x90, 2).data);
}

TEST_F(BusTime, ASystemsClockIsWaitedFor)
{
    const auto real = openMachine(home.path, true);
    User slow{real->findBus("planar", "")};
    const auto before = std::chrono::steady_clock::now();
    slow.idleMs(4);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds{4});
}

class Wave : public MachineTest
{
protected:
    void SetUp() override
    {
        power(chip("24C02", "0xA0", "image = \"a.bin\"\nhold_sda_after_cut = true") +
              chip("24C256", "0xA2", "image = \"b.bin\"") + chip("LM75", "0x90", "celsius = 25.5") +
              chip("HUB922", "0x80") + chip("24C02", "0xA4", "hub = 0x80\nport = 2\nimage = \"c.bin\""));
        needDecoder();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_TRUE(machine->startWave("planar", file()));
    }
    std::filesystem::path file() const { return home.path / "planar.vcd"; }
    std::string decode(const std::string& options) const { return test::decode(file(), options); }
    std::string seen() const { return seenIn(file()); }
    std::string eeprom(unsigned address7) const
    {
        return decode(",i2cfilter:address=" + std::to_string(address7) +
                      ",eeprom24xx:chip=generic -A eeprom24xx=ops:warnings");
    }
};

TEST_F(Wave, IsWhatWentOverTheBus)
{
    on->store(0xA0, {0x10, 0xAB, 0xCD});
    on->readAt(0xA0, {0x10}, 3);
    on->probe(0x70);
    on->write(0x90, {0x00});
    EXPECT_EQ("S W50 A 10 A AB A CD A P S W50 A 10 A Sr R50 A AB A CD A FF N P S W38 N P S W48 A 00 A P", seen());
}

TEST_F(Wave, AcknowledgePollingIsInIt)
{
    on->write(0xA0, {0x10, 0xAB});
    on->probe(0xA0);
    on->idleMs(4);
    on->probe(0xA0);
    EXPECT_EQ("S W50 A 10 A AB A P S W50 N P S W50 A P", seen());
    EXPECT_NE(eeprom(0x50).find("No reply from slave!"), std::string::npos);
}

TEST_F(Wave, EepromDecoderReadsPagesAndOffsets)
{
    on->store(0xA0, Bytes{0x08} + counting(8, 0x30));
    on->store(0xA0, {0x20, 0x77});
    on->readAt(0xA0, {0x08}, 4);
    on->readAt(0xA0, {0x20}, 1);
    on->read(0xA0, 1);
    const std::string decoded = eeprom(0x50);
    for (const char* line :
         {"Page write (addr=08, 8 bytes): 30 31 32 33 34 35 36 37", "Byte write (addr=20, 1 byte): 77",
          "Sequential random read (addr=08, 4 bytes): 30 31 32 33", "Random access read (addr=20, 1 byte): 77",
          "Current address read: FF"}) {
        EXPECT_NE(decoded.find(line), std::string::npos) << line << " is not in\n" << decoded;
    }
    // warnings
    EXPECT_EQ(decoded.find("!"), std::string::npos) << decoded;
}

TEST_F(Wave, EepromDecoderWarnsOfAPageTooLong)
{
    on->store(0xA0, Bytes{0x00} + counting(9));
    EXPECT_NE(eeprom(0x50).find("Wrote 9 bytes but page size is only 8 bytes!"), std::string::npos);
}

TEST_F(Wave, SensorDecoderReadsTheTemperature)
{
    on->read(0x90, 2);
    EXPECT_NE(decode(",i2cfilter:address=72,lm75 -A lm75=celsius").find("Temperature: 25.5"), std::string::npos);
}

TEST_F(Wave, HubTrafficIsThatOfTheMainBus)
{
    on->store(0x80, {2, 0xA4, 0x10, 0x5A});
    on->readAt(0x80, {2, 0xA4, 0x10}, 2);
    EXPECT_EQ("S W40 A 02 A A4 A 10 A 5A A P S W40 A 02 A A4 A 10 A Sr R40 A 00 A 5A N P", seen());
}

// One file for the transactions of all processes and machine objects.
TEST_F(Wave, IsAppendedByEveryProcess)
{
    on->probe(0xA0);
    const pid_t other = fork();
    if (other == 0) {
        _exit(on->probe(0xA2) == outcome::done ? 0 : 1);
    }
    int status = -1;
    waitpid(other, &status, 0);
    EXPECT_EQ(0, status);
    on->probe(0x90);
    EXPECT_EQ("S W50 A P S W51 A P S W48 A P", seen());
}

TEST_F(Wave, FailedTransactionsLeaveTheRestReadable)
{
    machine->addFault({.kind = "nack-data", .count = 1, .byte = 1});
    on->write(0xA0, {0x10, 0x20});
    EXPECT_EQ("S W50 A 10 A 20 N P", seen());
    for (const char* kind : {"nack", "arbitration", "short"}) {
        machine->addFault({.kind = kind, .count = 1});
        on->write(0xA2, {0x10, 0x20});
    }
    on->readAt(0xA0, {0x10}, 1);
    const std::string tail = "S W50 A 10 A Sr R50 A FF N P";
    const std::string all = seen();
    ASSERT_GE(all.size(), tail.size());
    EXPECT_EQ(all.substr(all.size() - tail.size()), tail) << all;
}

TEST_F(Wave, HeldLinesAndTheirRecovery)
{
    for (const char* kind : {"hold-sda", "hold-scl"}) {
        for (const std::uint64_t byte : {0U, 1U}) {
            machine->addFault({.kind = kind, .count = 1, .byte = byte});
            EXPECT_NE(outcome::done, on->write(0xA0, {0x10, 0x20}).end);
            EXPECT_EQ(outcome::done, on->planar->reset());
        }
    }
    on->probe(0xA0);
    on->probe(0xA0);
    const std::string tail = "S W50 A P";
    const std::string all = seen();
    ASSERT_GE(all.size(), tail.size());
    EXPECT_EQ(all.substr(all.size() - tail.size()), tail) << all;
}

// The START after it is a falling edge again, and none of the bits before it are taken for data.
TEST_F(Wave, LineThatIsFreedBetweenTransactionsRises)
{
    struct Row {
        const char* kind;
        std::uint64_t byte;
        const char* decoded;
    };
    for (const Row& hold : {Row{"hold-scl", 0, "S W50 A 33 A P"}, Row{"hold-scl", 1, "S W50 A 10 A Sr W50 A 33 A P"},
                            Row{"hold-sda", 1, "S W50 A 10 A P S W50 A 33 A P"}}) {
        for (const bool cycled : {false, true}) {
            SCOPED_TRACE(std::string{hold.kind} + (cycled ? ", power cycle" : ", fault cleared"));
            EXPECT_TRUE(machine->startWave("planar", file()));
            machine->addFault({.kind = hold.kind, .count = 1, .byte = hold.byte});
            EXPECT_NE(on->write(0xA0, {0x10, 0x20}).end, outcome::done);
            if (cycled) {
                machine->powerCycle();
            }
            machine->clearFaults();
            EXPECT_EQ(outcome::done, on->write(0xA0, {0x33}).end);
            EXPECT_EQ(seen(), hold.decoded);
        }
    }
}

TEST_F(Wave, SdaHeldBeforeAStartFallsAndRisesAndFallsForTheNext)
{
    machine->addFault({.kind = "hold-sda", .count = 1});
    EXPECT_EQ(outcome::sdaHeld, on->probe(0xA0));
    machine->clearFaults();
    on->probe(0xA0);
    const std::string text = home.text("planar.vcd");
    // held 1.5 us after the begin of a START and let go at the end of it; the next START falls 1.5 us later
    EXPECT_NE(text.find("\n#15\n0\"\n#25\n1\"\n#40\n0\"\n#50\n0!\n"), std::string::npos) << text;
}

TEST_F(Wave, LineIsFreedAtTheTimeOfIt)
{
    machine->addFault({.kind = "hold-scl"});
    on->planar->idle(1'000'000);
    // the controller waits for 25 ms
    EXPECT_EQ(outcome::sclHeld, on->probe(0xA0));
    on->planar->idle(1'000'000);
    machine->clearFaults();
    on->planar->idle(1'000'000);
    on->probe(0xA0);
    const std::string text = home.text("planar.vcd");
    EXPECT_NE(text.find("\n#10010\n0!\n#270000\n1!\n#280015\n0\"\n"), std::string::npos) << text;
}

TEST_F(Wave, HeldSclHasNoPulsesAndRisesAtTheTimeOfItsEnd)
{
    machine->addFault({.kind = "hold-scl", .nth = 2, .count = 4, .byte = 1});
    on->probe(0xA0);
    EXPECT_EQ(outcome::sclHeld, on->write(0xA0, {0x10, 0x20}).end);
    EXPECT_EQ(outcome::sclHeld, on->planar->reset());
    EXPECT_EQ(outcome::sclHeld, on->planar->clocks(9));
    EXPECT_EQ(outcome::sclHeld, on->probe(0x90));
    on->planar->idle(1'000'000);
    on->probe(0x90);
    // 11 bits of the probe, 19 of START, address and byte: held from 75 us on, for four attempts of 25 ms
    const std::string text = home.text("planar.vcd");
    EXPECT_NE(text.find("\n#750\n0!\n#757\n1\"\n#1000750\n1!\n#1010765\n0\"\n"), std::string::npos) << text;
}

TEST_F(Wave, HeldSclRisesWhenItsTimeIsOverAlsoBetweenTransactions)
{
    machine->addFault({.kind = "hold-scl", .lastsMs = 30});
    EXPECT_EQ(outcome::sclHeld, on->probe(0xA0));
    on->planar->idle(25'000'000);
    machine->clearFaults();
    on->probe(0xA0);
    const std::string text = home.text("planar.vcd");
    EXPECT_NE(text.find("\n#10\n0!\n#300000\n1!\n#500015\n0\"\n"), std::string::npos) << text;
}

TEST_F(Wave, HeldSclRisesWhenAnEventCutsThePower)
{
    machine->addFault({.kind = "hold-scl"});
    EXPECT_EQ(outcome::sclHeld, on->probe(0xA0));
    // the controller gave up after 25 ms
    machine->play("[[event]]\nat_ms = 5\ndo = \"power-cut\"\n", "s.toml");
    on->planar->idle(10'000'000);
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    const std::string text = home.text("planar.vcd");
    EXPECT_NE(text.find("\n#10\n0!\n#300000\n1!\n#350015\n0\"\n"), std::string::npos) << text;
}

// The chip drives the first byte of its memory, a 0. 39 bits and the high part of a repeated START have gone by, then each
// attempt takes 25 ms.
TEST_F(Wave, SdaStaysAsTheChipOfACutReadDrivesItWhileSclIsHeld)
{
    on->store(0xA0, {0, 0, 0});
    ASSERT_TRUE(machine->startWave("planar", file()));
    const auto hold = machine->addFault({.kind = "hold-scl", .way = "read", .byte = 1});
    EXPECT_EQ(outcome::sclHeld, on->readAt(0xA0, {0}, 3).end);
    machine->play("[[event]]\nat_ms = 60000\ndo = \"power-cut\"\n", "s.toml");
    EXPECT_EQ(outcome::sclHeld, on->probe(0xA0));
    EXPECT_TRUE(machine->clearFault(machine->addFault({.kind = "nack"})));
    EXPECT_TRUE(home.text("planar.vcd").ends_with("\n#960\n0!\n#500961\n")) << home.text("planar.vcd");
    EXPECT_TRUE(machine->clearFault(hold));
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::done, on->planar->reset());
    // the byte's bits are over at the eighth clock
    const std::string text = home.text("planar.vcd");
    EXPECT_NE(text.find("\n#500960\n1!\n#500970\n0!\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n#501145\n0!\n#501152\n1\"\n"), std::string::npos) << text;
}

TEST_F(Wave, ARecordingBeginsWithBothLinesAsTheyAreHeld)
{
    on->store(0xA0, {0, 0, 0});
    machine->addFault({.kind = "hold-scl", .way = "read", .byte = 1});
    EXPECT_EQ(outcome::sclHeld, on->readAt(0xA0, {0}, 3).end);
    ASSERT_TRUE(machine->startWave("planar", file()));
    EXPECT_TRUE(home.text("planar.vcd").ends_with("\n#0\n0!\n0\"\n")) << home.text("planar.vcd");
}

// It holds SCL from the begin of a START on, for 25 ms of the controller's patience and 5 ms more.
TEST_F(Wave, HeldSclRisesWhenTheHubThatHoldsItLeaves)
{
    machine->addFault({.kind = "hold-scl", .address = 0x80});
    EXPECT_EQ(outcome::sclHeld, on->probe(0x80));
    machine->play("[[event]]\nat_ms = 5\nbus = \"planar\"\ndo = \"remove\"\naddress = 0x80\n", "s.toml");
    on->planar->idle(10'000'000);
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    const std::string text = home.text("planar.vcd");
    EXPECT_NE(text.find("\n#10\n0!\n#300000\n1!\n#350015\n0\"\n"), std::string::npos) << text;
}

TEST_F(Wave, ChipThatHeldSdaLetsGoInThePowerCycle)
{
    on->store(0xA0, {0x00, 0x00, 0x00});
    machine->addFault({.kind = "short", .way = "read", .count = 1, .byte = 1});
    on->readAt(0xA0, {0}, 3);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    machine->powerCycle();
    on->probe(0x90);
    const std::string all = seen();
    EXPECT_TRUE(all.ends_with("S W48 A P")) << all;
}

TEST_F(Wave, StopsAndStartsAnew)
{
    on->probe(0xA0);
    EXPECT_TRUE(machine->stopWave("planar"));
    on->probe(0x90);
    EXPECT_EQ("S W50 A P", seen());
    EXPECT_TRUE(machine->startWave("planar", file()));
    on->probe(0xA2);
    EXPECT_EQ("S W51 A P", seen());
}

TEST_F(Wave, TextAKilledProcessLeftIsOverwritten)
{
    on->probe(0xA0);
    {
        std::ofstream{file(), std::ios::app} << "#99\n1!\n#1000";
    }
    on->probe(0xA2);
    on->probe(0x90);
    EXPECT_EQ("S W50 A P S W51 A P S W48 A P", seen());
}

TEST_F(Wave, LostFileEndsTheRecordingAlone)
{
    std::filesystem::remove(file());
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_EQ(outcome::done, on->probe(0xA0));
}

TEST_F(Wave, LevelsNeverChangeInTheSameTickAndTimeOnlyGrows)
{
    for (const unsigned speed : {1U, 7U, 100U, 333U, 400U, 1000U}) {
        Bytes offset{0x10}, data(3);
        segment parts[2] = {{0xA0, direction::write, offset, false}, {0xA0, direction::read, data, false}};
        on->planar->transfer(parts, speed);
    }
    on->planar->reset();
    std::istringstream lines{home.text("planar.vcd")};
    std::string line;
    long tick = -1, previous = -1;
    int changes = 0;
    std::map<char, char> levels;
    while (std::getline(lines, line)) {
        if (line[0] == '#') {
            previous = tick;
            tick = std::stol(line.substr(1));
            changes = 0;
            EXPECT_GT(tick, previous);
        } else if (line[0] == '0' || line[0] == '1') {
            ++changes;
            EXPECT_TRUE(tick == 0 || changes == 1) << "tick " << tick;
            EXPECT_NE(levels[line[1]], line[0]) << "tick " << tick;
            levels[line[1]] = line[0];
        }
    }
    EXPECT_EQ(levels['!'], '1');
    EXPECT_EQ(levels['"'], '1');
}

TEST_F(Wave, TicksAreBusTime)
{
    on->planar->idle(1'000'000);
    // START: SDA falls three fifths of a bit, 1.5 us, after 1 ms
    on->probe(0xA0);
    EXPECT_NE(home.text("planar.vcd").find("\n#10015\n0\"\n"), std::string::npos) << home.text("planar.vcd");
}

TEST_F(Wave, WhatCannotBeIsToldAndTheRecordingGoesOn)
{
    on->probe(0xA0);
    errno = 0;
    EXPECT_FALSE(machine->startWave("other", file()));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_FALSE(machine->startWave("planar", home.path / "no" / "where.vcd"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(machine->startWave("planar", ""));
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_FALSE(machine->stopWave("other"));
    EXPECT_EQ(ENODEV, errno);
    on->probe(0x90);
    EXPECT_EQ("S W50 A P S W48 A P", seen());
    EXPECT_TRUE(machine->stopWave("planar"));
    EXPECT_FALSE(machine->stopWave("planar"));
    EXPECT_EQ(ENOENT, errno);
}

// 100 bytes: not enough for the begin of a recording.
TEST_F(Wave, OneThatFindsNoSpaceLeavesTheOldOneAndTheRunningOne)
{
    home.put("old.vcd", "$date of another program $end\n");
    on->probe(0xA0);
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    const rlimit limit{100, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    errno = 0;
    const bool started = machine->startWave("planar", home.path / "old.vcd");
    const int error = errno;
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
    EXPECT_FALSE(started);
    EXPECT_EQ(EFBIG, error);
    EXPECT_EQ("$date of another program $end\n", home.text("old.vcd"));
    on->probe(0x90);
    EXPECT_EQ("S W50 A P S W48 A P", seen());
}

// The cut power tears a page that its image does not take: it is beyond the 16 KiB.
TEST_F(BusTime, ARecordingThatABusCannotBeginIsNone)
{
    power(chip("24C512", "0xA0", "image = \"large.bin\""));
    ASSERT_TRUE(machine->startWave("planar", home.path / "first.vcd"));
    machine->play("[[event]]\nat_ms = 1\ndo = \"power-cut\"\n", "s");
    // takes 3 ms
    on->write(0xA0, Bytes{0x80, 0x00} + counting(128));
    const std::string before = home.text("first.vcd");
    rlimit usual{};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &usual));
    const rlimit limit{16384, usual.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    errno = 0;
    const bool started = machine->startWave("planar", home.path / "second.vcd");
    const int error = errno;
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &usual));
    EXPECT_FALSE(started);
    EXPECT_EQ(ENODEV, error);
    EXPECT_FALSE(std::filesystem::exists(home.path / "second.vcd"));
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_LT(before.size(), home.text("first.vcd").size());
    EXPECT_TRUE(machine->startWave("planar", home.path / "second.vcd"));
}

TEST_F(Wave, NothingButAWaveformIsOverwritten)
{
    home.put("note", "dear diary");
    home.put("other", "$date of another program $end\n");
    home.put("empty", "");
    // an image stays one whatever is in it
    home.put("a.bin", "$date" + std::string(251, '\xFF'));
    std::filesystem::create_directory(home.path / "folder");
    ASSERT_EQ(0, mkfifo((home.path / "pipe").c_str(), 0600));
    std::filesystem::create_symlink("other", home.path / "link");
    for (const char* name : {"note", "a.bin", "b.bin", "machine.toml", "machine.state", "link"}) {
        SCOPED_TRACE(name);
        const std::string before = home.text(name);
        errno = 0;
        EXPECT_FALSE(machine->startWave("planar", home.path / name));
        EXPECT_EQ(EEXIST, errno);
        EXPECT_EQ(home.text(name), before);
    }
    for (const char* name : {"folder", "pipe"}) {
        errno = 0;
        EXPECT_FALSE(machine->startWave("planar", home.path / name));
        EXPECT_EQ(EEXIST, errno) << name;
    }
    on->probe(0xA0);
    // went on
    EXPECT_EQ("S W50 A P", seen());
    for (const char* name : {"other", "empty", "planar.vcd"}) {
        EXPECT_TRUE(machine->startWave("planar", home.path / name)) << name;
        EXPECT_TRUE(home.text(name).starts_with("$comment IIC bus planar $end\n"));
    }
}

TEST_F(Wave, PathHasUpTo1900Bytes)
{
    std::string folder = std::filesystem::canonical(home.path).string();
    while (folder.size() + 50 <= 1700) {
        folder += "/" + std::string(49, 'f');
    }
    std::filesystem::create_directories(folder);
    const auto ofLength = [&folder](std::size_t length) {
        return folder + "/" + std::string(length - folder.size() - 1, 'w');
    };
    EXPECT_FALSE(machine->startWave("planar", ofLength(1901)));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_FALSE(std::filesystem::exists(ofLength(1901)));
    EXPECT_TRUE(machine->startWave("planar", ofLength(1900)));
    on->probe(0xA0);
    EXPECT_TRUE(machine->stopWave("planar"));
    std::ifstream in{ofLength(1900)};
    const std::string text{std::istreambuf_iterator<char>{in}, {}};
    // 11 bits of 2.5 us
    EXPECT_TRUE(text.ends_with("\n#275\n1\"\n#276\n")) << text;
}

} // namespace
} // namespace kest::sim::test
