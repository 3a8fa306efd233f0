/// Writes that did not arrive: write protection, lost pages, flaky lines, parts that are never busy.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <utility>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

class KestctlReadBack : public SeepromTest
{
protected:
    /// The table proves the offset width of a chip of one value, so that no byte is written as a trial.
    KestctlReadBack()
    {
        writeFile(machine() / "power.bin", std::string(4096, '\xAA'));
        std::string text = readFile(machine() / "kest.toml");
        const std::string name = "name = \"power-vpd\"\n";
        writeFile(machine() / "kest.toml", text.insert(text.find(name), "width_proved = true\n"));
    }

    /// power-vpd, a 24C32 with pages of 32 bytes, becomes another part.
    void makePower(const std::string& keys, bool ferroelectric = false) const
    {
        std::string text = readFile(machine() / "machine.toml");
        const std::size_t at = text.find("image = \"power.bin\"");
        if (ferroelectric) {
            const std::size_t cycle = text.find("write_cycle_ms", at);
            text.erase(cycle, text.find('\n', cycle) - cycle);
        }
        writeFile(machine() / "machine.toml", text.insert(at, keys + "\n"));
    }
    /// Writes `length` bytes 'n' from an offset; checks exit code and one line.
    void fails(int exit, std::size_t offset, std::size_t length, const std::string& text) const
    {
        EXPECT_THAT(complaint(exit, {"seeprom", "write", "power-vpd", "--offset", std::to_string(offset), "-i",
                                     file("new", std::string(length, 'n')), "--yes", "--force"}),
                    HasSubstr(text));
    }
    [[nodiscard]] json lastEntry() const { return json::parse(says({"errors", "show", "last", "--json"})); }
    void expectEntry(std::uint32_t returnCode, const char* userData) const
    {
        EXPECT_EQ(returnCode, lastEntry().at("return_code"));
        EXPECT_EQ(json::parse(userData), lastEntry().at("srcs").at(0).at("user_data"));
    }
};

TEST_F(KestctlReadBack, AProtectedChipWasNeverBusy)
{
    makePower("protect = \"silent\"");
    fails(
        5, 64, 96,
        "power-vpd: verify: what was read back differs from offset 64 (0x40) on: wrote 6e, read aa; the chip is "
        "write-protected: it holds the old bytes, and was never busy after a page; check its write-protect pin and the "
        "area that it protects; 'kestctl seeprom restore ");
    expectEntry(0x80001704, "[64, 3, 3, 0]");
}

TEST_F(KestctlReadBack, AProtectedPartOfAChipIsToldFromTheRest)
{
    makePower("protect = \"silent\"\nprotect_area = \"half\"");
    fails(5, 1984, 128,
          "differs from offset 2048 (0x800) on: wrote 6e, read aa; part of the chip is write-protected: 2 of 4 pages "
          "hold "
          "the old bytes, and the chip was not busy after them; check its write-protect pin");
    expectEntry(0x80001704, "[2048, 2, 4, 0]");
}

TEST_F(KestctlReadBack, AChipThatRefusesDataBytesIsProtected)
{
    makePower("protect = \"nak\"");
    fails(1, 64, 96,
          "power-vpd: write: the chip is write-protected: it refused a data byte, and holds the old bytes; the first 0 "
          "of "
          "96 bytes are certain (read back); 'kestctl seeprom restore ");
    const RunResult result = kestctl({"--json", "seeprom", "write", "power-vpd", "--hex", "01", "--yes", "--force"});
    EXPECT_EQ("write-protected", json::parse(result.output).at("error").at("verdict"));
}

/// The second page is lost, and the chip does not come back.
TEST_F(KestctlReadBack, AChipThatStaysBusyIsNotCalledProtected)
{
    fault({"stuck-write-cycle", "--bus", "planar", "--address", "0xA8", "--nth", "2", "--count", "1"});
    fails(1, 0, 96,
          "power-vpd: write: the chip does not come back from the write cycle of a page; how many bytes arrived is not "
          "known: reading back failed, too; ");
}

