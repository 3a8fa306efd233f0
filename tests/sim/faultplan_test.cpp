#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

class Fault : public MachineTest
{
protected:
    void SetUp() override
    {
        power(chip("24C02", "0xA0", "image = \"a.bin\"") + chip("24C02", "0xA4", "image = \"b.bin\"") +
              chip("PCA9552", "0xC0"));
    }
    /// Outcomes of `count` probes.
    std::vector<outcome> probes(int count, std::uint8_t address = 0xA0)
    {
        std::vector<outcome> ends;
        for (int i = 0; i < count; ++i) {
            ends.push_back(on->probe(address));
        }
        return ends;
    }
    std::uint64_t struck() { return machine->faults().at(0).struck; }

    static constexpr auto done = outcome::done, nack = outcome::addressNotAcknowledged;
};

TEST_F(Fault, NackRefusesTheAddress)
{
    fault({.kind = "nack"});
    EXPECT_EQ(probes(3), (std::vector{nack, nack, nack}));
    EXPECT_EQ(3U, struck());
}

TEST_F(Fault, StrikesFromTheNthOnAsOftenAsAsked)
{
    fault({.kind = "nack", .nth = 3, .count = 2});
    EXPECT_EQ(probes(6), (std::vector{done, done, nack, nack, done, done}));
    EXPECT_EQ(2U, struck());
}

TEST_F(Fault, MatchesByAddress)
{
    fault({.kind = "nack", .address = 0xA4});
    EXPECT_EQ(on->probe(0xA0), done);
    EXPECT_EQ(on->probe(0xA4), nack);
}

TEST_F(Fault, MatchesByDirection)
{
    fault({.kind = "nack", .way = "read"});
    EXPECT_EQ(on->write(0xA0, {0}).end, done);
    EXPECT_EQ(on->read(0xA0, 1).end, nack);
    const Answer got = on->readAt(0xA0, {0}, 1);
    EXPECT_EQ(got.end, nack);
    EXPECT_EQ(1U, got.segment);
}

TEST_F(Fault, CountsOnlyMatchingTransactions)
{
    fault({.kind = "nack", .address = 0xA4, .nth = 2, .count = 1});
    probes(5, 0xA0);
    EXPECT_EQ(probes(3, 0xA4), (std::vector{done, nack, done}));
}

TEST_F(Fault, RefusedDataByteTellsWhich)
{
    fault({.kind = "nack-data", .byte = 2});
    const Answer got = on->write(0xA0, {0, 1, 2, 3});
    EXPECT_EQ(outcome::dataNotAcknowledged, got.end);
    EXPECT_EQ(0U, got.segment);
    EXPECT_EQ(2U, got.bytesMoved);
    // what was not acknowledged as a whole is not written
    EXPECT_EQ(home.content("a.bin"), Bytes(256, 0xFF));
}

TEST_F(Fault, HeldLineStaysUntilAReset)
{
    constexpr auto held = outcome::sdaHeld;
    fault({.kind = "hold-sda", .count = 1});
    EXPECT_EQ(on->planar->lines(), done);
    EXPECT_EQ(probes(2), (std::vector{held, held}));
    // nobody else gets through
    EXPECT_EQ(on->write(0xA4, {0, 1}).end, held);
    EXPECT_EQ(on->planar->lines(), held);
    EXPECT_EQ(on->planar->clocks(9), held);
    EXPECT_EQ(on->planar->reset(), done);
    EXPECT_EQ(on->planar->lines(), done);
    EXPECT_EQ(on->probe(0xA0), done);
}

TEST_F(Fault, HeldSclMeetsAsManyAttemptsAsItsCountSays)
{
    constexpr auto held = outcome::sclHeld;
    fault({.kind = "hold-scl", .address = 0xA0, .count = 5});
    EXPECT_EQ(done, on->probe(0xA4));
    EXPECT_EQ(held, on->probe(0xA0));
    // whatever is tried, at any address
    EXPECT_EQ(held, on->write(0xA4, {0, 1}).end);
    EXPECT_EQ(held, on->planar->clocks(9));
    EXPECT_EQ(held, on->planar->reset());
    // a look is no attempt
    EXPECT_EQ(held, on->planar->lines());
    EXPECT_EQ(4U, struck());
    EXPECT_EQ(held, on->planar->reset());
    EXPECT_EQ(done, on->planar->lines());
    EXPECT_EQ((std::vector{done, done}), probes(2));
    EXPECT_EQ(5U, struck());
}

