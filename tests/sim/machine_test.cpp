#include "sim/busstate.h"
#include "sim/chip.h"
#include "tests/sim/machinetest.h"

#include <algorithm>
#include <fstream>
#include <system_error>

#include <sys/stat.h>

namespace kest::sim::test
{

namespace
{

const std::string bus = "[[bus]]\nname = \"planar\"\n";

class MachineFolder : public MachineTest
{
protected:
    /// Opens the machine. @return what it says on standard error
    std::string openAndHear()
    {
        ::testing::internal::CaptureStderr();
        open();
        return ::testing::internal::GetCapturedStderr();
    }
    /// Opens what is in the folder. @return why that fails, empty when it does not
    [[nodiscard]] std::string openingSays() const
    {
        try {
            openMachine(home.path, false);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }
    std::string said(const std::string& damage)
    {
        return "kest: " + (std::filesystem::canonical(home.path) / "machine.state").string() + ": damaged: " + damage +
               "; it is kept as machine.state.damaged, and the machine starts anew\n";
    }
};

TEST_F(MachineFolder, ImageOfAnotherSizeIsRefused)
{
    home.put("a.bin", std::string(255, 'x'));
    try {
        power(chip("24C02", "0xA0", "image = \"a.bin\""));
        FAIL() << "opened";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string{error.what()}, (std::filesystem::canonical(home.path) / "machine.toml").string() +
                                                 ":3:1: image 'a.bin': has 255 bytes, the chip 256");
    }
}

TEST_F(MachineFolder, ImageThatIsAFolderIsRefused)
{
    std::filesystem::create_directory(home.path / "a.bin");
    EXPECT_THROW(power(chip("24C02", "0xA0", "image = \"a.bin\"")), std::runtime_error);
}

TEST_F(MachineFolder, NoFolderNoFile)
{
    EXPECT_THROW(openMachine(home.path / "nowhere", false), std::runtime_error);
    EXPECT_THROW(openMachine(home.path, false), std::runtime_error);
}

TEST_F(MachineFolder, MachineFileThatIsNoUsualFileHoldsNobodyUp)
{
    const std::filesystem::path file = std::filesystem::canonical(home.path) / "machine.toml";
    ASSERT_EQ(0, mkfifo(file.c_str(), 0600));
    EXPECT_EQ(file.string() + ": is not a regular file", openingSays());
    std::filesystem::remove(file);
    std::filesystem::create_symlink("/dev/zero", file);
    EXPECT_EQ(file.string() + ": is not a regular file", openingSays());
    std::filesystem::remove(file);
    home.put("machine.toml", bus + std::string(1 << 20, '\n'));
    EXPECT_EQ(file.string() + ": is too large", openingSays());
}

TEST_F(MachineFolder, OneFolderIsOneObject)
{
    power(chip("PCA9554", "0x40"));
    EXPECT_EQ(openMachine(home.path, false), machine);
    EXPECT_EQ(openMachine(home.path / ".", false), machine);
    EXPECT_NE(openMachine(home.path, true), machine);
}

TEST_F(MachineFolder, BusesOfNodes)
{
    home.put("machine.toml",
             bus + "[[bus]]\nname = \"planar\"\nnode = \"second\"\n[[bus]]\nname = \"front\"\nnode = \"second\"\n"
                   "[[chip]]\nbus = \"planar\"\nnode = \"second\"\ntype = \"PCA9554\"\naddress = 0x40\n");
    open();
    EXPECT_EQ(machine->busNames(""), (std::vector<std::string>{"planar"}));
    EXPECT_EQ(machine->busNames("second"), (std::vector<std::string>{"planar", "front"}));
    EXPECT_EQ(nullptr, machine->findBus("front", ""));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x40));
    User second{machine->findBus("planar", "second")};
    EXPECT_EQ(outcome::done, second.probe(0x40));
    EXPECT_EQ("second", machine->chips().at(0).node);
    machine->addFault({.kind = "nack", .bus = "second:planar"});
    EXPECT_EQ(outcome::addressNotAcknowledged, second.probe(0x40));
}

TEST_F(MachineFolder, EditedMachineStartsAnewAndTheOldOneIsGone)
{
    power(chip("PCA9554", "0x40"));
    on->write(0x40, {0x01, 0x12});
    auto old = std::move(on);
    power(chip("PCA9554", "0x40") + chip("PCA9554", "0x42"));
    EXPECT_EQ(on->readAt(0x40, {0x01}, 1).data, Bytes{0xFF});
    EXPECT_EQ(outcome::gone, old->probe(0x40));
    EXPECT_EQ(outcome::gone, old->planar->lines());
    EXPECT_EQ(outcome::gone, old->planar->reset());
}

