#include "base/hash.h"
#include "sim/busstate.h"
#include "sim/machinesource.h"
#include "tests/sim/machinetest.h"

#include <fstream>
#include <stdexcept>

namespace kest::sim::test
{

namespace
{

/// 40 buses with a memory and ten expanders each, more than 16 KiB of text. Its buses take 80 lines, then each bus's
/// chips take 45.
class LargeMachine : public MachineTest
{
protected:
    static constexpr int buses = 40;

    void SetUp() override
    {
        std::string chips;
        for (int bus = 1; bus < buses; ++bus) {
            text += "[[bus]]\nname = \"b" + std::to_string(bus) + "\"\n";
        }
        for (int bus = 0; bus < buses; ++bus) {
            const std::string name = bus == 0 ? "planar" : "b" + std::to_string(bus);
            chips +=
                "[[chip]]\nbus = \"" + name + "\"\ntype = \"24C02\"\naddress = 0xA0\nimage = \"" + name + ".bin\"\n";
            for (int chip = 0; chip < 10; ++chip) {
                chips += "[[chip]]\nbus = \"" + name +
                         "\"\ntype = \"PCA9554\"\naddress = " + std::to_string(0x30 + 2 * chip) + "\n";
            }
        }
        text += chips;
    }
    std::string text = "[[bus]]\nname = \"planar\"\n";
};

TEST_F(LargeMachine, LeavesAnIndexForTheNextProcess)
{
    home.put("machine.toml", text);
    machineSource first{home.path};
    EXPECT_EQ(440U, first.buses().chips.size());
    first.keepIndex();

    machineSource second{home.path};
    EXPECT_EQ(40U, second.buses().buses.size());
    EXPECT_TRUE(second.buses().chips.empty());
    EXPECT_TRUE(second.isByIndex());
    EXPECT_EQ(11U, second.chipsOf(7));
    EXPECT_EQ(first.layoutMark(), second.layoutMark());
    EXPECT_EQ(first.faultMark(), second.faultMark());
    const auto bus = second.withChipsOf(7);
    ASSERT_EQ(11U, bus->chips.size());
    EXPECT_EQ("b7.bin", bus->chips[0].image);
    // 80 lines of buses, then 45 of each bus
    EXPECT_EQ("396:1", bus->chips[0].place);
    EXPECT_EQ(440U, second.whole()->chips.size());
}

TEST_F(LargeMachine, AChangedFileIsParsedWhole)
{
    home.put("machine.toml", text);
    machineSource{home.path}.keepIndex();
    home.put("machine.toml", text + "inputs = 3\n");
    EXPECT_EQ(3U, machineSource{home.path}.buses().chips.at(439).inputs);
    home.put("machine.toml", text + "inputs = 300\n");
    EXPECT_THROW(machineSource{home.path}, std::runtime_error);
}

TEST_F(LargeMachine, ASmallOneLeavesNone)
{
    power(chip("PCA9554", "0x40"));
    EXPECT_FALSE(std::filesystem::exists(home.path / "machine.index"));
    home.put("machine.toml", text);
    open();
    EXPECT_TRUE(std::filesystem::exists(home.path / "machine.index"));
    EXPECT_FALSE(std::filesystem::exists(home.path / "machine.index.new"));
}

TEST_F(LargeMachine, EveryBusWorksWithAnIndex)
{
    home.put("machine.toml", text);
    machineSource{home.path}.keepIndex();
    open();
    for (int bus = 1; bus < buses; ++bus) {
        User one{machine->findBus("b" + std::to_string(bus), "")};
        const auto value = static_cast<std::uint8_t>(bus);
        EXPECT_EQ(outcome::done, one.store(0xA0, {0x10, value}));
        EXPECT_EQ(outcome::done, one.write(0x30 + 2 * 9, {0x01, value}).end);
    }
    EXPECT_EQ(7, home.content("b7.bin")[0x10]);
    EXPECT_EQ(39U, value("b39 0x42 PCA9554", "OUTPUT"));
    EXPECT_EQ(440U, machine->chips().size());
}

/// Each opening with a clock of its own is that of another process: it reads the files anew.
class StillClock final : public realClock
{
public:
    std::uint64_t nowNs() override { return 1; }
    void sleepUntil(std::uint64_t) override {}
};

/// A large machine whose index somebody has forged, with the hashes that it should have.
class ForgedIndex : public LargeMachine
{
protected:
    // numbers of chips: each bus has a memory and ten expanders
    static constexpr std::size_t busBytes = 12, chipBytes = 4, firstBus = 40, firstChip = firstBus + buses * busBytes;