TEST_F(Fault, HeldSclIsNeverFreedByAResetOfTheBus)
{
    const auto number = fault({.kind = "hold-scl", .value = 1, .untilReset = true});
    EXPECT_EQ(outcome::sclHeld, on->probe(0xA0));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(outcome::sclHeld, on->planar->reset());
        EXPECT_EQ(outcome::sclHeld, on->planar->clocks(9));
    }
    EXPECT_TRUE(machine->clearFault(number));
    EXPECT_EQ(done, on->probe(0xA0));
}

TEST_F(Fault, HeldSclTakesNoValue)
{
    fault({.kind = "hold-scl", .count = 2, .value = 100});
    EXPECT_EQ((std::vector{outcome::sclHeld, outcome::sclHeld, done}), probes(3));
}

TEST_F(Fault, HeldSclEndsWithItsTime)
{
    fault({.kind = "hold-scl", .nth = 2, .lastsMs = 80});
    EXPECT_EQ((std::vector{done, outcome::sclHeld}), probes(2));
    // the controller gave up after 25 ms
    on->planar->idle(54'900'000);
    EXPECT_EQ(outcome::sclHeld, on->planar->lines());
    on->planar->idle(100'000);
    EXPECT_EQ(done, on->planar->lines());
    EXPECT_EQ(done, on->planar->reset());
    machine->clearFaults();
    EXPECT_EQ(done, on->probe(0xA0));
}

TEST_F(Fault, AttemptsAloneLastUntilTheTimeOfAHeldSclIsOver)
{
    fault({.kind = "hold-scl", .nth = 2, .lastsMs = 80});
    constexpr auto held = outcome::sclHeld;
    // four of 25 ms each; the next one meets it anew
    EXPECT_EQ((std::vector{done, held, held, held, held, held}), probes(6));
    EXPECT_EQ(held, on->planar->lines());
}

TEST_F(Fault, AnAttemptWaitsForSclAsLongAsTheAdapterDoes)
{
    power("adapter = { stretch_limit_us = 3000 }\n" + chip("24C02", "0xA0", "image = \"a.bin\""));
    fault({.kind = "hold-scl"});
    on->probe(0xA0);
    EXPECT_EQ(3'000'000U, on->planar->busTimeNs());
    on->planar->reset();
    EXPECT_EQ(6'000'000U, on->planar->busTimeNs());
}

TEST_F(Fault, PowerCycleEndsAHeldSclForGood)
{
    fault({.kind = "hold-scl"});
    on->probe(0xA0);
    machine->powerCycle();
    EXPECT_EQ((std::vector{done, done}), probes(2));
}

TEST_F(Fault, OnlyAHeldSclHasATimeOfItsOwn)
{
    EXPECT_THROW(fault({.kind = "hold-sda", .lastsMs = 1}), std::invalid_argument);
    EXPECT_THROW(fault({.kind = "hold-scl", .lastsMs = 3'600'001}), std::invalid_argument);
    fault({.kind = "hold-scl", .lastsMs = 3'600'000});
    EXPECT_EQ(3'600'000U, machine->faults().at(0).what.lastsMs);
}

TEST_F(Fault, HeldInTheMiddleOfAPageWritesNothing)
{
    fault({.kind = "hold-scl", .count = 1, .byte = 3});
    const Answer got = on->write(0xA0, {0, 1, 2, 3});
    EXPECT_EQ(outcome::sclHeld, got.end);
    EXPECT_EQ(3U, got.bytesMoved);
    on->planar->reset();
    EXPECT_EQ(home.content("a.bin"), Bytes(256, 0xFF));
}

TEST_F(Fault, HoldCanOutlastResets)
{
    fault({.kind = "hold-sda", .count = 1, .value = 2});
    on->probe(0xA0);
    EXPECT_EQ(outcome::sdaHeld, on->planar->reset());
    EXPECT_EQ(outcome::sdaHeld, on->planar->reset());
    EXPECT_EQ(on->planar->reset(), done);
}

TEST_F(Fault, ClearingAFaultFreesWhatItHolds)
{
    const auto number = fault({.kind = "hold-sda", .count = 1});
    on->probe(0xA0);
    EXPECT_TRUE(machine->clearFault(number));
    EXPECT_EQ(on->planar->lines(), done);
    EXPECT_FALSE(machine->clearFault(number));
}

TEST_F(Fault, PowerCycleFreesTheLines)
{
    fault({.kind = "hold-sda", .count = 1});
    on->probe(0xA0);
    machine->powerCycle();
    EXPECT_EQ(on->probe(0xA0), done);
}

TEST_F(Fault, UntilResetEndsForGood)
{
    fault({.kind = "nack", .untilReset = true});
    EXPECT_EQ(probes(2), (std::vector{nack, nack}));
    EXPECT_EQ(on->planar->reset(), done);
    EXPECT_EQ(probes(2), (std::vector{done, done}));
}

TEST_F(Fault, ShortReadTellsWhatCame)
{
    on->store(0xA0, {0, 1, 2, 3, 4});
    fault({.kind = "short", .way = "read", .count = 1, .byte = 2});
    const Answer got = on->readAt(0xA0, {0}, 4);
    EXPECT_EQ(outcome::shortTransfer, got.end);
    EXPECT_EQ(1U, got.segment);
    EXPECT_EQ(2U, got.bytesMoved);
    EXPECT_EQ(got.data, (Bytes{1, 2, 0, 0}));
    // the fifth bit of the byte 3 is 0
    EXPECT_EQ(on->planar->lines(), outcome::sdaHeld);
    EXPECT_EQ(on->planar->reset(), done);
}

// Before byte 1 of the read: the chip drives the first bit of 0x7F.
TEST_F(Fault, HeldInTheMiddleOfAReadLeavesTheChipDriving)
{
    on->store(0xA0, {0, 0xFF, 0x7F});
    for (const char* kind : {"hold-sda", "hold-scl"}) {
        SCOPED_TRACE(kind);
        fault({.kind = kind, .way = "read", .byte = 1});
        const Answer got = on->readAt(0xA0, {0}, 3);
        EXPECT_EQ(1U, got.bytesMoved);
        EXPECT_EQ((Bytes{0xFF, 0, 0}), got.data);
        machine->clearFaults();
        EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
        EXPECT_EQ(outcome::done, on->planar->clocks(1));
        EXPECT_EQ(outcome::done, on->planar->reset());
        // it was not read
        EXPECT_EQ(Bytes{0x7F}, on->read(0xA0, 1).data);
    }
}

// The byte's first bit is 1, and a START ends it.
TEST_F(Fault, HeldInTheMiddleOfAReadBeforeA1LeavesTheBusFree)
{
    on->store(0xA0, {0, 0xFF, 0x80});
    fault({.kind = "hold-scl", .way = "read", .count = 1, .byte = 1});
    EXPECT_EQ(outcome::sclHeld, on->readAt(0xA0, {0}, 3).end);
    EXPECT_EQ(outcome::done, on->planar->lines());
    EXPECT_EQ(Bytes{0x80}, on->read(0xA0, 1).data);
}

TEST_F(Fault, ArbitrationLostInAReadIsTheWinnersByte)
{
    on->store(0xA0, {0, 0x01, 0x02, 0x03});
    fault({.kind = "arbitration", .way = "read", .count = 1, .byte = 1});
    const Answer got = on->readAt(0xA0, {0}, 3);
    EXPECT_EQ(outcome::arbitrationLost, got.end);
    EXPECT_EQ((Bytes{0x01, 0, 0}), got.data);
    // the winner's NACK and STOP are behind it
    EXPECT_EQ(outcome::done, on->planar->lines());
    EXPECT_EQ(Bytes{0x03}, on->read(0xA0, 1).data);
}

// The chip sends what nobody wants.
TEST_F(Fault, AReadWithoutBytesLeavesTheChipDriving)
{
    on->store(0xA0, {0, 0x7F, 0x80});
    on->write(0xA0, {0});
    EXPECT_EQ(outcome::done, on->read(0xA0, 0).end);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::sdaHeld, on->probe(0xA4));
    EXPECT_EQ(outcome::done, on->planar->reset());
    EXPECT_EQ((Bytes{0x7F}), on->read(0xA0, 1).data);
    // a 1 holds nothing
    EXPECT_EQ(outcome::done, on->read(0xA0, 0).end);
    EXPECT_EQ(outcome::done, on->planar->lines());
    // nor is there a repeated START behind a 0
    on->write(0xA0, {0});
    Bytes offset{0};
    segment parts[2] = {{0xA0, direction::read, {}, false}, {0xA0, direction::write, offset, false}};
    const Answer got = on->run(parts, {});
    EXPECT_EQ(outcome::sdaHeld, got.end);
    EXPECT_EQ(1U, got.segment);
}