TEST_F(MachineFolder, EditedSettingsKeepTheState)
{
    power(chip("PCA9554", "0x40"));
    on->write(0x40, {0x01, 0x12});
    power(chip("PCA9554", "0x40", "inputs = 0x0F"));
    EXPECT_EQ(on->readAt(0x40, {0x01}, 1).data, Bytes{0x12});
    EXPECT_EQ(on->readAt(0x40, {0x00}, 1).data, Bytes{0x0F});
}

TEST_F(MachineFolder, DeletedStateIsANewMachine)
{
    power(chip("PCA9554", "0x40"));
    on->write(0x40, {0x01, 0x12});
    std::filesystem::remove(home.path / "machine.state");
    EXPECT_EQ(outcome::gone, on->probe(0x40));
    open();
    EXPECT_EQ(on->readAt(0x40, {0x01}, 1).data, Bytes{0xFF});
}

TEST_F(MachineFolder, CutStateIsGoneAndThenANewMachine)
{
    power(chip("PCA9554", "0x40"));
    std::filesystem::resize_file(home.path / "machine.state", 100);
    EXPECT_EQ(outcome::gone, on->probe(0x40));
    EXPECT_THROW(machine->registers(), std::system_error);
    EXPECT_EQ(openAndHear(), said("has another size than it should"));
    EXPECT_EQ(outcome::done, on->probe(0x40));
    EXPECT_EQ(100U, home.text("machine.state.damaged").size());
}

TEST_F(MachineFolder, FileThatIsNoStateIsSetAside)
{
    power(chip("PCA9554", "0x40"));
    home.put("machine.state", "something else");
    EXPECT_EQ(openAndHear(), said("is no state file"));
    EXPECT_EQ("something else", home.text("machine.state.damaged"));
}

TEST_F(MachineFolder, NewUnfinishedOlderAndOtherStatesAreMadeAnewInSilence)
{
    power(chip("PCA9554", "0x40"));
    const std::string good = home.text("machine.state");
    std::string old = good;
    old[7] = 1;
    const std::string unfinished = std::string(8, '\0') + good.substr(8);
    for (const std::string& state : {std::string{}, old, unfinished}) {
        on.reset();
        machine.reset();
        home.put("machine.state", state);
        EXPECT_EQ("", openAndHear());
        EXPECT_EQ(outcome::done, on->probe(0x40));
    }
    home.put("machine.toml", bus + chip("PCA9554", "0x40") + chip("PCA9554", "0x42"));
    EXPECT_EQ("", openAndHear());
    EXPECT_FALSE(std::filesystem::exists(home.path / "machine.state.damaged"));
}