TEST_F(KestctlReadBack, APartThatIsNeverBusyHidesItsProtection)
{
    makePower("kind = \"fram\"\nprotect = \"silent\"\nprotect_area = \"half\"", true);
    fails(5, 1984, 128,
          "differs from offset 2048 (0x800) on: wrote 6e, read aa; 2 of 4 pages hold the old bytes; whether they are "
          "write-protected is not known: this chip is never busy; check its write-protect pin");
    expectEntry(0x80001701, "[2048, 110, 170, 0]");
}

TEST_F(KestctlReadBack, AnAdapterWithoutEmptyMessagesShowsProtectionToo)
{
    makePower("protect = \"silent\"");
    std::string text = readFile(machine() / "machine.toml");
    const std::string head = "[[bus]]\n";
    text.insert(text.find(head) + head.size(), "adapter = { no_empty_messages = true }\n");
    writeFile(machine() / "machine.toml", text);
    // the chip is asked by a read then
    fails(5, 64, 32, "the chip is write-protected: it holds the old bytes, and was never busy after a page");
}

TEST_F(KestctlReadBack, TwoReadsThatDifferAreFlaky)
{
    // before the reads back go four of the width proof and two of the old bytes
    for (const auto& [nth, byte] : {std::pair("7", "2"), std::pair("8", "3")}) {
        fault({"corrupt", "--bus", "planar", "--address", "0xA8", "--way", "read", "--nth", nth, "--count", "1",
               "--byte", byte, "--value", "0xFF"});
    }
    const RunResult result = kestctl({"seeprom", "write", "power-vpd", "--hex", "0102030405", "--yes", "--force"});
    EXPECT_EQ(5, result.exit);
    EXPECT_THAT(
        result.errors,
        HasSubstr("kestctl: power-vpd: verify: what was read back differs from offset 3 (0x3) on: wrote 04, read "
                  "fb; two reads differ in 2 bytes: what the chip holds is not known; try --voted 5, or a lower "
                  "--speed; 'kestctl seeprom restore "));
    expectEntry(0x80001705, "[2, 2, 5, 0]");
    EXPECT_EQ("\x01\x02\x03\x04\x05", image("power").substr(0, 5));
}

/// Two reads agree, on bytes that nobody wrote.
TEST_F(KestctlReadBack, BytesThatAreNeitherOldNorNewPointAtTheType)
{
    for (const char* nth : {"7", "8"}) {
        fault({"corrupt", "--bus", "planar", "--address", "0xA8", "--way", "read", "--nth", nth, "--count", "1",
               "--byte", "2", "--value", "0x10"});
    }
    EXPECT_THAT(
        complaint(5, {"seeprom", "write", "power-vpd", "--hex", "0102030405", "--yes", "--force"}),
        HasSubstr("differs from offset 2 (0x2) on: wrote 03, read 13; two reads agree on bytes that are neither old "
                  "nor new: check the type of the device; 'kestctl seeprom restore "));
    expectEntry(0x80001701, "[2, 3, 19, 0]");
}

/// The fifth byte of a page write is its third data byte; reads send two.
TEST_F(KestctlReadBack, LostArbitrationIsNoProtection)
{
    fault({"arbitration", "--bus", "planar", "--address", "0xA8", "--way", "write", "--byte", "5"});
    fails(
        1, 64, 32,
        "power-vpd: write: another controller won the bus each time it was tried; the first 0 of 32 bytes are certain "
        "(read back); 'kestctl seeprom restore ");
    const RunResult result =
        kestctl({"--json", "seeprom", "write", "power-vpd", "--hex", "01020304", "--yes", "--force"});
    EXPECT_EQ("arbitration-lost", json::parse(result.output).at("error").at("verdict"));
}

