#include <gmock/gmock.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using testing::HasSubstr;

class KestctlSimFault : public MachineTest
{
protected:
    /// Puts chips in the machine beside those of the demo.
    void add(const std::string& chips) const
    {
        writeFile(machine() / "machine.toml", readFile(machine() / "machine.toml") + chips);
    }
};

// The byte that is cut off is an 'f', 0x66: after its first half comes a 0.
TEST_F(KestctlSimFault, ReadThatIsCutOffHoldsTheBusUntilItIsReset)
{
    const std::string start = says({"seeprom", "read", "planar-vpd", "--length", "16"});
    EXPECT_THAT(start, HasSubstr("|TlvInfo"));
    says({"sim", "fault", "add", "short", "--address", "0xA0", "--way", "read", "--byte", "5", "--count", "1"});
    EXPECT_EQ(1, kestctl({"seeprom", "read", "planar-vpd", "--length", "16"}).exit);
    const RunResult held = kestctl({"detect", "planar-vpd"});
    EXPECT_EQ(1, held.exit);
    EXPECT_THAT(held.errors, HasSubstr("the bus is held: SDA stays low"));
    EXPECT_EQ("sim:planar: reset, the bus is free\n", says({"reset", "sim:planar"}));
    EXPECT_EQ(start, says({"seeprom", "read", "planar-vpd", "--length", "16"}));
}

// When SCL is let go, the chip still drives the first bit of an 'f', a 0.
TEST_F(KestctlSimFault, ReadThatIsHeldInItsMiddleLeavesTheChipHoldingSda)
{
    says({"sim", "fault", "add", "hold-scl", "--address", "0xA0", "--way", "read", "--byte", "5"});
    EXPECT_EQ(1, kestctl({"seeprom", "read", "planar-vpd", "--length", "16"}).exit);
    says({"sim", "fault", "clear"});
    EXPECT_THAT(kestctl({"detect", "planar-vpd"}).errors, HasSubstr("the bus is held: SDA stays low"));
    EXPECT_EQ("sim:planar: reset, the bus is free\n", says({"reset", "sim:planar"}));
    EXPECT_EQ(0, kestctl({"detect", "planar-vpd"}).exit);
}

TEST_F(KestctlSimFault, AdapterThatIsGoneReportsThatOrTimeOuts)
{
    says({"sim", "fault", "add", "gone", "--bus", "planar"});
    EXPECT_EQ(4, kestctl({"detect", "planar-vpd"}).exit);
    says({"sim", "fault", "clear"});
    says({"sim", "fault", "add", "gone", "--bus", "planar", "--value", "1"});
    EXPECT_EQ(1, kestctl({"detect", "planar-vpd"}).exit);
    EXPECT_THAT(kestctl({"detect", "planar-vpd"}).errors, HasSubstr("no answer in time"));
}

// An image that takes no page leaves its bus unusable.
TEST_F(KestctlSimFault, ABusThatCannotBeUsedIsReported)
{
    says({"sim", "fault", "add", "nack", "--address", "0xEE"});
    EXPECT_NE(0, kestctl({"seeprom", "write", "planar-vpd", "--offset", "0x7F00", "--hex", "A1A2", "--yes"},
                         {.largestFile = 16384})
                     .exit);
    for (const std::vector<std::string>& command :
         std::initializer_list<std::vector<std::string>>{{"sim", "fault", "add", "nack", "--bus", "planar"},
                                                         {"sim", "fault", "list"},
                                                         {"sim", "fault", "list", "--json"},
                                                         {"sim", "fault", "clear", "1"},
                                                         {"sim", "fault", "clear"},
                                                         {"sim", "show"}}) {
        SCOPED_TRACE(command[1] + " " + command.back());
        const RunResult result = kestctl(command, {.largestFile = 16384});
        EXPECT_EQ(1, result.exit);
        EXPECT_EQ(command.back() == "--json", !result.output.empty());
        EXPECT_EQ("kestctl: bus 'planar' cannot be used: No such device\n", result.errors);
    }
    EXPECT_EQ("  1 nack               any bus  EE = 0x77, struck 0\n", says({"sim", "fault", "list"}));
    EXPECT_EQ("fault 1 cleared\n", says({"sim", "fault", "clear", "1"}));
}

TEST_F(KestctlSimFault, ListCountsThePowerCutsBytes)
{
    says({"sim", "fault", "add", "power-cut", "--bus", "planar", "--nth", "12", "--count", "1"});
    EXPECT_EQ("  1 power-cut          planar   any address from byte 12 on once, struck 0\n",
              says({"sim", "fault", "list"}));
}

