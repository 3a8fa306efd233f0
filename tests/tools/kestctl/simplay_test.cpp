#include <gmock/gmock.h>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using testing::HasSubstr;

using KestctlPlay = MachineTest;

TEST_F(KestctlPlay, AScenarioHappensToAllProcesses)
{
    const std::string file = (folder() / "day.toml").string();
    writeFile(file, "[[event]]\ntransaction = 1\nbus = \"planar\"\ndo = \"remove\"\naddress = 0x90\n"
                    "[[event]]\nat_ms = 60000\nbus = \"planar\"\ndo = \"insert\"\naddress = 0x90\n");
    EXPECT_EQ("2 events to come\n", says({"sim", "play", file}));
    EXPECT_EQ(4, kestctl({"detect", "inlet-temp"}).exit);
    EXPECT_EQ(0, kestctl({"detect", "cpu-temp"}).exit);
    EXPECT_THAT(says({"sim", "show"}),
                HasSubstr("planar 0x90 LM75\n  removed   0x01  answers nothing until it is inserted\n"));
    EXPECT_EQ("{\n  \"events\": 1\n}\n",
              says({"sim", "play", "-", "--json"}, {.input = "[[event]]\nat_ms = 0\nbus = \"planar\"\ndo = \"insert\"\n"
                                                             "address = 0x90\n"}));
    EXPECT_EQ(0, kestctl({"detect", "inlet-temp"}).exit);
}

// Reading 32 KiB takes 0.74 s of bus time, three transactions. The latest conversion ended at 0.6 s.
TEST_F(KestctlPlay, ATemperatureRisesAsTimePasses)
{
    says({"sim", "play", "-"},
         {.input = "[[event]]\nat_ms = 0\nbus = \"planar\"\ndo = \"temperature\"\naddress = 0x90\n"
                   "celsius = 65.5\nover_ms = 1000\n"});
    says({"seeprom", "read", "planar-vpd"});
    EXPECT_THAT(says({"thermal", "read", "inlet-temp"}), HasSubstr("49.5"));
    EXPECT_THAT(says({"sim", "show"}), HasSubstr("49.5000 C (around it 5"));
}

// The byte that is cut off is an 'f', 0x66: after its first half comes a 0, and its chip holds SDA.
TEST_F(KestctlPlay, AChipThatIsPulledOutFreesTheBus)
{
    says({"sim", "fault", "add", "short", "--address", "0xA0", "--way", "read", "--byte", "5", "--count", "1"});
    EXPECT_EQ(1, kestctl({"seeprom", "read", "planar-vpd", "--length", "16"}).exit);
    EXPECT_EQ(1, kestctl({"detect", "cpu-temp"}).exit);
    says({"sim", "play", "-"}, {.input = "[[event]]\nat_ms = 0\nbus = \"planar\"\ndo = \"remove\"\naddress = 0xA0\n"});
    EXPECT_EQ(0, kestctl({"detect", "cpu-temp"}).exit);
}

TEST_F(KestctlPlay, AHubLeavesWithTheChipsBehindIt)
{
    says({"sim", "play", "-"}, {.input = "[[event]]\nat_ms = 0\nbus = \"planar\"\ndo = \"remove\"\naddress = 0x80\n"});
    EXPECT_EQ(4, kestctl({"seeprom", "read", "riser-vpd", "--length", "16"}).exit);
    EXPECT_THAT(
        says({"sim", "show"}),
        HasSubstr("planar 0x80 port 3 0xA2 24C128\n  removed   0x01  answers nothing until its hub is inserted\n"));
    says({"sim", "play", "-"}, {.input = "[[event]]\nat_ms = 0\nbus = \"planar\"\ndo = \"insert\"\naddress = 0x80\n"});
    EXPECT_THAT(says({"sim", "show"}), HasSubstr("planar 0x80 HUB922\n  STATUS    0x0F  out of reset\n"));
    EXPECT_EQ(0, kestctl({"seeprom", "read", "riser-vpd", "--length", "16"}).exit);
}

// SCL, '!', rises before the next START: adding a fault is a use of the bus, too.
TEST_F(KestctlPlay, APowerCutFreesAHeldLineInTheRecording)
{
    const std::string file = (folder() / "planar.vcd").string();
    says({"sim", "wave", "start", "planar", file});
    says({"sim", "fault", "add", "hold-scl", "--bus", "planar"});
    EXPECT_EQ(1, kestctl({"detect", "planar-vpd"}).exit);
    const std::string held = readFile(file);
    says({"sim", "play", "-"}, {.input = "[[event]]\nat_ms = 0\ndo = \"power-cut\"\n"});
    says({"sim", "fault", "add", "nack", "--bus", "planar", "--address", "0xEE"});
    EXPECT_EQ(held.rfind("!\n") - 1, held.rfind("0!\n"));
    const std::string freed = readFile(file);
    EXPECT_EQ(freed.rfind("!\n") - 1, freed.rfind("1!\n"));
}

