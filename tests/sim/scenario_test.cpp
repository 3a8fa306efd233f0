#include "base/hash.h"
#include "sim/busstate.h"
#include "sim/machinebuses.h"
#include "sim/scenario.h"
#include "sim/scenarioplan.h"
#include "tests/sim/machinetest.h"

#include <array>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <sys/wait.h>
#include <unistd.h>

namespace kest::sim::test
{

namespace
{

class Scenario : public MachineTest
{
protected:
    void SetUp() override
    {
        power(chip("24C02", "0xA0", "image = \"a.bin\"") + chip("LM75", "0x90") + chip("HUB922", "0x80") +
              chip("24C02", "0xA2", "hub = 0x80\nport = 3\nimage = \"b.bin\""));
    }
    std::size_t play(const std::string& text) { return machine->play(text, "s.toml"); }
    std::string playingSays(const std::string& text)
    {
        try {
            play(text);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }
    static std::string event(const std::string& keys) { return "[[event]]\nbus = \"planar\"\n" + keys + "\n"; }
};

TEST_F(Scenario, ChipsLeaveAndComeBackAtTheirTimes)
{
    on->idleMs(7);
    EXPECT_EQ(2U, play(event("at_ms = 20\ndo = \"insert\"\naddress = 0xA0") +
                       event("at_ms = 10\ndo = \"remove\"\naddress = 0xA0")));
    on->planar->idle(9'999'999);
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
    EXPECT_EQ("answers nothing until it is inserted", meaning("planar 0xA0 24C02", "removed"));
    EXPECT_EQ(outcome::done, on->probe(0x90));
    on->idleMs(10);
    EXPECT_EQ(outcome::done, on->probe(0xA0));
}

// The bus time in both records of the second bus is one that cannot be.
TEST_F(Scenario, AnUnusableBusLeavesTheOthersAsTheyAre)
{
    power(chip("LM75", "0x90") + "[[bus]]\nname = \"other\"\n");
    machine->checkBuses();
    constexpr std::size_t other = 4096 + 2048 + 2 * (busStateBytes + chipStateBytes), time = 2048 + 269;
    std::fstream state{home.path / "machine.state", std::ios::in | std::ios::out | std::ios::binary};
    for (const std::size_t record : {std::size_t{0}, busStateBytes}) {
        state.seekp(static_cast<std::streamoff>(other + time + record));
        state << std::string(8, '\xFF') << std::flush;
    }
    ASSERT_TRUE(state.good());
    EXPECT_THROW(
        play("[[event]]\nat_ms = 0\ndo = \"power-cut\"\n" + event("at_ms = 0\ndo = \"remove\"\naddress = 0x90")),
        std::system_error);
    EXPECT_EQ(outcome::done, on->probe(0x90));
}

TEST_F(Scenario, EventsCountTransactions)
{
    on->probe(0xA0);
    play(event("transaction = 3\ndo = \"remove\"\naddress = 0xA0") +
         event("transaction = 4\ndo = \"insert\"\naddress = 0xA0"));
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
    EXPECT_EQ(outcome::done, on->probe(0xA0));
}

TEST_F(Scenario, AttemptsThatMeetAHeldLineAreTransactions)
{
    for (const auto& [kind, held] : {std::pair{"hold-sda", outcome::sdaHeld}, {"hold-scl", outcome::sclHeld}}) {
        SCOPED_TRACE(kind);
        fault({.kind = kind, .address = 0x80, .count = 3});
        EXPECT_EQ(held, on->probe(0x80));
        play(event("transaction = 2\ndo = \"remove\"\naddress = 0x80"));
        EXPECT_EQ(held, on->probe(0xA0));
        EXPECT_EQ(outcome::done, on->probe(0xA0));
        machine->clearFaults();
        play(event("at_ms = 0\ndo = \"insert\"\naddress = 0x80"));
    }
}

TEST_F(Scenario, AChipBehindAHubLeavesAndKeepsItsImage)
{
    EXPECT_EQ(outcome::done, on->store(0x80, {3, 0xA2, 0x10, 0x42}));
    play(event("at_ms = 0\ndo = \"remove\"\naddress = 0xA2\nhub = 0x80\nport = 3"));
    // status 2: no answer
    EXPECT_EQ(on->readAt(0x80, {3, 0xA2, 0x10}, 2).data, (Bytes{2, 0xFF}));
    EXPECT_EQ(0x42, home.content("b.bin")[0x10]);
    play(event("at_ms = 0\ndo = \"insert\"\naddress = 0xA2\nhub = 0x80\nport = 3"));
    EXPECT_EQ(Bytes{2}, on->read(0x80, 1).data);
    EXPECT_EQ(on->readAt(0x80, {3, 0xA2, 0x10}, 2).data, (Bytes{0, 0x42}));
}

TEST_F(Scenario, ARemovedHubTakesItsChipsAlong)
{
    play(event("at_ms = 0\ndo = \"remove\"\naddress = 0x80"));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->readAt(0x80, {3, 0xA2, 0}, 2).end);
}

// Status 15 comes with the power.
TEST_F(Scenario, ARemovedHubTakesThePowerOfItsChipsAlong)
{
    power(chip("HUB922", "0x80") + chip("HUB922", "0x82") +
          chip("24C02", "0xA2", "hub = 0x80\nport = 3\nimage = \"b.bin\"") +
          chip("PCA9554", "0x40", "hub = 0x80\nport = 3") + chip("PCA9554", "0x40", "hub = 0x82\nport = 3"));
    for (const std::uint8_t hub : Bytes{0x80, 0x82}) {
        EXPECT_EQ(outcome::done, on->store(hub, {3, 0x40, 0x03, 0x00}));
    }
    EXPECT_EQ(outcome::done, on->write(0x80, {3, 0xA2, 0x10, 1, 2, 3, 4, 5, 6, 7, 8}).end);
    play(event("at_ms = 1\ndo = \"remove\"\naddress = 0x80") + event("at_ms = 50\ndo = \"insert\"\naddress = 0x80"));
    on->idleMs(2);
    EXPECT_EQ("answers nothing until its hub is inserted", meaning("planar 0x80 port 3 0x40 PCA9554", "removed"));
    const Bytes image = home.content("b.bin");
    // choice 2 of the chip with seed 1: each byte of the page is old, new, or anything
    EXPECT_EQ((Bytes{0x01, 0xE9, 0x03, 0xFF, 0x05, 0x96, 0xFC, 0x08}),
              Bytes(image.begin() + 0x10, image.begin() + 0x18));
    on->idleMs(50);
    EXPECT_EQ(Bytes{15}, on->read(0x80, 1).data);
    EXPECT_EQ((Bytes{0, 0xFF}), on->readAt(0x80, {3, 0x40, 0x03}, 2).data);
    EXPECT_EQ((Bytes{0, 0x00}), on->readAt(0x82, {3, 0x40, 0x03}, 2).data);
}

TEST_F(Scenario, AChipThatLeavesLetsGoOfSda)
{
    EXPECT_EQ(outcome::done, on->store(0xA0, {0, 0x00, 0x00}));
    fault({.kind = "short", .way = "read", .count = 1, .byte = 1});
    EXPECT_EQ(outcome::shortTransfer, on->readAt(0xA0, {0}, 2).end);
    play(event("at_ms = 1\ndo = \"remove\"\naddress = 0x90") + event("at_ms = 2\ndo = \"remove\"\naddress = 0xA0"));
    on->idleMs(1);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    on->idleMs(1);
    EXPECT_EQ(outcome::done, on->planar->lines());
    EXPECT_EQ(outcome::done, on->probe(0x80));
}

TEST_F(Scenario, AHubThatLeavesLetsGoOfWhatItHolds)
{
    for (const char* kind : {"hold-sda", "hold-scl"}) {
        SCOPED_TRACE(kind);
        machine->clearFaults();
        fault({.kind = kind, .address = 0x80});
        on->probe(0x80);
        EXPECT_NE(outcome::done, on->planar->lines());
        play(event("at_ms = 0\ndo = \"remove\"\naddress = 0x90"));
        EXPECT_NE(outcome::done, on->planar->lines());
        play(event("at_ms = 0\ndo = \"remove\"\naddress = 0x80"));
        EXPECT_EQ(outcome::done, on->planar->lines());
        EXPECT_EQ(outcome::done, on->probe(0xA0));
        play(event("at_ms = 0\ndo = \"insert\"\naddress = 0x80"));
        EXPECT_EQ(outcome::done, on->probe(0x80));
    }
}

TEST_F(Scenario, AHubThatLeavesKeepsTheFaultOfAHoldThatIsOver)
{
    fault({.kind = "hold-sda", .address = 0x80});
    EXPECT_EQ(outcome::sdaHeld, on->probe(0x80));
    EXPECT_EQ(outcome::done, on->planar->reset());
    play(event("at_ms = 1\ndo = \"remove\"\naddress = 0x80") + event("at_ms = 2\ndo = \"insert\"\naddress = 0x80"));
    on->idleMs(2);
    EXPECT_EQ(outcome::sdaHeld, on->probe(0x80));
}

TEST_F(Scenario, OnlyAHubThatLeavesEndsFaultsOfHubs)
{
    fault({.kind = "hub-silent", .untilReset = true});
    play(event("at_ms = 0\ndo = \"remove\"\naddress = 0xA0"));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    play(event("transaction = 1\ndo = \"remove\"\naddress = 0x80") +
         event("transaction = 1\ndo = \"insert\"\naddress = 0x80"));
    EXPECT_EQ(outcome::done, on->probe(0x80));
}

// From 25 to 45 degrees in ten seconds. The latest conversion of 300 ms ended at 4.8 s, with 34.6 degrees.
TEST_F(Scenario, TemperaturesRiseEvenlyWhileTheBusIsIdle)
{
    play(event("at_ms = 0\ndo = \"temperature\"\naddress = 0x90\ncelsius = 45\nover_ms = 10000"));
    on->idleMs(5000);
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x22, 0x80}));
    on->idleMs(1000);
    // 37 degrees at 6 s
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x25, 0x00}));
    on->idleMs(5000);
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x2D, 0x00}));
    play(event("at_ms = 1000\ndo = \"temperature\"\naddress = 0x90\ncelsius = -10"));
    on->idleMs(500);
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x2D, 0x00}));
    on->idleMs(2000);
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0xF6, 0x00}));
}

