/// kestctl seeprom set and make: fields instead of bytes.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// A table with product name "AB" and serial number "S1".
const std::string table("TlvInfo\0\x01\0\x0E!\x02"
                        "AB#\x02S1\xFE\x04\x44\x60\x4B\x07",
                        25);
/// The same with serial number "S1234".
const std::string longer("TlvInfo\0\x01\0\x11!\x02"
                         "AB#\x05S1234\xFE\x04\x71\xFB\x39\x62",
                         28);
/// A header and a board area of 24 bytes, serial number "S1".
const std::string fru("\x01\0\0\x01\0\0\0\xFE\x01\x03\x19\0\0\0\xC4"
                      "ACME\xC2"
                      "BD\xC2S1\xC2P1\xC0\xC1\0\xB7",
                      32);

std::string filled(std::string bytes, std::size_t length)
{
    bytes.resize(length, '\xFF');
    return bytes;
}

class KestctlSet : public SeepromTest
{
protected:
    void panel(const std::string& content) const { writeFile(machine() / "panel.bin", filled(content, 256)); }
    [[nodiscard]] static std::vector<std::string> set(const std::string& device, const std::string& field,
                                                      const std::string& option)
    {
        return {"seeprom", "set", device, field, option};
    }
};

TEST_F(KestctlSet, ADryRunShowsFieldsAndBytesAndChangesNothing)
{
    panel(table);
    EXPECT_THAT(says(set("panel-vpd", "serialNumber=S1234", "--dry-run")),
                StartsWith("header.totalLength: 14 bytes -> 17 bytes\n"
                           "serialNumber: S1 -> S1234\n"
                           "crc: 0x44604B07 -> 0x71FB3962\n"
                           "- 00000000  54 6c 76 49 6e 66 6f 00  01 00 0e 21 02 41 42 23  |TlvInfo....!.AB#|\n"
                           "+ 00000000  54 6c 76 49 6e 66 6f 00  01 00 11 21 02 41 42 23  |TlvInfo....!.AB#|\n"
                           "- 00000010  02 53 31 fe 04 44 60 4b  07 ff ff ff ff ff ff ff  |.S1..D`K........|\n"
                           "+ 00000010  05 53 31 32 33 34 fe 04  71 fb 39 62 ff ff ff ff  |.S1234..q.9b....|\n"
                           "panel-vpd: would write "));
    EXPECT_EQ(filled(table, 256), image("panel"));
    EXPECT_FALSE(std::filesystem::exists(machine() / "state/undo"));
}

TEST_F(KestctlSet, WritesAsWriteDoesAndIsUndone)
{
    panel(table);
    EXPECT_THAT(complaint(3, {"seeprom", "set", "panel-vpd", "serialNumber=S1234", "--json"}, {}), HasSubstr("--yes"));
    EXPECT_EQ(filled(table, 256), image("panel"));
    EXPECT_THAT(says(set("panel-vpd", "serialNumber=S1234", "--yes")),
                AllOf(HasSubstr("; read back and compared\n"), HasSubstr("undo: kestctl seeprom restore ")));
    EXPECT_EQ(filled(longer, 256), image("panel"));
    says({"seeprom", "undo", "panel-vpd", "--yes"});
    EXPECT_EQ(filled(table, 256), image("panel"));
}

/// What is stored can have more bytes than the text that the user gives.
TEST_F(KestctlSet, AddsFieldsThatAreLongerThanTheirText)
{
    panel(table);
    EXPECT_THAT(says(set("panel-vpd", "macCount=1", "--yes")), HasSubstr("macCount: (none) -> 1\n"));
    EXPECT_THAT(says(set("panel-vpd", "manufactureDate=2016-06-10 01:57", "--yes")),
                HasSubstr("manufactureDate: (none) -> 06/10/2016 01:57:00\n"));
}