    void SetUp() override
    {
        LargeMachine::SetUp();
        home.put("machine.toml", text);
        open();
        for (const char* bus : {"b1", "b2"}) {
            User one{machine->findBus(bus, "")};
            EXPECT_EQ(outcome::done, one.write(0x30, {0x01, 0x5A}).end);
            EXPECT_EQ(outcome::done, one.store(0xA0, {0x10, 0x77}));
        }
        good = home.content("machine.index");
        ASSERT_EQ(firstChip + 440 * chipBytes, good.size());
    }
    static std::size_t chipOf(std::size_t bus, std::size_t number)
    {
        return firstChip + (bus * 11 + number) * chipBytes;
    }
    void forge(std::size_t at, const Bytes& value)
    {
        Bytes bad = home.content("machine.index");
        std::ranges::copy(value, bad.begin() + static_cast<std::ptrdiff_t>(at));
        const std::uint64_t hash = fnvHash64({reinterpret_cast<const char*>(bad.data()) + 16, bad.size() - 16});
        for (std::size_t i = 0; i < 8; ++i) {
            bad[8 + i] = static_cast<std::uint8_t>(hash >> (8 * i));
        }
        home.put("machine.index", {bad.begin(), bad.end()});
    }
    /// A process that finds the forged index has the machine as it was left, and hears nothing.
    void expectTheMachine()
    {
        StillClock clock;
        ::testing::internal::CaptureStderr();
        const auto found = openMachine(home.path, clock);
        for (const char* bus : {"b1", "b2"}) {
            User one{found->findBus(bus, "")};
            EXPECT_EQ(Bytes{0x5A}, one.readAt(0x30, {0x01}, 1).data) << bus;
            EXPECT_EQ(Bytes{0x77}, one.readAt(0xA0, {0x10}, 1).data) << bus;
            EXPECT_EQ(outcome::done, one.write(0x30, {0x01, 0x5A}).end);
            for (int chip = 1; chip < 10; ++chip) {
                EXPECT_EQ(Bytes{0xFF}, one.readAt(static_cast<std::uint8_t>(0x30 + 2 * chip), {0x01}, 1).data) << bus;
            }
        }
        EXPECT_EQ(440U, found->chips().size());
        EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
        EXPECT_FALSE(std::filesystem::exists(home.path / "machine.state.damaged"));
    }
    /// The next process makes the index anew.
    void expectItGone()
    {
        EXPECT_FALSE(std::filesystem::exists(home.path / "machine.index"));
        StillClock clock;
        openMachine(home.path, clock);
        EXPECT_EQ(good, home.content("machine.index"));
    }
    Bytes good;
};

TEST_F(ForgedIndex, ThatIsNotForgedStays)
{
    expectTheMachine();
    EXPECT_EQ(good, home.content("machine.index"));
}

TEST_F(ForgedIndex, WithChipsOnEachOthersBusesIsNotUsed)
{
    for (const std::size_t chip : {0U, 1U, 10U}) {
        SCOPED_TRACE(chip);
        forge(chipOf(1, chip), {2});
        forge(chipOf(2, chip), {1});
        expectTheMachine();
        expectItGone();
    }
}

TEST_F(ForgedIndex, WithAChipOnAnotherBusIsNotUsed)
{
    forge(chipOf(1, 4), {2});
    expectTheMachine();
    expectItGone();
}

TEST_F(ForgedIndex, WithOtherNumbersOfChipsIsNotUsed)
{
    // the file's size would be the same
    forge(firstBus + 1 * busBytes, {10});
    forge(firstBus + 2 * busBytes, {12});
    expectTheMachine();
    EXPECT_EQ(good, home.content("machine.index"));
    forge(firstBus + 1 * busBytes, {10});
    forge(firstBus + 2 * busBytes, {12});
    forge(chipOf(1, 10), {2});
    expectTheMachine();
    EXPECT_EQ(good, home.content("machine.index"));
}

TEST_F(ForgedIndex, WithAnotherMarkOfChipsIsNotUsed)
{
    forge(firstBus + 1 * busBytes + 4, {1, 2, 3, 4, 5, 6, 7, 8});
    expectTheMachine();
    EXPECT_EQ(good, home.content("machine.index"));
}

TEST_F(ForgedIndex, ThatHidesAChangeOfTheFileIsFoundByTheFirstWhoUsesTheBus)
{
    std::string changed = text;
    // the first expander of b1 is at 0x2E from now on
    const std::size_t at = changed.find("address = 48", changed.find("bus = \"b1\""));
    changed.replace(at, 12, "address = 46");
    home.put("machine.toml", changed);
    const std::uint64_t hash = fnvHash64(changed);
    Bytes hashBytes;
    for (std::size_t i = 0; i < 8; ++i) {
        hashBytes.push_back(static_cast<std::uint8_t>(hash >> (8 * i)));
    }
    forge(24, hashBytes);
    StillClock clock;
    const auto found = openMachine(home.path, clock);
    User two{found->findBus("b2", "")};
    EXPECT_EQ(Bytes{0x5A}, two.readAt(0x30, {0x01}, 1).data);
    EXPECT_THROW(found->findBus("b1", ""), std::runtime_error);
    const auto again = openMachine(home.path, clock);
    EXPECT_NE(found, again);
    User one{again->findBus("b1", "")};
    EXPECT_EQ(outcome::addressNotAcknowledged, one.probe(0x30));
    EXPECT_EQ(Bytes{0xFF}, one.readAt(0x2E, {0x01}, 1).data);
}

/// Two buses with a memory each.
class TwoBuses : public MachineTest
{
protected:
    void powerBoth()
    {
        power("[[bus]]\nname = \"other\"\n" + chip("24C02", "0xA0", "image = \"a.bin\"") +
              "[[chip]]\nbus = \"other\"\ntype = \"24C02\"\naddress = 0xA0\nimage = \"b.bin\"\n");
    }
    void release()
    {
        on.reset();
        machine.reset();
    }
    std::string openingOtherSays()
    {
        try {
            machine->findBus("other", "");
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }
    /// The machine as a process that begins finds it: the text differs by a comment.
    void openAfresh()
    {
        home.put("machine.toml", home.text("machine.toml") + "#\n");
        open();
    }
};

TEST_F(TwoBuses, AnImageCountsWhenItsBusIsUsed)
{
    powerBoth();
    release();
    home.put("b.bin", "short");
    openAfresh();
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ((std::filesystem::canonical(home.path) / "machine.toml").string() +
                  ":10:1: image 'b.bin': has 5 bytes, the chip 256",
              openingOtherSays());
    EXPECT_THROW(machine->checkBuses(), std::runtime_error);
    home.put("b.bin", std::string(256, 'x'));
    EXPECT_EQ("", openingOtherSays());
}

TEST_F(TwoBuses, DamageCountsWhenItsBusIsUsed)
{
    powerBoth();
    on->store(0xA0, {0x10, 1});
    release();
    constexpr std::size_t block = 2048 + 2 * (busStateBytes + chipStateBytes), time = 2048 + 269;
    std::string bad = home.text("machine.state");
    for (const std::size_t record : {std::size_t{0}, busStateBytes + chipStateBytes}) {
        bad.replace(4096 + block + time + record, 8, std::string(8, '\xFF'));
    }
    home.put("machine.state", bad);
    open();
    EXPECT_LT(0U, on->planar->busTimeNs());
    ::testing::internal::CaptureStderr();
    EXPECT_EQ("", openingOtherSays());
    EXPECT_EQ(
        "kest: " + (std::filesystem::canonical(home.path) / "machine.state").string() +
            ": damaged: bus 'other': bus time cannot be; it is kept as machine.state.damaged, and the machine starts "
            "anew\n",
        ::testing::internal::GetCapturedStderr());
    EXPECT_EQ(0U, on->planar->busTimeNs());
}

TEST_F(TwoBuses, AMachineOutOfUseStaysOpenAndSeesWhatChanged)
{
    powerBoth();
    const auto* const before = machine.get();
    release();
    std::filesystem::remove(home.path / "a.bin");
    open();
    EXPECT_EQ(before, machine.get());
    EXPECT_EQ(on->readAt(0xA0, {0}, 2).data, (Bytes{0xFF, 0xFF}));
    EXPECT_EQ(256U, home.content("a.bin").size());
    // it is in use: the machine does not make it again
    std::filesystem::remove(home.path / "a.bin");
    EXPECT_EQ(outcome::gone, on->readAt(0xA0, {0}, 2).end);
    EXPECT_FALSE(std::filesystem::exists(home.path / "a.bin"));
}

TEST_F(TwoBuses, AnImageThatVanishesBeforeItsFirstUseIsNotMadeAgain)
{
    powerBoth();
    for (const bool again : {false, true}) {
        if (again) {
            release();
            open();
            EXPECT_EQ(256U, home.content("a.bin").size());
        }
        std::filesystem::remove(home.path / "a.bin");
        EXPECT_EQ(outcome::gone, on->readAt(0xA0, {0}, 2).end);
        EXPECT_FALSE(std::filesystem::exists(home.path / "a.bin"));
    }
}

TEST_F(TwoBuses, AChangeOfTheFileIsSeenAlsoWithTheSameSizeAndTimeStamp)
{
    power(chip("PCA9554", "0x40", "inputs = 0x0F"));
    EXPECT_EQ(on->readAt(0x40, {0x00}, 1).data, Bytes{0x0F});
    const auto file = home.path / "machine.toml";
    const auto stamp = std::filesystem::last_write_time(file);
    std::string text = home.text("machine.toml");
    text.replace(text.find("0x0F"), 4, "0x1E");
    home.put("machine.toml", text);
    std::filesystem::last_write_time(file, stamp);
    open();
    EXPECT_EQ(on->readAt(0x40, {0x00}, 1).data, Bytes{0x1E});
}

} // namespace
} // namespace kest::sim::test