TEST_F(KestctlPlay, WhatIsWrongIsNamedAndChangesNothing)
{
    const std::string file = (folder() / "day.toml").string();
    writeFile(file, "[[event]]\nat_ms = 0\nbus = \"planar\"\ndo = \"remove\"\naddress = 0xEE\n");
    const RunResult result = kestctl({"sim", "play", file});
    EXPECT_EQ(2, result.exit);
    EXPECT_EQ("kestctl: " + file + ":1:1: no chip at 0xEE there; nothing has changed\n", result.errors);
    EXPECT_NE(0, kestctl({"sim", "play", (folder() / "none").string()}).exit);
}

// An image that takes no page leaves its bus unusable.
TEST_F(KestctlPlay, ABusThatCannotBeUsedIsNoWrongUse)
{
    says({"sim", "play", "-"}, {.input = "[[event]]\nat_ms = 0\nbus = \"planar\"\ndo = \"remove\"\naddress = 0x90\n"});
    const RunResult write = kestctl({"seeprom", "write", "planar-vpd", "--offset", "0x7F00", "--hex", "A1A2", "--yes"},
                                    {.largestFile = 16384});
    EXPECT_NE(0, write.exit);
    const RunResult result = kestctl({"sim", "play", "-"}, {.input = "", .largestFile = 16384});
    EXPECT_EQ(1, result.exit);
    EXPECT_EQ("kestctl: -: nothing has changed: a bus is unusable: No such device\n", result.errors);
}

TEST_F(KestctlPlay, AFaultStrikesFromItsTransactionOn)
{
    const std::vector<std::string> read{"seeprom", "read", "planar-vpd", "--length", "8"};
    says({"sim", "play", "-"}, {.input = "[[event]]\ntransaction = 2\nbus = \"planar\"\ndo = \"fault\"\n"
                                         "kind = \"corrupt\"\naddress = 0xA0\nway = \"read\"\nbyte = 3\n"
                                         "value = 0x20\ncount = 1\n"});
    EXPECT_EQ("", says({"sim", "fault", "list"}));
    EXPECT_THAT(says(read), HasSubstr("54 6c 76 49 6e 66 6f 00"));
    EXPECT_THAT(says(read), HasSubstr("54 6c 76 69 6e 66 6f 00"));
    EXPECT_THAT(says(read), HasSubstr("54 6c 76 49 6e 66 6f 00"));
    EXPECT_THAT(says({"sim", "fault", "list"}), HasSubstr("corrupt"));
}

// Before the page's transaction the cut changes nothing. After it the page is torn: choice 2 of the chip with seed 1,
// each byte the old FF, the new one, or anything.
TEST_F(KestctlPlay, APowerCutInAWriteCycleTearsThePage)
{
    const std::string erased(64, '\xFF'), whole = "\x01\x02\x03\x04\x05\x06\x07\x08" + std::string(56, '\xFF');
    const std::string torn = "\xFF\xFF\xFF\x04\x05\x06\xFF\x08\xFF\xFF\xFF\xFF\xFF\x0B\xFF\xFF"
                             "\xFF\xFF\xFF\xFF\x13\xFF\xFF\x1E\x8F\xFF\xFF\xFF\xFF\xFF\x6E\xFF"
                             "\xFF\xFF\xA0\xFF\xFF\x39\x86\xFF\x07\xFF\xFF\xFF\xFF\xFF\xE2\xFF"
                             "\xFF\xFF\xC5\xFF\x66\x11\xB6\xFF\xFF\x0E\xFF\xFF\x1D\xFF\x77\xFF";
    std::string page = whole;
    unsigned transaction = 0;
    while (page == whole && ++transaction < 200) {
        std::filesystem::remove(machine() / "machine.state");
        std::string image = readFile(machine() / "system.bin");
        // varied, so that no trial write is needed
        image.replace(0, 0x1000, variedBytes(0x1000));
        writeFile(machine() / "system.bin", image.replace(0x1000, 64, erased));
        says({"sim", "play", "-"}, {.input = "[[event]]\ntransaction = " + std::to_string(transaction) +
                                             "\nbus = \"planar\"\ndo = \"power-cut\"\n"});
        const RunResult result =
            kestctl({"seeprom", "write", "planar-vpd", "--offset", "0x1000", "--hex", "0102030405060708", "--yes"});
        page = readFile(machine() / "system.bin").substr(0x1000, 64);
        EXPECT_EQ(page == whole ? 0 : 5, result.exit) << result.errors;
    }
    // the old bytes are read first
    EXPECT_LT(1U, transaction);
    EXPECT_EQ(torn, page);
}

TEST_F(KestctlPlay, APowerCutBringsRegistersToTheirDefaults)
{
    says({"port", "write", "panel-leds", "on", "--pins", "0"});
    EXPECT_THAT(says({"port", "read", "panel-leds"}), HasSubstr("0xFFFE"));
    says({"sim", "play", "-"}, {.input = "[[event]]\ntransaction = 1\nbus = \"planar\"\ndo = \"power-cut\"\n"});
    EXPECT_THAT(says({"port", "read", "panel-leds"}), HasSubstr("0xFFFF"));
}

} // namespace
} // namespace kest::test