TEST_F(KestctlReadBack, AWriteThatEndsShortIsNoProtection)
{
    fault({"short", "--bus", "planar", "--address", "0xA8", "--way", "write", "--byte", "3"});
    const RunResult result =
        kestctl({"--json", "seeprom", "write", "power-vpd", "--hex", "01020304", "--yes", "--force"});
    EXPECT_EQ(1, result.exit);
    EXPECT_EQ("short", json::parse(result.output).at("error").at("verdict"));
}

TEST_F(KestctlReadBack, AReadBackThatFailsLeavesAWrittenChip)
{
    fault({"short", "--bus", "planar", "--address", "0xA8", "--way", "read", "--nth", "7", "--count", "1"});
    const std::string line = complaint(1, {"seeprom", "write", "power-vpd", "--hex", "0102030405", "--yes", "--force"});
    EXPECT_THAT(line, StartsWith("power-vpd: verify: all 5 bytes are written, but reading them back failed: the "
                                 "transfer ended before its last byte; 'kestctl seeprom restore "));
    EXPECT_THAT(line, HasSubstr("state/undo/power-vpd-"));
    EXPECT_EQ("\x01\x02\x03\x04\x05", image("power").substr(0, 5));
}

TEST_F(KestctlReadBack, FailuresOfReadsHaveEntriesOfTheirOwn)
{
    for (const char* attempt : {"1", "3", "5", "7", "9"}) {
        fault({"hub-hold-sda", "--bus", "planar", "--address", "0x80", "--way", "read", "--nth", attempt, "--count",
               "1"});
    }
    EXPECT_THAT(
        complaint(1, {"seeprom", "read", "riser-vpd", "--length", "64"}),
        HasSubstr("5 reads through the hub at offset 0 did not settle; 'kestctl trace' shows what the hub reported "
                  "[log 0x"));
    clearFaults();
    expectEntry(0x80001706, "[0, 5, 0, 0]");
    for (const char* nth : {"1", "2", "3"}) {
        fault({"corrupt", "--bus", "planar", "--address", "0xA8", "--way", "read", "--nth", nth, "--count", "1",
               "--byte", "2", "--value", nth});
    }
    const RunResult voted = kestctl({"seeprom", "read", "power-vpd", "--length", "4", "--voted", "3"});
    EXPECT_EQ(1, voted.exit);
    EXPECT_THAT(voted.errors, HasSubstr("no majority at offset 2 (0x2) in 3 reads; "));
    expectEntry(0x80001707, "[2, 3, 0, 0]");
    says({"copy", "import", "panel-vpd", file("five", "12345"), "--force"});
    EXPECT_THAT(complaint(1, {"seeprom", "read", "panel-vpd", "--mode", "file"}),
                HasSubstr("5 of 256 bytes came from offset 0"));
    expectEntry(0x80001708, "[0, 256, 5, 0]");
}

/// The chip takes the bytes of the second page for the first one: a bit of the offset came otherwise.
TEST_F(KestctlReadBack, APageThatABusyChipDoesNotHoldIsLost)
{
    fault({"corrupt", "--bus", "planar", "--address", "0xA8", "--way", "write", "--nth", "20", "--count", "1", "--byte",
           "1", "--value", "0x20"});
    fails(
        5, 64, 96,
        "power-vpd: verify: what was read back differs from offset 96 (0x60) on: wrote 6e, read aa; 1 of 3 pages hold "
        "the old bytes, although the chip was busy after them: they were lost; try again; 'kestctl seeprom restore ");
    EXPECT_EQ(std::string(32, 'n') + std::string(32, '\xAA') + std::string(32, 'n'), image("power").substr(64, 96));
    says({"seeprom", "undo", "power-vpd", "--yes"});
    const RunResult again = kestctl({"--json", "seeprom", "write", "power-vpd", "--offset", "64", "-i",
                                     file("new", std::string(96, 'n')), "--yes"});
    EXPECT_EQ(0, again.exit);
    EXPECT_EQ(std::string(96, 'n'), image("power").substr(64, 96));
}

} // namespace
} // namespace kest::test
