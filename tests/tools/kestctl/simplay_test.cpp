#include <gmock/gmock.h>

#include "tests/tools/program.h"

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

} // namespace
} // namespace kest::test