// From 25 towards 45 degrees in ten seconds. At 5 s it is 35 degrees.
TEST_F(Scenario, AChangeOfTemperatureEndsTheOneUnderWay)
{
    const std::string rise = event("at_ms = 0\ndo = \"temperature\"\naddress = 0x90\ncelsius = 45\nover_ms = 10000");
    play(rise + event("at_ms = 5000\ndo = \"temperature\"\naddress = 0x90\ncelsius = -10"));
    for (int i = 0; i < 3; ++i) {
        on->idleMs(5500);
        EXPECT_EQ((Bytes{0xF6, 0x00}), on->read(0x90, 2).data) << i;
    }
    EXPECT_EQ("-10.0000 C", meaning("planar 0x90 LM75", "TEMP"));
}

// From 25 towards 45 degrees in ten seconds. At 5 s it is 35 degrees, and falls to 25 in ten more. The latest conversion
// of 300 ms ended 9.9 s from the begin.
TEST_F(Scenario, AChangeThatTakesThePlaceOfAnotherBeginsWhereThatOneIs)
{
    const std::string rise = event("at_ms = 0\ndo = \"temperature\"\naddress = 0x90\ncelsius = 45\nover_ms = 10000");
    const std::string fall = "do = \"temperature\"\naddress = 0x90\ncelsius = 25\nover_ms = 10000";
    for (const char* when : {"at_ms = 5000\n", "transaction = 2\n"}) {
        SCOPED_TRACE(when);
        power(chip("LM75", "0x90"));
        play(rise + event(when + fall));
        on->idleMs(5000);
        on->probe(0x90);
        on->idleMs(5000);
        // 30.1 degrees
        EXPECT_EQ((Bytes{0x1E, 0x00}), on->read(0x90, 2).data);
        on->idleMs(6000);
        EXPECT_EQ((Bytes{0x19, 0x00}), on->read(0x90, 2).data);
    }
}