TEST_F(Fault, FaultAtAByteThatNeverComesWaits)
{
    fault({.kind = "short", .count = 1, .byte = 3});
    EXPECT_EQ(on->readAt(0xA0, {0}, 3).end, done);
    EXPECT_EQ(outcome::shortTransfer, on->readAt(0xA0, {0}, 4).end);
}

TEST_F(Fault, ArbitrationIsLostAtTheAddressOrAByte)
{
    fault({.kind = "arbitration", .count = 1});
    EXPECT_EQ(outcome::arbitrationLost, on->write(0xA0, {0, 1}).end);
    fault({.kind = "arbitration", .count = 1, .byte = 1});
    const Answer got = on->write(0xA0, {0, 1});
    EXPECT_EQ(outcome::arbitrationLost, got.end);
    EXPECT_EQ(1U, got.bytesMoved);
    EXPECT_EQ(on->probe(0xA0), done);
    EXPECT_EQ(home.content("a.bin"), Bytes(256, 0xFF));
}

TEST_F(Fault, CorruptChangesAByteOnItsWay)
{
    on->store(0xA0, {0, 0x11, 0x22});
    fault({.kind = "corrupt", .way = "read", .count = 1, .value = 0x0F, .byte = 1});
    EXPECT_EQ(on->readAt(0xA0, {0}, 2).data, (Bytes{0x11, 0x2D}));
    EXPECT_EQ(on->readAt(0xA0, {0}, 2).data, (Bytes{0x11, 0x22}));
    fault({.kind = "corrupt", .way = "write", .count = 1, .byte = 1});
    on->store(0xA0, {0, 0x11});
    EXPECT_EQ(0xEE, home.content("a.bin")[0]);
}