TEST_F(KestctlSet, SaysInJsonWhatChanges)
{
    panel(table);
    const json done = json::parse(says({"--json", "seeprom", "set", "panel-vpd", "0x23=S1234", "--yes"}));
    EXPECT_EQ(json::parse(R"({"format": "tlvinfo", "fields": [
                  {"field": "header.totalLength", "old": "14 bytes", "new": "17 bytes", "offset": 9},
                  {"field": "serialNumber", "old": "S1", "new": "S1234", "offset": 17},
                  {"field": "crc", "old": "0x44604B07", "new": "0x71FB3962", "offset": 24}]})"),
              done.at("fields"));
    EXPECT_EQ(true, done.at("verified"));
    EXPECT_EQ(json::parse(R"({"before": "tlvinfo", "after": "tlvinfo", "doubt": null})"), done.at("contents"));
}

TEST_F(KestctlSet, OfTheSameValueWritesNothing)
{
    panel(table);
    EXPECT_THAT(says(set("panel-vpd", "serialNumber=S1", "--yes")),
                AllOf(StartsWith("panel-vpd: holds these "), EndsWith(" bytes already, nothing to write\n")));
}

TEST_F(KestctlSet, KeepsWhatIsBehindTheTable)
{
    const std::string used = table + std::string(3, '\0') + "keep";
    panel(used);
    EXPECT_THAT(complaint(3, set("panel-vpd", "serialNumber=S12345", "--yes")),
                StartsWith("panel-vpd: set: the table would grow to offset 29 (0x1D), but something else begins behind "
                           "its present end at 25 (0x19)"));
    EXPECT_EQ(filled(used, 256), image("panel"));
    says(set("panel-vpd", "serialNumber=S1234", "--yes"));
    EXPECT_EQ(filled(longer + "keep", 256), image("panel"));
}

TEST_F(KestctlSet, RefusesWhatNoTableTakes)
{
    panel(table);
    EXPECT_THAT(
        complaint(2, set("panel-vpd", "colour=red", "--yes")),
        StartsWith("panel-vpd: set: a TlvInfo table has no field 'colour' that can be set; fields: productName"));
    EXPECT_EQ("panel-vpd: set: baseMac can't be '00:11': a MAC address is allowed: six bytes such as "
              "00:11:22:33:44:55",
              complaint(2, set("panel-vpd", "baseMac=00:11", "--yes")));
    EXPECT_EQ("'serialNumber': expected FIELD=VALUE", complaint(2, set("panel-vpd", "serialNumber", "--yes")));
    EXPECT_EQ("'=S1': expected FIELD=VALUE", complaint(2, set("panel-vpd", "=S1", "--yes")));
    EXPECT_EQ(filled(table, 256), image("panel"));
}

TEST_F(KestctlSet, RefusesDamagedAndOtherContents)
{
    std::string damaged = table;
    damaged[13] = 'x';
    panel(damaged);
    EXPECT_THAT(
        complaint(3, set("panel-vpd", "serialNumber=S2", "--yes")),
        StartsWith("panel-vpd: set: a damaged TlvInfo table is not edited: its CRC-32 is 0x44604B07, computed "));
    EXPECT_EQ(filled(damaged, 256), image("panel"));
    panel("nothing");
    EXPECT_EQ("panel-vpd: set: its contents have no known format; formats with fields to set: fru, tlvinfo",
              complaint(3, set("panel-vpd", "serialNumber=S2", "--yes")));
    EXPECT_EQ("power-vpd: set: fields of the format ddr5 can't be set; formats with fields to set: fru, tlvinfo",
              complaint(3, set("power-vpd", "serialNumber=S2", "--yes")));
}

TEST_F(KestctlSet, MendsTheChecksumOfAnArea)
{
    panel(fru);
    EXPECT_THAT(says(set("panel-vpd", "board.serialNumber=S12", "--yes")),
                StartsWith("board.serialNumber: S1 -> S12\nboard.checksum: 0xB7 -> 0x84\n"));
    EXPECT_EQ(filled(std::string("\x01\0\0\x01\0\0\0\xFE\x01\x03\x19\0\0\0\xC4"
                                 "ACME\xC2"
                                 "BD\xC3S12\xC2P1\xC0\xC1\x84",
                                 32),
                     256),
              image("panel"));
    EXPECT_THAT(complaint(3, set("panel-vpd", "board.serialNumber=S123", "--yes")),
                HasSubstr("the board area has 24 bytes and would need 25: it can't grow over what is behind it"));
}