TEST_F(Scenario, AChangeOfTemperatureLeavesThoseOfOtherSensors)
{
    power(chip("LM75", "0x90") + chip("LM75", "0x92"));
    play(event("at_ms = 0\ndo = \"temperature\"\naddress = 0x90\ncelsius = 45\nover_ms = 10000") +
         event("at_ms = 5000\ndo = \"temperature\"\naddress = 0x92\ncelsius = -10"));
    on->idleMs(6000);
    // 37 degrees at 6 s
    EXPECT_EQ((Bytes{0x25, 0x00}), on->read(0x90, 2).data);
    on->idleMs(5000);
    EXPECT_EQ((Bytes{0x2D, 0x00}), on->read(0x90, 2).data);
    EXPECT_EQ((Bytes{0xF6, 0x00}), on->read(0x92, 2).data);
}

// Seven conversions of 300 ms have ended since the power came, 2.2 s ago.
TEST_F(Scenario, ASensorConvertsAgainFromThePowerCutOn)
{
    play(event("at_ms = 1000\ndo = \"power-cut\""));
    on->idleMs(3200);
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x19, 0x00}));
}

TEST_F(Scenario, FaultsBeginAtTheirTimes)
{
    play("[[event]]\nat_ms = 5\ndo = \"fault\"\nkind = \"nack\"\naddress = 0xA0\ncount = 1\n");
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_TRUE(machine->faults().empty());
    on->idleMs(5);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    ASSERT_EQ(1U, machine->faults().size());
    EXPECT_EQ("nack", machine->faults()[0].what.kind);
    EXPECT_EQ("", machine->faults()[0].what.bus);
    EXPECT_EQ(1U, machine->faults()[0].struck);
}