// Fields by their place in a record: a bus's is at 2048 of its block, its chips' come after it.
TEST_F(MachineFolder, DamagedFieldsAreSaidAndSetAside)
{
    const std::string chips = chip("24C02", "0xA0", "image = \"a.bin\"") + chip("PCA9552", "0xC0") +
                              chip("LM92", "0x96") + chip("HUB922", "0x80");
    power(chips);
    on->write(0xA0, {0, 1});
    // an even number of uses with the write: the first record is current
    fault({.kind = "nack", .nth = 5, .count = 7});
    on->planar->idle(1'000'000);
    on->planar->idle(1'000'000);
    constexpr std::size_t record = 4096 + 2048, faults = record + 329, afterFault = faults + 79,
                          eeprom = record + busStateBytes, leds = eeprom + chipStateBytes, lm92 = leds + chipStateBytes,
                          hub = lm92 + chipStateBytes;
    const std::string good = home.text("machine.state");
    ASSERT_EQ(0, good[4096]);
    struct Row {
        std::size_t at;
        Bytes value;
        const char* what;
    };
    const Row rows[] = {
        {record, {2}, "a flag"},
        {record, {1, 1}, "the page on its way into an image"}, // chip 1 has no image
        {record, {1, 0, 0, 0, 0, 0xFF, 0, 0, 0, 2}, "the page on its way into an image"},
        {record + 9, {1, 1}, "the page on its way into an image"},
        {record + 269, Bytes(8, 0xFF), "bus time"},
        {record + 269, {0, 0, 0, 0, 0, 0, 0, 0x40}, "bus time"},
        {record + 285, {1}, "the hold of a line"}, // by nobody
        {record + 285, {1, 1, 1}, "the hold of a line"},
        {record + 285, {0, 0, 1}, "the hold of a line"}, // of no line
        {record + 285, {1, 0, 2}, "the hold of a line"}, // by a fault that is not there
        {record + 296, {10}, "the bit of a read that was cut off"},
        {record + 299, Bytes(8, 0x01), "the waveform"},
        {record + 317, Bytes(8, 0x01), "the waveform"},
        {record + 325, {129}, "the number of faults"},
        {faults + 4, {15}, "the kind of a fault"},
        {faults + 5, {3}, "the kind of a fault"},
        {faults, {0}, "a fault's number, address or first time"},
        {faults + 6, {1}, "a fault's number, address or first time"},
        {faults + 20, Bytes(8, 0xFF), "the probability of a fault"},
        {faults + 56, Bytes(8, 0x7F), "how often a fault struck"},
        {faults + 64, {9}, "how often a fault struck"},
        {afterFault, Bytes(8, 0x01), "the hold of a line"},
        {afterFault + 9, Bytes(8, 0x7F), "the number of transactions"},
        {afterFault + 17, {65}, "the number of events"},
        {eeprom, {0, 1}, "an EEPROM's address counter"},
        {eeprom + 4, Bytes(8, 0x0F), "the end of a write cycle"},
        {eeprom + 4, Bytes(8, 0xFF), "the end of a write cycle"},
        {eeprom + 12, {1}, "the end of a write cycle"},
        {eeprom + 4, Bytes(8, 0xFF) + Bytes{2}, "the fault that keeps a write cycle from ending"},
        {eeprom + 16, {3}, "the page of a write cycle"},
        {eeprom + 16, {0}, "the page of a write cycle"},
        {eeprom + 17, {0xFF, 0xFF, 0xFF, 0xFF}, "the page of a write cycle"},
        {eeprom + 21, {0x01, 0x01}, "the page of a write cycle"},
        {leds + 1, {1}, "a register that a PCA955x does not have"},
        {leds + 11, {1}, "a register that a PCA955x does not have"},
        {leds + 17, Bytes(8, 0x0F), "the time at which a pin was seen"},
        {leds + 25, {1}, "pins that a LED driver has not read"},
        {lm92, {8}, "a sensor's pointer or alarms"},
        {lm92 + 1, {8}, "a sensor's pointer or alarms"},
        {lm92 + 16, {2}, "bits of a sensor's register that never change"},
        {lm92 + 18, {8}, "a sensor's interrupt"},
        {lm92 + 21, {6}, "a sensor's fault queue"},
        {lm92 + 22, {0, 0, 0, 0x7F}, "a sensor's temperature"},
        {lm92 + 26, {0, 0, 0, 0x80}, "a sensor's temperature"},
        {lm92 + 30, {0x81, 0xD1, 0xF0, 0x08}, "a sensor's temperature"},
        {lm92 + 34, {2}, "a flag"},
        {lm92 + 35, Bytes(8, 0x0F), "the begin of a sensor's conversion"},
        {hub + 1, Bytes(8, 0x0F), "the end of a hub's work"},
        {hub + 9, {2}, "a flag"},
        {hub + 10, {3, 1}, "a held sub-bus"},
        {hub + 10, {1, 0}, "a held sub-bus"},
        {hub + 10, {1, 2}, "the fault that holds a sub-bus"},
    };
    for (const Row& damage : rows) {
        SCOPED_TRACE(std::to_string(damage.at - record) + " " + damage.what);
        on.reset();
        machine.reset();
        std::string bad = good;
        std::ranges::copy(damage.value, bad.begin() + static_cast<std::ptrdiff_t>(damage.at));
        home.put("machine.state", bad);
        EXPECT_EQ(openAndHear(), said("bus 'planar': " + std::string{damage.what} + " cannot be"));
        EXPECT_EQ(home.text("machine.state.damaged"), bad);
        EXPECT_EQ(outcome::done, on->write(0xA0, {0, 1}).end);
        EXPECT_TRUE(on->asksUntilAnswered(0xA0, 200));
    }
    on.reset();
    machine.reset();
    home.put("machine.state", good);
    EXPECT_EQ("", openAndHear());
    EXPECT_EQ(7U, machine->faults().at(0).what.count);
}

TEST_F(MachineFolder, AHubInResetWithoutAResetLineIsDamaged)
{
    // the driver of 0x82 is at 0xC2
    power(chip("HUB922", "0x82") + chip("PCA9552", "0xC0"));
    std::string bad = home.text("machine.state");
    constexpr std::size_t record = 4096 + 2048, recordBytes = busStateBytes + 2 * chipStateBytes, inReset = 9;
    for (const std::size_t which : {std::size_t{0}, recordBytes}) {
        bad[record + which + busStateBytes + inReset] = 1;
    }
    on.reset();
    machine.reset();
    home.put("machine.state", bad);
    EXPECT_EQ(openAndHear(), said("bus 'planar': a hub in reset without a reset line cannot be"));
    EXPECT_EQ(outcome::done, on->probe(0x82));
}