// The proof of the width sends 4 bytes for the reads behind one offset byte and 39 for those behind two. Three bytes go
// out for each of two reads that fill the undo file, and 35 for the page. The next but one asks whether the write cycle has ended.
TEST_F(KestctlSimFault, PowerCutInAWriteCycleIsFoundByTheVerificationAndMendedByTheNextWrite)
{
    const std::vector<std::string> write{"seeprom",
                                         "write",
                                         "planar-vpd",
                                         "--offset",
                                         "0x1000",
                                         "--hex",
                                         "00112233445566778899AABBCCDDEEFF00112233445566778899AABBCCDDEEFF",
                                         "--yes",
                                         "--force"};
    const std::string before = readFile(machine() / "system.bin").replace(0, 0x1000, variedBytes(0x1000));
    writeFile(machine() / "system.bin", before);
    says({"sim", "fault", "add", "power-cut", "--address", "0xA0", "--way", "write", "--nth", "86", "--count", "1"});
    EXPECT_EQ(5, kestctl(write).exit);
    const std::string torn = readFile(machine() / "system.bin");
    // choice 2 of the chip with seed 1: a byte of the page is the old FF, the new one, or anything
    const std::string page = "\xFF\xFF\xFF\x33\x44\x55\xFF\x77\xFF\x99\xFF\xBB\xFF\x0B\xEE\xFF"
                             "\xFF\x11\xFF\xFF\x13\x55\xFF\x1E\x8F\x99\xAA\xBB\xFF\xDD\x6E\xFF"
                             "\xFF\xFF\xA0\xFF\xFF\x39\x86\xFF\x07\xFF\xFF\xFF\xFF\xFF\xE2\xFF"
                             "\xFF\xFF\xC5\xFF\x66\x11\xB6\xFF\xFF\x0E\xFF\xFF\x1D\xFF\x77\xFF";
    EXPECT_EQ(page, torn.substr(0x1000, 64));
    EXPECT_EQ(before.substr(0, 0x1000), torn.substr(0, 0x1000));
    EXPECT_EQ(before.substr(0x1040), torn.substr(0x1040));
    says(write);
    EXPECT_EQ("\xCC\xDD\xEE\xFF", readFile(machine() / "system.bin").substr(0x101C, 4));
}

// It holds SCL for 3 ms behind its address.
TEST_F(KestctlSimFault, ChipThatStretchesBeyondTheAdaptersTimeIsNotDetected)
{
    const auto slow = [](const std::string& name, const std::string& milliseconds) {
        return "[[bus]]\nname = \"" + name + "\"\nadapter = { timeout_ms = " + milliseconds + " }\n[[chip]]\nbus = \"" +
               name + "\"\ntype = \"LM75\"\naddress = 0x90\nstretch_us = 3000\n";
    };
    add(slow("hasty", "2") + slow("patient", "4"));
    const RunResult hasty = kestctl({"detect", "sim:hasty,L,75,90"});
    EXPECT_EQ(1, hasty.exit);
    EXPECT_THAT(hasty.errors, HasSubstr("no answer in time"));
    EXPECT_EQ(0, kestctl({"detect", "sim:patient,L,75,90"}).exit);
}

TEST_F(KestctlSimFault, ScanShowsAPartAtEachOfItsAddresses)
{
    add("[[bus]]\nname = \"deaf\"\n[[chip]]\nbus = \"deaf\"\ntype = \"24C02\"\naddress = 0xA0\naddresses = \"all\"\n"
        "image = \"deaf.bin\"\n[[bus]]\nname = \"blocks\"\n[[chip]]\nbus = \"blocks\"\ntype = \"24C08\"\n"
        "address = 0xA0\nimage = \"blocks.bin\"\n");
    EXPECT_THAT(says({"scan", "sim:deaf"}), HasSubstr("50: 50 51 52 53 54 55 56 57 -- "));
    EXPECT_THAT(says({"scan", "sim:blocks"}), HasSubstr("50: 50 51 52 53 -- -- -- -- -- "));
}

TEST_F(KestctlSimFault, OverlapOfAddressesIsAnErrorOfTheMachineFile)
{
    add("[[chip]]\nbus = \"planar\"\ntype = \"24C02\"\naddress = 0xA0\naddresses = \"all\"\nimage = \"deaf.bin\"\n");
    const RunResult refused = kestctl({"scan", "sim:planar"});
    EXPECT_EQ(2, refused.exit);
    EXPECT_THAT(refused.errors, HasSubstr("a second chip at 0xA"));
}

} // namespace
} // namespace kest::test