TEST_F(Fault, StuckWriteCycleLosesThePageAndStaysSilent)
{
    const auto number = fault({.kind = "stuck-write-cycle", .nth = 2, .count = 1});
    EXPECT_EQ(on->store(0xA0, {0, 1}), done);
    EXPECT_EQ(on->probe(0xA0), done);
    EXPECT_EQ(on->store(0xA0, {8, 2}), done);
    on->idleMs(100'000);
    EXPECT_EQ(on->probe(0xA0), nack);
    EXPECT_EQ(on->probe(0xA4), done);
    EXPECT_EQ(1, home.content("a.bin")[0]);
    EXPECT_EQ(0xFF, home.content("a.bin")[8]);
    EXPECT_TRUE(machine->clearFault(number));
    EXPECT_EQ(on->probe(0xA0), done);
}

TEST_F(Fault, StuckWriteCycleMayEndLate)
{
    fault({.kind = "stuck-write-cycle", .count = 1, .value = 200});
    on->write(0xA0, {0, 1});
    on->idleMs(199);
    EXPECT_EQ(on->probe(0xA0), nack);
    on->idleMs(2);
    EXPECT_EQ(on->readAt(0xA0, {0}, 1).data, Bytes{1});
}

TEST_F(Fault, StuckWriteCycleEndsWithAPowerCycle)
{
    fault({.kind = "stuck-write-cycle", .count = 1});
    on->write(0xA0, {0, 1});
    machine->powerCycle();
    EXPECT_EQ(on->probe(0xA0), done);
}

TEST_F(Fault, StuckWriteCycleIsForgottenAfterAPowerCycle)
{
    const auto number = fault({.kind = "stuck-write-cycle", .count = 1});
    on->write(0xA0, {0, 1});
    EXPECT_EQ("write cycle that does not end", meaning("planar 0xA0 24C02", "busy"));
    machine->powerCycle();
    EXPECT_EQ("ready", meaning("planar 0xA0 24C02", "busy"));
    on->write(0xA0, {0, 2});
    EXPECT_EQ("write cycle", meaning("planar 0xA0 24C02", "busy"));
    // must not end the cycle of another write
    EXPECT_TRUE(machine->clearFault(number));
    EXPECT_EQ(on->probe(0xA0), nack);
    on->idleMs(4);
    EXPECT_EQ(on->readAt(0xA0, {0}, 1).data, Bytes{2});
}

TEST_F(Fault, GoneAdapterIsGoneForEverything)
{
    const auto number = fault({.kind = "gone", .nth = 2});
    EXPECT_EQ(probes(3), (std::vector{done, outcome::gone, outcome::gone}));
    EXPECT_EQ(outcome::gone, on->planar->lines());
    EXPECT_EQ(outcome::gone, on->planar->reset());
    machine->clearFault(number);
    EXPECT_EQ(on->probe(0xA0), done);
}

TEST_F(Fault, GoneAdapterMayGoOnWithTimeOuts)
{
    const auto number = fault({.kind = "gone", .nth = 2, .value = 1});
    EXPECT_EQ(probes(3), (std::vector{done, outcome::timedOut, outcome::timedOut}));
    const Answer read = on->readAt(0xA0, {0}, 3);
    EXPECT_EQ(outcome::timedOut, read.end);
    EXPECT_EQ(0U, read.segment);
    EXPECT_EQ(Bytes(3, 0), read.data);
    EXPECT_EQ(outcome::timedOut, on->planar->lines());
    EXPECT_EQ(outcome::timedOut, on->planar->clocks(1));
    EXPECT_EQ(outcome::timedOut, on->planar->reset());
    // 11 bits, and 25 ms for each of the three that took too long
    EXPECT_EQ(75'027'500U, on->planar->busTimeNs());
    machine->clearFault(number);
    EXPECT_EQ(done, on->probe(0xA0));
    EXPECT_THROW(fault({.kind = "gone", .value = 2}), std::invalid_argument);
}

TEST_F(Fault, AdaptersTakeTheirOwnTimeToTimeOut)
{
    struct {
        const char* adapter;
        std::uint64_t tookNs;
    } const rows[] = {{"{ timeout_ms = 1000 }", 1'000'000'000},
                      {"{ stretch_limit_us = 300 }", 300'000},
                      {"{ timeout_ms = 2, stretch_limit_us = 300 }", 2'000'000}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.adapter);
        power(std::string{"adapter = "} + row.adapter + "\n" + chip("24C02", "0xA0", "image = \"a.bin\""));
        const std::uint64_t before = on->planar->busTimeNs();
        const auto number = fault({.kind = "gone", .value = 1});
        EXPECT_EQ(outcome::timedOut, on->probe(0xA0));
        EXPECT_EQ(row.tookNs, on->planar->busTimeNs() - before);
        machine->clearFault(number);
    }
}

// 19 bits of the offset's message have gone by when the second message begins.
TEST_F(Fault, ATimeOutIsThatOfAllMessages)
{
    power("adapter = { timeout_ms = 2, stop_between = true }\n" + chip("24C02", "0xA0", "image = \"a.bin\""));
    const auto number = fault({.kind = "gone", .way = "read", .value = 1});
    EXPECT_EQ(outcome::timedOut, on->readAt(0xA0, {0}, 1).end);
    EXPECT_EQ(2'000'000U, on->planar->busTimeNs());
    machine->clearFault(number);
}

TEST_F(Fault, SameSeedSameFaults)
{
    const auto run = [this](std::uint64_t seed) {
        machine->clearFaults();
        fault({.kind = "nack", .probability = 0.3, .seed = seed});
        return probes(200);
    };
    const auto first = run(7);
    EXPECT_EQ(run(7), first);
    EXPECT_NE(run(8), first);
    const auto struckTimes = std::count(first.begin(), first.end(), nack);
    EXPECT_GT(struckTimes, 35);
    EXPECT_LT(struckTimes, 85);
}

TEST_F(Fault, WithoutASeedOfItsOwnTheMachinesSeedTheBusAndTheFaultsNumberDecide)
{
    const auto pattern = [this](const std::string& seed, std::uint64_t own) {
        on.reset();
        machine.reset();
        std::filesystem::remove(home.path / "machine.state");
        home.put("machine.toml", seed + "[[bus]]\nname = \"planar\"\n" + chip("PCA9552", "0xC0"));
        open();
        fault({.kind = "nack", .probability = 0.5, .seed = own});
        std::string text;
        for (const outcome end : probes(24, 0xC0)) {
            text += end == nack ? 'x' : '.';
        }
        return text;
    };
    EXPECT_EQ(".xx.xxxx.xx.xxx..xx.xx..", pattern("", 0));
    EXPECT_EQ(".xx.xxxx.xx.xxx..xx.xx..", pattern("seed = 1\n", 0));
    EXPECT_EQ("..x.xx..x.x.xx.xx.x.x.x.", pattern("seed = 5\n", 0));
    EXPECT_EQ("x.xxxx..x.xx.x...xxxx.x.", pattern("seed = 9\n", 5));
}

TEST_F(Fault, OfEveryBusStrikesEachAtOtherTimesAndFollowsTheMachinesSeed)
{
    const auto begin = [this](const std::string& seed) {
        on.reset();
        machine.reset();
        home.put("machine.toml", seed + "[[bus]]\nname = \"planar\"\n[[bus]]\nname = \"second\"\n" +
                                     chip("PCA9552", "0xC0") +
                                     "[[chip]]\nbus = \"second\"\ntype = \"PCA9552\"\naddress = 0xC0\n");
        machine = openMachine(home.path, false);
    };
    const auto pattern = [this](const std::string& bus) {
        on = std::make_unique<User>(machine->findBus(bus, ""));
        std::string text;
        for (const outcome end : probes(12, 0xC0)) {
            text += end == nack ? 'x' : '.';
        }
        return text;
    };
    std::filesystem::remove(home.path / "machine.state");
    begin("");
    fault({.kind = "nack", .probability = 0.5});
    EXPECT_EQ(".xx.xxxx.xx.", pattern("planar"));
    EXPECT_EQ(".x..xx...xxx", pattern("second"));
    EXPECT_EQ(1U, machine->faults().at(0).what.seed);
    begin("seed = 5\n");
    EXPECT_EQ("xx.xx.x.x.x.", pattern("planar"));
    EXPECT_EQ("..x.x..xx...", pattern("second"));
    EXPECT_EQ(5U, machine->faults().at(0).what.seed);
}

TEST_F(Fault, ProbabilityEndsAreExact)
{
    fault({.kind = "nack", .probability = 0.0});
    EXPECT_EQ(probes(3), (std::vector{done, done, done}));
    fault({.kind = "nack", .probability = 1.0});
    EXPECT_EQ(probes(2), (std::vector{nack, nack}));
}

TEST_F(Fault, ListedAsGiven)
{
    const auto number = fault({.kind = "hub-status",
                               .bus = "planar",
                               .address = 0x80,
                               .way = "write",
                               .nth = 4,
                               .probability = 0.1,
                               .seed = 99,
                               .count = 3,
                               .value = 9,
                               .untilReset = true});
    const auto all = machine->faults();
    ASSERT_EQ(1U, all.size());
    EXPECT_EQ(all[0].number, number);
    EXPECT_EQ("hub-status", all[0].what.kind);
    EXPECT_EQ("planar", all[0].what.bus);
    EXPECT_EQ(0x80, all[0].what.address);
    EXPECT_EQ("write", all[0].what.way);
    EXPECT_EQ(4U, all[0].what.nth);
    EXPECT_EQ(all[0].what.probability, 0.1);
    EXPECT_EQ(99U, all[0].what.seed);
    EXPECT_EQ(3U, all[0].what.count);
    EXPECT_EQ(9U, all[0].what.value);
    EXPECT_TRUE(all[0].what.untilReset);
}

TEST_F(Fault, NumbersAreNeverUsedTwice)
{
    const auto first = fault({.kind = "nack"});
    machine->clearFaults();
    EXPECT_NE(fault({.kind = "nack"}), first);
    EXPECT_EQ(1U, machine->faults().size());
}

TEST_F(Fault, NonsenseIsRefused)
{
    EXPECT_THROW(fault({.kind = "no-such"}), std::invalid_argument);
    EXPECT_THROW(fault({.kind = "nack", .bus = "other"}), std::invalid_argument);
    EXPECT_THROW(fault({.kind = "nack", .address = 0xA1}), std::invalid_argument);
    EXPECT_THROW(fault({.kind = "nack", .way = "both"}), std::invalid_argument);
    EXPECT_THROW(fault({.kind = "nack", .probability = 1.5}), std::invalid_argument);
    EXPECT_THROW(fault({.kind = "hub-status", .value = 0}), std::invalid_argument);
    EXPECT_THROW(fault({.kind = "hub-status", .value = 256}), std::invalid_argument);
    EXPECT_THROW(fault({.kind = "corrupt", .value = 256}), std::invalid_argument);
    EXPECT_TRUE(machine->faults().empty());
}

TEST_F(Fault, TableFullIsToldAndLeavesNothing)
{
    for (int i = 0; i < 64; ++i) {
        fault({.kind = "nack", .nth = 1'000'000});
    }
    EXPECT_THROW(fault({.kind = "nack"}), std::runtime_error);
    EXPECT_EQ(64U, machine->faults().size());
}

TEST_F(Fault, OtherProcessesMeetIt)
{
    fault({.kind = "nack", .nth = 2, .count = 1});
    on->probe(0xA0);
    on.reset();
    machine.reset();
    // as another process would
    open();
    EXPECT_EQ(probes(2), (std::vector{nack, done}));
    EXPECT_EQ(1U, struck());
}

TEST_F(Fault, OfTheMachineFile)
{
    on.reset();
    machine.reset();
    const std::string chips = chip("24C02", "0xA0", "image = \"a.bin\"");
    power(chips + "[[fault]]\nkind = \"nack\"\naddress = 0xA0\nnth = 2\ncount = 1\n");
    EXPECT_EQ(probes(3), (std::vector{done, nack, done}));
    on.reset();
    machine.reset();
    // the same file: it has struck already
    open();
    EXPECT_EQ(probes(3), (std::vector{done, done, done}));
    fault({.kind = "nack", .nth = 100});
    // another one in its place; the other stays
    power(chips + "[[fault]]\nkind = \"nack\"\naddress = 0xA0\n");
    EXPECT_EQ(2U, machine->faults().size());
    EXPECT_EQ(on->probe(0xA0), nack);
}

TEST_F(Fault, WhatItDidEndsWhenItIsTakenOutOfTheMachineFile)
{
    const std::string chips = chip("24C02", "0xA0", "image = \"a.bin\"") + chip("PCA9552", "0xC0");
    power(chips + "[[fault]]\nkind = \"stuck-write-cycle\"\n");
    on->write(0xA0, {0, 1});
    on->idleMs(100);
    EXPECT_EQ(on->probe(0xA0), nack);
    power(chips);
    EXPECT_EQ(on->probe(0xA0), done);
    EXPECT_TRUE(machine->faults().empty());

    power(chips + "[[fault]]\nkind = \"hold-sda\"\naddress = 0xC0\ncount = 1\n");
    EXPECT_EQ(outcome::sdaHeld, on->probe(0xC0));
    power(chips);
    EXPECT_EQ(on->planar->lines(), done);
    EXPECT_EQ(on->probe(0xC0), done);
}

TEST_F(Fault, HubsHoldEndsWhenItIsTakenOutOfTheMachineFile)
{
    const std::string chips = chip("HUB922", "0x80") + chip("24C02", "0xA4", "hub = 0x80\nport = 1\nimage = \"f\"");
    power(chips + "[[fault]]\nkind = \"hub-hold-sda\"\ncount = 1\n");
    EXPECT_EQ(on->readAt(0x80, {1, 0xA4, 0}, 1).data, Bytes{3});
    on->read(0x80, 1);
    power(chips);
    EXPECT_EQ(on->readAt(0x80, {1, 0xA4, 0}, 1).data, Bytes{0});
}

TEST_F(Fault, FileAndProgramHaveRoomForAllTheirFaults)
{
    const std::string chips = chip("24C02", "0xA0", "image = \"a.bin\"");
    power(chips);
    for (int i = 0; i < 64; ++i) {
        fault({.kind = "nack", .nth = 1'000'000});
    }
    std::string inFile;
    for (int i = 0; i < 63; ++i) {
        inFile += "[[fault]]\nkind = \"nack\"\nnth = 1000000\n";
    }
    power(chips + inFile + "[[fault]]\nkind = \"nack\"\naddress = 0xA0\ncount = 1\n");
    EXPECT_EQ(128U, machine->faults().size());
    // the last of the file
    EXPECT_EQ(on->probe(0xA0), nack);
    EXPECT_THROW(fault({.kind = "nack"}), std::runtime_error);
    on.reset();
    machine.reset();
    // all are in the state
    open();
    EXPECT_EQ(128U, machine->faults().size());
}

TEST_F(Fault, ProbabilitysSeventhDigitIsAChange)
{
    const auto withProbability = [this](const std::string& digits) {
        power(chip("PCA9552", "0xC0") + "[[fault]]\nkind = \"nack\"\nprobability = " + digits + "\n");
        return machine->faults().at(0).what.probability;
    };
    EXPECT_EQ(withProbability("0.1234567"), 0.1234567);
    EXPECT_EQ(withProbability("0.1234568"), 0.1234568);
}

TEST_F(Fault, WithANodeAloneIsOfThatNodesBuses)
{
    const std::string buses = "[[bus]]\nname = \"planar\"\n[[bus]]\nname = \"a\"\nnode = \"second\"\n"
                              "[[bus]]\nname = \"b\"\nnode = \"second\"\n";
    home.put("machine.toml", buses + "[[fault]]\nkind = \"gone\"\nnode = \"second\"\n");
    open();
    User a{machine->findBus("a", "second")}, b{machine->findBus("b", "second")};
    // nobody there, but the adapter is
    EXPECT_EQ(on->probe(0xC0), nack);
    EXPECT_EQ(outcome::gone, a.probe(0xC0));
    EXPECT_EQ(outcome::gone, b.probe(0xC0));
    ASSERT_EQ(1U, machine->faults().size());
    EXPECT_EQ("second", machine->faults().at(0).what.node);
    EXPECT_EQ("", machine->faults().at(0).what.bus);
    EXPECT_THROW(fault({.kind = "gone", .node = "third"}), std::invalid_argument);
    EXPECT_THROW(fault({.kind = "gone", .bus = "second:a", .node = "second"}), std::invalid_argument);
}

TEST_F(Fault, WithoutABusCountsOnEachBusForItself)
{
    home.put("machine.toml", "[[bus]]\nname = \"planar\"\n[[bus]]\nname = \"other\"\n" + chip("PCA9552", "0xC0") +
                                 "[[chip]]\nbus = \"other\"\ntype = \"PCA9552\"\naddress = 0xC0\n");
    open();
    User second{machine->findBus("other", "")};
    fault({.kind = "nack", .nth = 2, .count = 1});
    EXPECT_EQ(on->probe(0xC0), done);
    EXPECT_EQ(second.probe(0xC0), done);
    EXPECT_EQ(on->probe(0xC0), nack);
    EXPECT_EQ(second.probe(0xC0), nack);
    ASSERT_EQ(1U, machine->faults().size());
    EXPECT_EQ(2U, struck());
    machine->clearFaults();
    EXPECT_TRUE(machine->faults().empty());
}

} // namespace
} // namespace kest::sim::test
