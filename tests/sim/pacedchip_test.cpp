// Chips on a bus that is too fast for them, and chips that hold SCL.
#include "sim/pacedchip.h"
#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

TEST(ChipPace, FollowsClocksUpToItsOwn)
{
    constexpr chipPace usual{.maxKhz = 400};
    EXPECT_TRUE(usual.follows(2500));
    EXPECT_TRUE(usual.follows(10'000));
    // 401 kHz
    EXPECT_FALSE(usual.follows(2493));
    // 333 kHz: bus time rounds its bit down to this
    EXPECT_TRUE(chipPace{.maxKhz = 333}.follows(3003));
}

TEST(ChipPace, AFirstBitTakenTwicePushesTheLastOut)
{
    EXPECT_EQ(0xC0, withFirstBitTwice(0x81));
    EXPECT_EQ(0x3F, withFirstBitTwice(0x7E));
}

class SpeedLimit : public MachineTest
{
protected:
    outcome probeAt(std::uint8_t address, std::uint32_t khz) { return on->planar->probe(address, khz).end; }

    static constexpr auto done = outcome::done, silent = outcome::addressNotAcknowledged;
};

TEST_F(SpeedLimit, IsThatOfTheType)
{
    power(chip("24C02", "0xA0", "image = \"a.bin\"") + chip("24C128", "0xA2", "image = \"b.bin\"") +
          chip("24C256", "0xA4", "image = \"c.bin\"") + chip("24C512", "0xA6", "image = \"d.bin\"") +
          chip("PCA9552", "0xC0") + chip("PCA9555", "0x40") + chip("LM75", "0x90") + chip("HUB922", "0x80"));
    for (const int number : {0xA0, 0xA2, 0xA4, 0xA6, 0xC0, 0x40, 0x90, 0x80}) {
        const auto address = static_cast<std::uint8_t>(number);
        const bool fast = address == 0xA4 || address == 0xA6;
        EXPECT_EQ(done, probeAt(address, 100)) << +address;
        EXPECT_EQ(done, probeAt(address, 400)) << +address;
        EXPECT_EQ(fast ? done : silent, probeAt(address, 401)) << +address;
        EXPECT_EQ(fast ? done : silent, probeAt(address, 1000)) << +address;
    }
}

TEST_F(SpeedLimit, OfAnOldPartIs100Kilohertz)
{
    power(chip("24C02", "0xA0", "image = \"a.bin\"\nmax_khz = 100"));
    // the bus's own 400 kHz
    EXPECT_EQ(silent, probeAt(0xA0, 0));
    EXPECT_EQ(silent, on->write(0xA0, {0, 1}).end);
    EXPECT_EQ(done, probeAt(0xA0, 100));
}

TEST_F(SpeedLimit, OfAChipBehindAHubMeetsTheHubsOwn400Kilohertz)
{
    power("speed_khz = 100\n" + chip("HUB922", "0x80") +
          chip("24C02", "0xA4", "hub = 0x80\nport = 2\nimage = \"c.bin\"\nmax_khz = 100"));
    // status 2: nobody answers
    EXPECT_EQ((Bytes{2, 0xFF}), on->readAt(0x80, {2, 0xA4, 0}, 2).data);
}

// Which bits are wrong is the seed's choice.
TEST_F(SpeedLimit, GarblesBytesByTheSeed)
{
    const auto readTooFast = [this](const std::string& seed) {
        home.put("machine.toml", seed + "[[bus]]\nname = \"planar\"\n" +
                                     chip("24C02", "0xA0", "image = \"a.bin\"\ntoo_fast = \"garbled\""));
        home.put("a.bin", std::string(256, '\0'));
        std::filesystem::remove(home.path / "machine.state");
        open();
        Bytes offset{0}, data(64);
        segment parts[2] = {{0xA0, direction::write, offset, false}, {0xA0, direction::read, data, false}};
        EXPECT_EQ(done, on->planar->transfer(parts, 1000).end);
        return data;
    };
    const Bytes first = readTooFast("seed = 7\n");
    // choices 2 to 17 of the chip; with seed 7 the offset, choice 1, came whole
    EXPECT_EQ((Bytes{0x40, 0x04, 0x01, 0x08, 0, 0, 0, 0, 0x04, 0x80, 0, 0, 0, 0, 0, 0}),
              Bytes(first.begin(), first.begin() + 16));
    // a bit in about every second byte, and never more than one
    const auto wrong = std::ranges::count_if(first, [](std::uint8_t byte) { return byte != 0; });
    EXPECT_LT(16, wrong);
    EXPECT_GT(48, wrong);
    EXPECT_TRUE(std::ranges::all_of(first, [](std::uint8_t byte) { return (byte & (byte - 1)) == 0; }));
    EXPECT_EQ(first, readTooFast("seed = 7\n"));
    const Bytes other = readTooFast("seed = 8\n");
    EXPECT_EQ((Bytes{0x02, 0, 0, 0, 0, 0x40, 0, 0, 0x08, 0x01, 0, 0x20, 0x80, 0x80, 0, 0}),
              Bytes(other.begin(), other.begin() + 16));
    // at its own speed nothing is wrong
    EXPECT_EQ(Bytes(8, 0), on->readAt(0xA0, {0}, 8).data);
}

// The same choices as of a read.
TEST_F(SpeedLimit, GarblesWhatTheChipTakesAsWell)
{
    home.put("machine.toml", "seed = 7\n[[bus]]\nname = \"planar\"\n" +
                                 chip("24C02", "0xA0", "image = \"a.bin\"\ntoo_fast = \"garbled\""));
    open();
    Bytes page(9);
    segment part{0xA0, direction::write, page, false};
    EXPECT_EQ(done, on->planar->transfer({&part, 1}, 1000).end);
    EXPECT_EQ((Bytes{0x40, 0x04, 0x01, 0x08, 0, 0, 0, 0}) + Bytes(248, 0xFF), home.content("a.bin"));
}

class Stretching : public MachineTest
{
protected:
    static std::string slow(unsigned microseconds)
    {
        return chip("24C02", "0xA0", "image = \"a.bin\"\nstretch_us = " + std::to_string(microseconds));
    }
    std::uint64_t timeOf(const Bytes& offset, std::size_t length)
    {
        const std::uint64_t before = on->planar->busTimeNs();
        EXPECT_EQ(outcome::done, on->readAt(0xA0, offset, length).end);
        return on->planar->busTimeNs() - before;
    }
};

// Address, offset and three bytes of data; the address for reading is no byte of the chip's.
TEST_F(Stretching, TakesItsTimeForEachByte)
{
    power(slow(0));
    const std::uint64_t quick = timeOf({0}, 3);
    power(slow(70));
    EXPECT_EQ(quick + 5 * 70'000, timeOf({0}, 3));
}

TEST_F(Stretching, BeyondTheAdaptersLimitIsHeldScl)
{
    power("adapter = { stretch_limit_us = 500 }\n" + slow(500));
    EXPECT_EQ(outcome::done, on->readAt(0xA0, {0}, 3).end);
    power("adapter = { stretch_limit_us = 499 }\n" + slow(500));
    EXPECT_EQ(outcome::sclHeld, on->readAt(0xA0, {0}, 3).end);
    // the chip lets go in the end
    EXPECT_EQ(outcome::done, on->planar->lines());
    EXPECT_EQ(outcome::done, on->planar->reset());
}

// It drives the first bit of a byte when it lets go of SCL, and does not know that nobody reads it.
TEST_F(Stretching, BeyondTheAdaptersLimitInAReadLeavesTheChipDriving)
{
    home.put("a.bin", std::string(256, '\x41'));
    power("adapter = { stretch_limit_us = 499 }\n" + slow(500));
    const std::uint32_t counter = value("planar 0xA0 24C02", "counter");
    EXPECT_EQ(outcome::sclHeld, on->read(0xA0, 3).end);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    // 0x41: its second bit is 1
    EXPECT_EQ(outcome::done, on->planar->clocks(1));
    EXPECT_EQ(outcome::done, on->planar->reset());
    EXPECT_EQ(counter, value("planar 0xA0 24C02", "counter"));
    home.put("a.bin", std::string(256, '\x81'));
    EXPECT_EQ(outcome::sclHeld, on->read(0xA0, 3).end);
    EXPECT_EQ(outcome::done, on->planar->lines());
}

// The status 0 is what it drives.
TEST_F(Stretching, OfAHubBeyondTheAdaptersLimitLeavesItDriving)
{
    power("adapter = { stretch_limit_us = 50 }\n" + chip("HUB922", "0x80") +
          chip("24C02", "0xA4", "hub = 0x80\nport = 2\nimage = \"c.bin\""));
    EXPECT_EQ(outcome::sclHeld, on->readAt(0x80, {2, 0xA4, 0}, 2).end);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::sdaHeld, on->planar->clocks(7));
    EXPECT_EQ(outcome::done, on->planar->clocks(1));
}

// The chip holds SCL for 3 ms behind its address. Before a read it does so at the first byte; a hub that fetches does at
// its address.
TEST_F(Stretching, OfAnAddressCountsForTheAdaptersTime)
{
    power("adapter = { timeout_ms = 2 }\n" + slow(3000));
    EXPECT_EQ(outcome::timedOut, on->probe(0xA0));
    EXPECT_EQ(outcome::done, on->planar->lines());
    power("adapter = { timeout_ms = 4 }\n" + slow(3000));
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    const std::string hub = chip("HUB922", "0x80") + chip("24C02", "0xA4",
                                                          "hub = 0x80\nport = 2\nimage = \"c.bin\"\n"
                                                          "stretch_us = 3000");
    power("adapter = { timeout_ms = 4 }\n" + hub);
    EXPECT_EQ(outcome::timedOut, on->readAt(0x80, {2, 0xA4, 0}, 2).end);
    // its status is a 0
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::done, on->planar->reset());
    power("adapter = { timeout_ms = 10 }\n" + hub);
    EXPECT_EQ((Bytes{0, 0xFF}), on->readAt(0x80, {2, 0xA4, 0}, 2).data);
}

TEST_F(Stretching, TooLongInAPageWritesNothing)
{
    power("adapter = { stretch_limit_us = 499 }\n" + slow(500));
    EXPECT_EQ(outcome::sclHeld, on->write(0xA0, {0, 1, 2}).end);
    EXPECT_EQ(Bytes(256, 0xFF), home.content("a.bin"));
}

TEST_F(Stretching, BehindAHubItIsTheHubThatWaits)
{
    const std::string riser = "hub = 0x80\nport = 2\nimage = \"c.bin\"";
    power(chip("HUB922", "0x80") + chip("24C02", "0xA4", riser));
    const std::uint64_t begin = on->planar->busTimeNs();
    const std::uint64_t quick = on->readAt(0x80, {2, 0xA4, 0}, 3).busTimeNs - begin;
    power(chip("HUB922", "0x80") + chip("24C02", "0xA4", riser + "\nstretch_us = 40"));
    const std::uint64_t middle = on->planar->busTimeNs();
    const Answer slowly = on->readAt(0x80, {2, 0xA4, 0}, 3);
    EXPECT_EQ((Bytes{0, 0xFF, 0xFF}), slowly.data);
    // address and offset, and two bytes of data
    EXPECT_EQ(quick + 4 * 40'000, slowly.busTimeNs - middle);
}

// The hub's work runs ahead of the main bus, and the sensor begins a conversion in it.
TEST_F(Stretching, BehindAHubASensorMayBeginFarAhead)
{
    power(chip("HUB922", "0x80") + chip("24C02", "0xA0", "image = \"a.bin\"") +
          chip("LM75", "0x90", "hub = 0x80\nport = 2\nbits = 11\nstretch_us = 100000"));
    EXPECT_EQ(outcome::done, on->store(0xA0, {0, 0x42}));
    // shut down, and on again
    EXPECT_EQ(outcome::done, on->write(0x80, {2, 0x90, 1, 1}).end);
    on->idleMs(1000);
    EXPECT_EQ(outcome::done, on->write(0x80, {2, 0x90, 1, 0}).end);
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(Bytes{0x42}, on->readAt(0xA0, {0}, 1).data);
}

TEST_F(Stretching, ABadAdapterLosesABitNowAndThen)
{
    home.put("a.bin", std::string(256, '\x81'));
    power("adapter = { stretching = \"loses-bits\" }\n" + slow(10));
    Answer got;
    // a bit that is lost in the offset is a byte that nobody acknowledges
    for (int tries = 0; tries < 50 && (got = on->readAt(0xA0, {0}, 200)).end != outcome::done; ++tries) {
        EXPECT_EQ(outcome::dataNotAcknowledged, got.end);
    }
    const auto wrong = std::ranges::count(got.data, 0xC0);
    EXPECT_EQ(200, wrong + std::ranges::count(got.data, 0x81));
    // one in four
    EXPECT_LT(25, wrong);
    EXPECT_GT(75, wrong);
}

TEST_F(Stretching, ABadAdapterIsAGoodOneForChipsThatDoNotStretch)
{
    home.put("a.bin", std::string(256, '\x81'));
    power("adapter = { stretching = \"loses-bits\" }\n" + slow(0));
    EXPECT_EQ(Bytes(200, 0x81), on->readAt(0xA0, {0}, 200).data);
}

TEST_F(Stretching, LostBitsAreTheSameWithTheSameSeed)
{
    const auto read = [this](const std::string& seed) {
        home.put("a.bin", std::string(256, '\x81'));
        std::filesystem::remove(home.path / "machine.state");
        home.put("machine.toml",
                 seed + "[[bus]]\nname = \"planar\"\nadapter = { stretching = \"loses-bits\" }\n" + slow(10));
        open();
        std::vector<Bytes> all;
        for (int i = 0; i < 10; ++i) {
            all.push_back(on->readAt(0xA0, {0}, 20).data);
        }
        return all;
    };
    // a C0 is an 81 whose first bit was taken twice
    const Bytes once{0xC0, 0x81, 0x81, 0xC0, 0x81, 0xC0, 0xC0, 0x81, 0xC0, 0x81,
                     0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0xC0, 0x81, 0x81, 0xC0};
    const Bytes other{0x81, 0xC0, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0xC0, 0x81,
                      0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0xC0};
    const auto first = read("seed = 3\n");
    EXPECT_EQ(once, first[0]);
    // the fourth read's offset was not acknowledged
    EXPECT_EQ(Bytes(20, 0), first[3]);
    EXPECT_EQ(first, read("seed = 3\n"));
    EXPECT_EQ(other, read("seed = 4\n")[0]);
}

} // namespace

} // namespace kest::sim::test