TEST_F(KestctlSet, ReachesAPartBehindAHubAndACopy)
{
    writeFile(machine() / "riser.bin", filled(table, 16384));
    says(set("riser-vpd", "serialNumber=S1234", "--yes"));
    EXPECT_EQ(filled(longer, 16384), image("riser"));
    says({"copy", "import", "panel-vpd", file("copy", filled(table, 256))});
    says({"seeprom", "set", "panel-vpd", "serialNumber=S1234", "--mode", "file"});
    says({"copy", "export", "panel-vpd", (folder() / "out").string()});
    EXPECT_EQ(filled(longer, 256), readFile(folder() / "out"));
}

TEST_F(KestctlSet, ChangesAFileIntoAnother)
{
    const std::string from = file("from.bin", filled(table, 40));
    const std::string to = (folder() / "to.bin").string();
    EXPECT_THAT(says({"seeprom", "set", from, "serialNumber=S1234", "-o", to}),
                HasSubstr("serialNumber: S1 -> S1234\n"));
    EXPECT_EQ(filled(longer, 40), readFile(to));
    EXPECT_EQ(filled(table, 40), readFile(from));
    EXPECT_EQ(to + ": write: there is such a file already, which is not overwritten; --force overwrites it",
              complaint(3, {"seeprom", "set", from, "serialNumber=S2", "-o", to}));
    says({"seeprom", "set", from, "serialNumber=S1", "-o", to, "--force"});
    EXPECT_EQ(filled(table, 40), readFile(to));
    EXPECT_THAT(complaint(3, {"seeprom", "set", file("short.bin", table), "serialNumber=S1234", "-o", to, "--force"}),
                HasSubstr("the table would have 28 bytes, there is room for 25"));
}

TEST_F(KestctlSet, MakesAnImageThatShowReads)
{
    const std::string made = (folder() / "made.bin").string();
    EXPECT_EQ(made + ": 25 bytes of the format tlvinfo\n",
              says({"seeprom", "make", "tlv", "productName=AB", "serialNumber=S1", "-o", made}));
    EXPECT_EQ(table, readFile(made));
    EXPECT_THAT(says({"seeprom", "show", made}), AllOf(HasSubstr("AB"), HasSubstr("S1"), Not(HasSubstr("damaged"))));
    EXPECT_EQ(made + ": write: there is such a file already, which is not overwritten; --force overwrites it",
              complaint(3, {"seeprom", "make", "tlvinfo", "-o", made}));
    const json other =
        json::parse(says({"--json", "seeprom", "make", "fru", "board.manufacturer=ACME", "board.productName=BD",
                          "board.serialNumber=S1", "board.partNumber=P1", "--size", "256", "-o", made, "--force"}));
    EXPECT_EQ(256, other.at("length"));
    EXPECT_EQ(filled(fru, 256), readFile(made));
    EXPECT_EQ(0, kestctl({"seeprom", "show", made}).exit);
    EXPECT_EQ("fru: make: the content has 8 bytes, the image 7",
              complaint(3, {"seeprom", "make", "fru", "--size", "7", "-o", made, "--force"}));
    EXPECT_THAT(complaint(2, {"seeprom", "make", "edid", "-o", made, "--force"}),
                HasSubstr("fields of the format 'edid' can't be set; formats with fields to set: fru, tlvinfo"));
    EXPECT_THAT(complaint(2, {"seeprom", "make", "nothing", "-o", made, "--force"}),
                StartsWith("'nothing' is the name of no known format; formats: "));
}

} // namespace
} // namespace kest::test
