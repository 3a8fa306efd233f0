#include "tests/sim/machinetest.h"

#include <set>

namespace kest::sim::test
{

namespace
{

// A 24C02 with pages of 8 bytes. Choices of the chip: 0 is its counter in the new machine; then each write cycle takes
// one, and each loss of power takes two: the torn page, and the counter after it.
class WriteCycle : public MachineTest
{
protected:
    void powerSeeded(const std::string& seed, const std::string& more = {})
    {
        home.put("machine.toml", seed + "[[bus]]\nname = \"planar\"\n" +
                                     chip("24C02", "0xA0", "image = \"a.bin\"\n" + more) + chip("PCA9554", "0x40"));
        open();
    }
    /// How long the address is not acknowledged after a write, to 25 us.
    std::uint64_t busyNs(std::uint8_t address = 0xA0)
    {
        const std::uint64_t stop = on->write(address, {0x10, 1}).busTimeNs;
        while (on->probe(address) != outcome::done) {}
        return on->planar->busTimeNs() - stop;
    }
    [[nodiscard]] Bytes page(const std::string& image = "a.bin", std::size_t from = 0x10) const
    {
        const Bytes all = home.content(image);
        return {all.begin() + static_cast<std::ptrdiff_t>(from), all.begin() + static_cast<std::ptrdiff_t>(from) + 8};
    }
    void writeOverCounting()
    {
        on->store(0xA0, Bytes{0x10} + counting(8, 0x01));
        EXPECT_EQ(outcome::done, on->write(0xA0, Bytes{0x10} + counting(8, 0xA1)).end);
    }
};

TEST_F(WriteCycle, LastsFromThreeQuartersOfItsMaximumToAllOfIt)
{
    powerSeeded("");
    // choices 1 to 3: 3.274799, 2.899303 and 2.881530 ms; polls of 27.5 us
    for (const std::uint64_t lasts : {3'274'799U, 2'899'303U, 2'881'530U}) {
        const std::uint64_t busy = busyNs();
        EXPECT_GE(busy, lasts);
        EXPECT_LE(busy, lasts + 2 * 27'500);
    }
}

TEST_F(WriteCycle, StaysWithinTheTimesOfTheMachineFile)
{
    powerSeeded("seed = 3\n", "write_cycle_ms = 4\nwrite_cycle_min_ms = 2");
    std::set<std::uint64_t> all;
    for (int i = 0; i < 50; ++i) {
        const std::uint64_t busy = busyNs();
        EXPECT_GE(busy, 2'000'000U);
        EXPECT_LE(busy, 4'000'000U + 2 * 27'500);
        all.insert(busy / 500'000);
    }
    EXPECT_EQ((std::set<std::uint64_t>{4, 5, 6, 7}), all);
}

TEST_F(WriteCycle, SameSeedSameTimes)
{
    const auto times = [this](const std::string& seed) {
        on.reset();
        machine.reset();
        std::filesystem::remove(home.path / "machine.state");
        powerSeeded(seed);
        return std::array{busyNs(), busyNs(), busyNs()};
    };
    const auto first = times("seed = 77\n");
    EXPECT_EQ(first, times("seed = 77\n"));
    EXPECT_NE(first, times("seed = 78\n"));
}

TEST_F(WriteCycle, LossOfPowerInsideItMixesOldNewAndRandomBytes)
{
    powerSeeded("");
    writeOverCounting();
    EXPECT_EQ(page(), counting(8, 0xA1));
    machine->powerCycle();
    EXPECT_EQ((Bytes{0x01, 0xA2, 0x03, 0xA4, 0x96, 0xA5, 0xA7, 0x08}), page());
    // it has power again, and no cycle
    EXPECT_EQ(on->readAt(0xA0, {0x10}, 2).data, (Bytes{0x01, 0xA2}));
}

TEST_F(WriteCycle, AnotherSeedTearsThePageInAnotherWay)
{
    powerSeeded("seed = 9\n");
    writeOverCounting();
    machine->powerCycle();
    EXPECT_EQ((Bytes{0x01, 0x17, 0x03, 0xF8, 0x05, 0x85, 0xA7, 0x08}), page());
}

TEST_F(WriteCycle, LossOfPowerAfterItLeavesTheNewPage)
{
    powerSeeded("");
    writeOverCounting();
    on->idleMs(4);
    machine->powerCycle();
    EXPECT_EQ(page(), counting(8, 0xA1));
}

TEST_F(WriteCycle, PageIsTornByAProcessThatDidNotWriteIt)
{
    powerSeeded("");
    writeOverCounting();
    on.reset();
    machine.reset();
    open();
    machine->powerCycle();
    EXPECT_EQ((Bytes{0x01, 0xA2, 0x03, 0xA4, 0x96, 0xA5, 0xA7, 0x08}), page());
}

TEST_F(WriteCycle, LossOfPowerTearsThePagesOfAllChips)
{
    power(chip("24C02", "0xA0", "image = \"a.bin\"") + chip("24C02", "0xA4", "image = \"b.bin\"") +
          chip("HUB922", "0x80") + chip("24C02", "0xA4", "hub = 0x80\nport = 1\nimage = \"c.bin\""));
    on->write(0xA0, {0x10, 1, 2, 3, 4, 5, 6, 7, 8});
    on->write(0xA4, {0x10, 1, 2, 3, 4, 5, 6, 7, 8});
    on->write(0x80, {1, 0xA4, 0x10, 5, 6, 7});
    machine->powerCycle();
    // choice 2 of each chip with seed 1: a byte is old, new, or anything
    EXPECT_EQ((Bytes{0xFF, 0xFF, 0xFF, 0x04, 0x05, 0x06, 0xFF, 0x08}), page());
    EXPECT_EQ((Bytes{0xFB, 0x02, 0x03, 0xFF, 0xFF, 0xFF, 0xFF, 0xF4}), page("b.bin"));
    EXPECT_EQ((Bytes{0xFF, 0xFF, 0x07, 0xFF, 0x98, 0xFF, 0xFF, 0xFF}), page("c.bin"));
}

// The torn page waits in the state for its image.
TEST_F(WriteCycle, PageWithoutItsImageIsTornWhenTheImageIsBack)
{
    powerSeeded("");
    writeOverCounting();
    std::filesystem::rename(home.path / "a.bin", home.path / "kept");
    machine->powerCycle();
    std::filesystem::rename(home.path / "kept", home.path / "a.bin");
    EXPECT_EQ(page(), counting(8, 0xA1));
    // nothing has happened: the cycle goes on
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
    machine->powerCycle();
    EXPECT_EQ((Bytes{0x01, 0xA2, 0x03, 0xA4, 0x96, 0xA5, 0xA7, 0x08}), page());
}

TEST_F(WriteCycle, LossOfPowerReportsAnImageThatIsMissing)
{
    powerSeeded("");
    EXPECT_TRUE(machine->powerCycle());
    writeOverCounting();
    std::filesystem::rename(home.path / "a.bin", home.path / "kept");
    EXPECT_FALSE(machine->powerCycle());
    std::filesystem::rename(home.path / "kept", home.path / "a.bin");
    EXPECT_TRUE(machine->powerCycle());
}

// The record before the current one is what a process leaves that is killed before the torn page is in its image.
TEST_F(WriteCycle, TornPageOfAKilledProcessReachesItsImageOnce)
{
    powerSeeded("");
    writeOverCounting();
    const std::string programmed = home.text("a.bin");
    machine->powerCycle();
    on.reset();
    machine.reset();
    std::string state = home.text("machine.state");
    state[4096] = static_cast<char>(state[4096] ^ 1);
    home.put("machine.state", state);
    home.put("a.bin", programmed);
    open();
    on->probe(0x40);
    EXPECT_EQ((Bytes{0x01, 0xA2, 0x03, 0xA4, 0x96, 0xA5, 0xA7, 0x08}), page());
    home.put("a.bin", programmed);
    on->probe(0x40);
    EXPECT_EQ(page(), counting(8, 0xA1));
}

TEST_F(WriteCycle, FaultCutsThePowerAtTheNthByte)
{
    powerSeeded("");
    on->store(0xA0, Bytes{0x10} + counting(8, 0x01));
    // after the ten bytes of the write, the second poll
    fault({.kind = "power-cut", .nth = 12, .count = 1});
    EXPECT_EQ(outcome::done, on->write(0xA0, Bytes{0x10} + counting(8, 0xA1)).end);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
    EXPECT_EQ(page(), counting(8, 0xA1));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
    EXPECT_EQ((Bytes{0x01, 0xA2, 0x03, 0xA4, 0x96, 0xA5, 0xA7, 0x08}), page());
    // its power is back
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(1U, machine->faults().at(0).struck);
}

TEST_F(WriteCycle, PowerCutInTheDataOfAWriteWritesNothing)
{
    powerSeeded("");
    on->store(0xA0, Bytes{0x10} + counting(8, 0x01));
    // address, offset, one data byte; the second data byte
    fault({.kind = "power-cut", .nth = 4, .count = 1});
    const Answer cut = on->write(0xA0, {0x10, 0xA1, 0xA2, 0xA3});
    EXPECT_EQ(outcome::dataNotAcknowledged, cut.end);
    EXPECT_EQ(2U, cut.bytesMoved);
    EXPECT_EQ(page(), counting(8, 0x01));
    EXPECT_EQ(outcome::done, on->probe(0xA0));
}

TEST_F(WriteCycle, PowerCutInAReadLeavesSdaReleasedToItsEnd)
{
    powerSeeded("");
    on->store(0xA0, Bytes{0x10} + counting(8, 0x01));
    // two addresses, the offset, two data bytes
    fault({.kind = "power-cut", .nth = 6, .count = 1});
    const Answer got = on->readAt(0xA0, {0x10}, 5);
    EXPECT_EQ(outcome::done, got.end);
    EXPECT_EQ((Bytes{1, 2, 0xFF, 0xFF, 0xFF}), got.data);
    EXPECT_EQ(on->readAt(0xA0, {0x10}, 5).data, counting(5, 1));
}

TEST_F(WriteCycle, PowerCutCountsTheBytesOfItsAddressAlone)
{
    powerSeeded("");
    on->write(0x40, {0x03, 0x00});
    fault({.kind = "power-cut", .address = 0xA0, .nth = 2, .count = 1});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(outcome::done, on->probe(0x40));
    }
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(on->readAt(0x40, {0x03}, 1).data, Bytes{0x00});
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
    // the other chips of the bus lose their power as well
    EXPECT_EQ(on->readAt(0x40, {0x03}, 1).data, Bytes{0xFF});
}

// A read through the hub has ten bytes: the address twice, three of the header, the status and four of data. The power
// does not go inside these four.
TEST_F(WriteCycle, PowerCutCountsTheBytesBehindAHubsStatus)
{
    power(chip("HUB922", "0x80") + chip("24C02", "0xA2", "hub = 0x80\nport = 3\nimage = \"b.bin\"") +
          chip("PCA9554", "0x40"));
    home.put("b.bin", std::string(256, '\x42'));
    for (const std::uint64_t nth : {12U, 11U, 10U, 7U}) {
        SCOPED_TRACE(nth);
        machine->clearFaults();
        on->read(0x80, 1);
        fault({.kind = "power-cut", .nth = nth, .count = 1});
        EXPECT_EQ((Bytes{0, 0x42, 0x42, 0x42, 0x42}), on->readAt(0x80, {3, 0xA2, 0}, 5).data);
        if (nth == 12) {
            EXPECT_EQ(outcome::done, on->probe(0x40));
        }
        EXPECT_EQ(0U, machine->faults().at(0).struck);
        EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x40));
        EXPECT_EQ(1U, machine->faults().at(0).struck);
    }
    machine->clearFaults();
    on->read(0x80, 1);
    // the status
    fault({.kind = "power-cut", .nth = 6, .count = 1});
    EXPECT_EQ((Bytes{0xFF, 0xFF}), on->readAt(0x80, {3, 0xA2, 0}, 2).data);
}

// Wherever the power goes, each page is the old one, the new one, or torn while its cycle ran.
TEST_F(WriteCycle, PowerCutAtEveryByteOfTwoPagesTouchesNoOtherPage)
{
    // choices 2 and 3 of the chip with seed 1
    const Bytes firstTorn{0xFF, 0xFF, 0xFF, 0x34, 0x35, 0x36, 0xFF, 0x38},
        secondTorn{0xFF, 0x42, 0xFF, 0x44, 0x96, 0xA5, 0x47, 0xFF};
    const Bytes firstWhole = counting(8, 0x31), secondWhole = counting(8, 0x41), erased(8, 0xFF);
    for (std::uint64_t byte = 1; byte <= 40; ++byte) {
        SCOPED_TRACE(byte);
        on.reset();
        machine.reset();
        std::filesystem::remove(home.path / "machine.state");
        std::filesystem::remove(home.path / "a.bin");
        powerSeeded("");
        fault({.kind = "power-cut", .nth = byte, .count = 1});
        on->write(0xA0, Bytes{0x10} + counting(8, 0x31));
        for (int poll = 0; poll < 5; ++poll) {
            on->probe(0xA0);
        }
        on->idleMs(4);
        on->write(0xA0, Bytes{0x18} + counting(8, 0x41));
        for (int poll = 0; poll < 15; ++poll) {
            on->probe(0xA0);
        }
        EXPECT_EQ(1U, machine->faults().at(0).struck);
        // bytes 1 to 10 are the first page, 11 to 15 its polls, 16 to 25 the second page, the rest its polls
        const Bytes& first = byte <= 10 ? erased : (byte <= 15 ? firstTorn : firstWhole);
        const Bytes& second = byte <= 15 ? secondWhole : (byte <= 25 ? erased : secondTorn);
        EXPECT_EQ(first, page("a.bin", 0x10));
        EXPECT_EQ(second, page("a.bin", 0x18));
        Bytes others = home.content("a.bin");
        std::fill(others.begin() + 0x10, others.begin() + 0x20, std::uint8_t{0xFF});
        EXPECT_EQ(Bytes(256, 0xFF), others);
    }
}

} // namespace
} // namespace kest::sim::test