TEST_F(Scenario, AHeldLineMayEndByItself)
{
    play(event("at_ms = 5\ndo = \"fault\"\nkind = \"hold-scl\"\nlasts_ms = 50"));
    on->idleMs(5);
    EXPECT_EQ(outcome::sclHeld, on->probe(0xA0));
    // the controller gave up after 25 ms
    on->planar->idle(24'900'000);
    EXPECT_EQ(outcome::sclHeld, on->planar->lines());
    on->planar->idle(100'000);
    EXPECT_EQ(outcome::done, on->planar->lines());
}

TEST_F(Scenario, APowerCutEndsAWriteCycle)
{
    on->store(0xA0, {0x08, 1, 2, 3, 4, 5, 6, 7, 8});
    play(event("at_ms = 1\ndo = \"power-cut\""));
    EXPECT_EQ(outcome::done, on->write(0xA0, {0x10, 1, 2, 3, 4, 5, 6, 7, 8}).end);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
    on->idleMs(1);
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    const Bytes image = home.content("a.bin");
    // choice 3 of the chip with seed 1
    EXPECT_EQ((Bytes{0xFF, 0x02, 0xFF, 0x04, 0x96, 0xA5, 0x07, 0xFF}),
              Bytes(image.begin() + 0x10, image.begin() + 0x18));
    EXPECT_EQ(Bytes(image.begin() + 0x08, image.begin() + 0x10), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(Bytes(image.begin() + 0x18, image.end()), Bytes(256 - 0x18, 0xFF));
    EXPECT_EQ(15U, value("planar 0x80 HUB922", "STATUS"));
}

/// What a bus is asked for while an image is away.
using Asked = void (*)(sim::machine&, User&, const Folder&);

// The page is torn when its image is back, with the bytes that were written into it.
TEST_F(Scenario, APowerCutWaitsForTheImageOfItsPage)
{
    const Asked nothing = [](sim::machine&, User&, const Folder&) {};
    const auto tornWith = [this](Asked asked) {
        on.reset();
        machine.reset();
        std::filesystem::remove(home.path / "machine.state");
        home.put("a.bin", std::string(256, '\0'));
        open();
        play(event("transaction = 2\ndo = \"power-cut\""));
        EXPECT_EQ(outcome::done, on->write(0xA0, {0x10, 1, 2, 3, 4, 5, 6, 7, 8}).end);
        std::filesystem::rename(home.path / "a.bin", home.path / "away.bin");
        asked(*machine, *on, home);
        std::filesystem::rename(home.path / "away.bin", home.path / "a.bin");
        EXPECT_EQ(outcome::done, on->probe(0xA0));
        return home.content("a.bin");
    };
    const Bytes expected = tornWith(nothing);
    // choice 2 of the chip with seed 1
    EXPECT_EQ((Bytes(16, 0) + Bytes{0, 0, 0, 0x04, 0x05, 0x06, 0, 0x08} + Bytes(232, 0)), expected);
    const Asked all[] = {
        [](sim::machine&, User& user, const Folder&) { EXPECT_EQ(outcome::gone, user.planar->reset()); },
        [](sim::machine&, User& user, const Folder&) { EXPECT_EQ(outcome::gone, user.planar->clocks(1)); },
        [](sim::machine&, User& user, const Folder&) { user.planar->idle(1); },
        [](sim::machine& on, User&, const Folder&) {
            EXPECT_THROW(on.addFault({.kind = "nack", .address = 0x90}), std::runtime_error);
        },
        [](sim::machine& on, User&, const Folder&) { EXPECT_THROW(on.clearFaults(), std::system_error); },
        [](sim::machine& on, User&, const Folder& home) {
            EXPECT_FALSE(on.startWave("planar", home.path / "some.vcd"));
        },
        [](sim::machine& on, User&, const Folder&) { EXPECT_FALSE(on.powerCycle()); },
    };
    for (const Asked& each : all) {
        SCOPED_TRACE(&each - all);
        EXPECT_EQ(expected, tornWith(each));
    }
}

TEST_F(Scenario, AllProcessesSeeIt)
{
    play(event("at_ms = 0\ndo = \"remove\"\naddress = 0xA0"));
    const pid_t child = fork();
    if (child == 0) {
        _exit(on->probe(0xA0) == outcome::addressNotAcknowledged && on->probe(0x90) == outcome::done ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
}

TEST_F(Scenario, ANewOneTakesThePlaceOfTheOneBefore)
{
    play(event("at_ms = 1\ndo = \"remove\"\naddress = 0xA0"));
    EXPECT_EQ(0U, play(""));
    on->idleMs(2);
    EXPECT_EQ(outcome::done, on->probe(0xA0));
}

TEST_F(Scenario, WhatFitsNoMachineChangesNothing)
{
    play(event("transaction = 1\ndo = \"remove\"\naddress = 0xA0"));
    EXPECT_EQ("s.toml:1:1: no chip at 0xA4 there", playingSays(event("at_ms = 0\ndo = \"remove\"\naddress = 0xA4")));
    EXPECT_EQ("s.toml:1:1: no chip at 0xA2 there",
              playingSays(event("at_ms = 0\ndo = \"remove\"\naddress = 0xA2\nhub = 0x80\nport = 2")));
    EXPECT_EQ("s.toml:1:1: no bus 'far'", playingSays("[[event]]\nnode = \"far\"\nat_ms = 0\ndo = \"power-cut\"\n"));
    EXPECT_EQ("s.toml:1:1: no bus 'far:planar'",
              playingSays("[[event]]\nnode = \"far\"\nbus = \"planar\"\nat_ms = 0\ndo = \"power-cut\"\n"));
    EXPECT_EQ("s.toml:1:1: no chip at 0x00 there", playingSays(event("at_ms = 0\ndo = \"remove\"\naddress = 0")));
    EXPECT_EQ("s.toml:1:1: the chip at 0xA0 measures no temperature",
              playingSays(event("at_ms = 0\ndo = \"temperature\"\naddress = 0xA0\ncelsius = 3")));
    std::string many;
    for (int i = 0; i < 65; ++i) {
        many += event("at_ms = 1\ndo = \"power-cut\"");
    }
    EXPECT_EQ("s.toml:257:1: more than 64 events on a bus", playingSays(many));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
}

TEST_F(Scenario, FaultsThatWaitHaveTheirRoom)
{
    const std::string nack = event("at_ms = 1\ndo = \"fault\"\nkind = \"nack\"\naddress = 0xA4\ncount = 1");
    for (int i = 0; i < 62; ++i) {
        fault({.kind = "nack", .address = 0xA6});
    }
    EXPECT_EQ("s.toml:15:1: no room for more faults", playingSays(nack + nack + nack));
    EXPECT_EQ(2U, play(nack + nack));
    EXPECT_THROW(fault({.kind = "nack"}), std::runtime_error);
    on->idleMs(1);
    EXPECT_EQ(64U, machine->faults().size());
    EXPECT_EQ("s.toml:1:1: no room for more faults", playingSays(nack));
    machine->clearFaults();
    EXPECT_EQ(1U, play(nack));
}

TEST_F(Scenario, RoomThatAnotherUserHasTakenMeanwhileIsMissing)
{
    const auto opened = [this] {
        const std::scoped_lock lock{openingMutex()};
        return std::make_unique<machineBuses>(home.path, nullptr);
    }();
    scenarioPlan plan{*opened};
    plan.add(parseScenario(event("at_ms = 1\ndo = \"fault\"\nkind = \"nack\"\naddress = 0xA4"), "s.toml").at(0));
    for (int i = 0; i < 64; ++i) {
        fault({.kind = "nack", .address = 0xA6});
    }
    EXPECT_THROW(plan.start("s.toml"), std::runtime_error);
    machine->clearFaults();
    on->idleMs(1);
    EXPECT_TRUE(machine->faults().empty());
}

// What a loaded event has by its place: kind, by time, when (8 bytes), address, hub, port, ...
TEST(ScenarioState, DamagedEventsAreSaid)
{
    eventRecord good;
    good.kind = eventKind::temperature;
    good.address = 0x90;
    std::array<std::uint8_t, eventBytes> stored{};
    stateFields fields{stored, stateFields::way::store};
    good.exchange(fields);
    struct Row {
        std::size_t at;
        std::uint8_t value;
        const char* what;
    };
    for (const Row& damage :
         {Row{0, 5, "the kind of an event"}, Row{1, 2, "a flag"}, Row{9, 0x90, "the time of an event"},
          Row{10, 0x91, "the chip of an event"}, Row{11, 1, "the chip of an event"}, Row{12, 8, "the chip of an event"},
          Row{16, 0x7F, "the temperature of an event"}, Row{23, 1, "the temperature of an event"}, Row{25, 2, "a flag"},
          Row{29, 0x80, "the temperature of an event"}}) {
        auto bad = stored;
        bad.at(damage.at) = damage.value;
        stateFields load{bad, stateFields::way::load};
        eventRecord loaded;
        loaded.exchange(load);
        EXPECT_STREQ(damage.what, load.damaged()) << damage.at;
    }
}

/// What is left of a run.
struct Leftover {
    Bytes state, image, wave;
    std::vector<outcome> ends;

    bool operator==(const Leftover&) const = default;
};

std::string_view textOf(const Bytes& bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

class Seed : public MachineTest
{
protected:
    /// A process writes and reads on the flaky bus of a machine that is made anew.
    Leftover run(const std::string& seed, bool recorded = true)
    {
        on.reset();
        machine.reset();
        for (const char* file : {"machine.state", "a.bin", "wave.vcd"}) {
            std::filesystem::remove(home.path / file);
        }
        home.put("machine.toml", "seed = " + seed + "\n[[bus]]\nname = \"planar\"\n" +
                                     chip("24C02", "0xA0", "image = \"a.bin\"") + chip("LM75", "0x90") +
                                     "[[fault]]\nkind = \"nack\"\nprobability = 0.2\n"
                                     "[[fault]]\nkind = \"corrupt\"\nprobability = 0.2\nbyte = 2\n");
        open();
        EXPECT_TRUE(!recorded || machine->startWave("planar", home.path / "wave.vcd"));
        machine->play("[[event]]\nat_ms = 40\ndo = \"fault\"\nkind = \"arbitration\"\nprobability = 0.3\n"
                      "[[event]]\nat_ms = 61\ndo = \"power-cut\"\n"
                      "[[event]]\ntransaction = 30\nbus = \"planar\"\ndo = \"temperature\"\naddress = 0x90\n"
                      "celsius = 80\nover_ms = 30\n",
                      "s.toml");
        Leftover left;
        for (std::uint8_t i = 0; i < 60; ++i) {
            left.ends.push_back(on->write(0xA0, {static_cast<std::uint8_t>(8 * i), i, i, i}).end);
            on->idleMs(2);
            left.ends.push_back(on->readAt(0x90, {0}, 2).end);
        }
        left.state = home.content("machine.state");
        left.image = home.content("a.bin");
        left.wave = home.content("wave.vcd");
        return left;
    }
};

TEST_F(Seed, TheSameGivesTheSameRunByteByByte)
{
    const Leftover first = run("5");
    EXPECT_EQ(first, run("5"));
    const Leftover other = run("6");
    EXPECT_NE(first.ends, other.ends);
    EXPECT_NE(first.image, other.image);
    EXPECT_NE(first.wave, other.wave);
}

// What a 64-bit little-endian host left; every other host leaves the same.
TEST_F(Seed, TheSameGivesTheSameRunOnEveryHost)
{
    const Leftover left = run("5");
    EXPECT_EQ(9637804712538885896U, fnvHash64(textOf(left.image)));
    EXPECT_EQ(12085313606345030788U, fnvHash64(textOf(left.wave)));
    // that of a recording has its path
    EXPECT_EQ(17239927325468261366U, fnvHash64(textOf(run("5", false).state)));
}

} // namespace
} // namespace kest::sim::test