// What a fault that is there did is no damage, and neither is what a fault did that is cleared.
TEST_F(MachineFolder, WhatAFaultDoesIsNoDamage)
{
    power(chip("24C02", "0xA0", "image = \"a.bin\"") + chip("HUB922", "0x80") +
          chip("24C02", "0xA2", "hub = 0x80\nport = 1\nimage = \"b.bin\""));
    const auto stuck = fault({.kind = "stuck-write-cycle", .address = 0xA0});
    const auto held = fault({.kind = "hub-hold-sda"});
    EXPECT_EQ(outcome::done, on->write(0xA0, {0, 1}).end);
    EXPECT_EQ((Bytes{3, 0xFF}), on->readAt(0x80, {1, 0xA2, 0}, 2).data);
    fault({.kind = "hold-scl", .count = 2, .lastsMs = 3'600'000});
    EXPECT_EQ(outcome::sclHeld, on->probe(0x80));
    for (const bool cleared : {false, true}) {
        if (cleared) {
            machine->clearFault(stuck);
            machine->clearFault(held);
        }
        on.reset();
        machine.reset();
        EXPECT_EQ("", openAndHear());
        EXPECT_EQ(cleared ? "ready" : "write cycle that does not end", meaning("planar 0xA0 24C02", "busy"));
        EXPECT_EQ(cleared ? "free" : "ports 1", meaning("planar 0x80 HUB922", "SDA held"));
    }
}

TEST_F(MachineFolder, StateDamagedUnderARunningProcessIsGoneUntilOpenedAgain)
{
    power(chip("PCA9554", "0x40"));
    {
        std::fstream state{home.path / "machine.state", std::ios::in | std::ios::out | std::ios::binary};
        state.seekp(4096 + 2048 + 269) << std::string(8, '\xFF');
        state.seekp(static_cast<std::streamoff>(4096 + 2048 + busStateBytes + chipStateBytes + 269))
            << std::string(8, '\xFF');
    }
    EXPECT_EQ(outcome::gone, on->probe(0x40));
    EXPECT_EQ(outcome::gone, on->planar->reset());
    EXPECT_EQ(openAndHear(), said("bus 'planar': bus time cannot be"));
    EXPECT_EQ(outcome::done, on->probe(0x40));
}

// Whatever is in the state file: no crash, and a power cycle with all faults cleared mends it.
TEST_F(MachineFolder, HostileStateFiles)
{
    const std::string chips = chip("24C02", "0xA0", "image = \"a.bin\"") + chip("PCA9552", "0xC0") +
                              chip("LM92", "0x96") + chip("HUB922", "0x80") +
                              chip("24C32", "0xA2", "hub = 0x80\nport = 0\nimage = \"b.bin\"");
    power(chips);
    const std::string good = home.text("machine.state");
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE(seed);
        on.reset();
        machine.reset();
        std::string bad = good;
        std::uint32_t random = seed * 2654435761U + 1;
        const auto next = [&random] { return random = random * 1664525U + 1013904223U; };
        if (seed < 10) {
            std::fill(bad.begin() + (seed % 2 == 0 ? 0 : 4096), bad.end(), static_cast<char>(seed * 51));
        } else {
            for (unsigned i = 0; i < 1 + seed % 200; ++i) {
                bad[36 + next() % (bad.size() - 36)] = static_cast<char>(next() >> 24);
            }
        }
        home.put("machine.state", bad);
        openAndHear();
        on->probe(0xA0);
        on->write(0xA0, {0, 1, 2});
        on->readAt(0x80, {0, 0xA2, 0, 0}, 4);
        on->readAt(0xC0, {0x10}, 12);
        on->read(0x96, 2);
        machine->registers();
        machine->faults();
        on->planar->reset();
        machine->clearFaults();
        machine->powerCycle();
        EXPECT_EQ(on->readAt(0xC0, {0x16}, 4).data, (Bytes{0x55, 0x55, 0x55, 0x55}));
        EXPECT_EQ(outcome::done, on->probe(0xA0));
    }
    EXPECT_EQ(256U, home.content("a.bin").size());
    EXPECT_EQ(4096U, home.content("b.bin").size());
}

TEST_F(MachineFolder, OddAddressIsNobody)
{
    power(chip("PCA9554", "0x40"));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x41));
    EXPECT_EQ(0U, on->planar->busTimeNs());
}

} // namespace
} // namespace kest::sim::test
