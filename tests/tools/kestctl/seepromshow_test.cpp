/// `seeprom show`: what the bytes of devices and files mean.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class KestctlShow : public SeepromTest
{
protected:
    /// A table of 48 bytes: product name, serial number, MAC address, count, vendor extension, type 0x77, CRC-32.
    static std::string table()
    {
        using namespace std::string_literals;
        return "TlvInfo\0\x01\0\x25!\x03"
               "Box#\x02S1$\x06\x02\0\0\0\x0A\x0B*\x02\0\x08\xFD\x05\0\0\x12\x34\xAAw\x01\x01\xFE\x04\x08\x57\x84\x22"s;
    }
    /// The same with another serial number, which its CRC-32 does not cover.
    static std::string damagedTable()
    {
        std::string bytes = table();
        bytes.at(19) = '2';
        return bytes;
    }
    /// panel-vpd has 256 bytes.
    void panel(const std::string& content) const
    {
        writeFile(machine() / "panel.bin", content + std::string(256 - content.size(), '\xFF'));
    }
};

TEST_F(KestctlShow, TheFieldsOfADevice)
{
    panel(table());
    EXPECT_EQ("panel-vpd: TlvInfo system EEPROM, 256 bytes\n"
              "\n"
              "Header\n"
              "  Identifier                TlvInfo\n"
              "  Version                   1\n"
              "  Length of the entries     37 bytes\n"
              "\n"
              "Entries\n"
              "  Product name              Box\n"
              "  Serial number             S1\n"
              "  First MAC address         02:00:00:00:0A:0B\n"
              "  MAC addresses             8\n"
              "  Vendor extension\n"
              "    IANA enterprise number  4660\n"
              "    Data                    AA\n"
              "  Type 0x77                 01\n"
              "  CRC-32                    0x08578422  good\n"
              "\n"
              "Other bytes\n"
              "  Fill                      208 bytes of 00 or FF\n"
              "\n"
              "whole, 1 checksum right\n",
              says({"seeprom", "show", "panel-vpd"}));
}

TEST_F(KestctlShow, FieldsOutsideOfAllBlocksHaveTheirValues)
{
    const std::string module = std::string(sourceFolder) + "/examples/images/sff-512-FS-DWDM-SFP10G-80.bin";
    const std::string shown = says({"seeprom", "show", module});
    EXPECT_THAT(shown, HasSubstr("\nSerial number                  D87C3000362\n"));
    EXPECT_THAT(shown, HasSubstr("\nCheck code CC_BASE             0x47  good\n"));
    EXPECT_THAT(shown, HasSubstr("\n\nAddress A2h\n"));
}

TEST_F(KestctlShow, WhereFieldsLieAndWhatTheyAreCalled)
{
    panel(table());
    const std::string shown = says({"seeprom", "show", "panel-vpd", "--offsets", "--names"});
    EXPECT_THAT(shown, HasSubstr("\n0x0000..0x000A header\n"));
    EXPECT_THAT(shown, HasSubstr("\n0x0012..0x0013   serialNumber                  S1\n"));
    EXPECT_THAT(shown, HasSubstr("\n0x0022..0x0025     vendorExtension.enterprise  4660\n"));
}

TEST_F(KestctlShow, DamageHasALineAndExitCode5)
{
    panel(damagedTable());
    const RunResult result = kestctl({"seeprom", "show", "panel-vpd"});
    EXPECT_EQ(5, result.exit);
    EXPECT_EQ("", result.errors);
    EXPECT_THAT(result.output, HasSubstr("  Serial number             S2\n"));
    EXPECT_THAT(result.output, EndsWith("\ndamaged: crc at 44 (0x2C): stored is 0x08578422, computed is 0x3DBA3271\n"
                                        "1 field damaged\n"));
}

TEST_F(KestctlShow, FieldsAndChecksumsInJson)
{
    panel(damagedTable());
    const RunResult result = kestctl({"--json", "seeprom", "show", "panel-vpd"});
    EXPECT_EQ(5, result.exit);
    const json shown = json::parse(result.output);
    EXPECT_EQ("panel-vpd", shown.at("device"));
    EXPECT_EQ(256, shown.at("length"));
    EXPECT_EQ("tlvinfo", shown.at("format"));
    EXPECT_FALSE(shown.at("whole"));
    const json& entries = shown.at("fields").at(1).at("fields");
    EXPECT_EQ(json::parse(R"({"name": "serialNumber", "label": "Serial number", "verdict": "good", "offset": 18,
                              "length": 2, "value": "S2", "text": "S2"})"),
              entries.at(1));
    EXPECT_EQ(json::parse(R"({"name": "macCount", "label": "MAC addresses", "verdict": "good", "offset": 30,
                              "length": 2, "value": 8, "text": "8", "raw": 8})"),
              entries.at(3));
    EXPECT_EQ("unknown", entries.at(5).at("verdict"));
    EXPECT_EQ("01", entries.at(5).at("value"));
    EXPECT_EQ(json::parse(R"([{"name": "crc", "offset": 44, "verdict": "damaged", "kind": "CRC-32",
                               "stored": 139953186, "computed": 1035612785, "from": 0, "bytes": 44}])"),
              shown.at("checksums"));
    EXPECT_EQ(json::parse(R"([{"name": "crc", "offset": 44,
                               "problem": "stored is 0x08578422, computed is 0x3DBA3271"}])"),
              shown.at("damaged"));
}

TEST_F(KestctlShow, AFileStandardInputAndAPersistedCopy)
{
    panel(table());
    const std::string shown = says({"seeprom", "show", file("image.bin", table())});
    EXPECT_THAT(shown, HasSubstr("image.bin: TlvInfo system EEPROM, 48 bytes\n"));
    EXPECT_THAT(shown, HasSubstr("  Serial number             S1\n"));
    EXPECT_THAT(says({"seeprom", "show", "-"}, {.input = table()}), StartsWith("-: TlvInfo system EEPROM, 48 bytes\n"));
    says({"copy", "capture", "panel-vpd"});
    const std::string copy = (machine() / "state/qorn/P3_Root/53250").string();
    EXPECT_THAT(says({"seeprom", "show", copy}), StartsWith(copy + ": TlvInfo system EEPROM, 256 bytes\n"));
    EXPECT_THAT(says({"seeprom", "show", "panel-vpd", "--mode", "file"}), HasSubstr("Serial number             S1\n"));
}

TEST_F(KestctlShow, ADamagedCopyIsRefused)
{
    panel(table());
    says({"copy", "capture", "panel-vpd"});
    const std::filesystem::path copy = machine() / "state/qorn/P3_Root/53250";
    std::string bytes = readFile(copy);
    bytes.at(48 + 19) = '2';
    writeFile(copy, bytes);
    EXPECT_THAT(complaint(1, {"seeprom", "show", copy.string()}), HasSubstr("copy export --force"));
}

TEST_F(KestctlShow, APartOfABiggerImage)
{
    const std::string image = file("image.bin", std::string(100, '\x11') + table() + "tail");
    EXPECT_THAT(says({"seeprom", "show", image, "--offset", "100", "--length", "48"}),
                HasSubstr("image.bin: TlvInfo system EEPROM, 48 bytes from offset 100\n"));
    EXPECT_THAT(complaint(2, {"seeprom", "show", image, "--offset", "152"}),
                HasSubstr("has 152 bytes: there are none at offset 152"));
    EXPECT_THAT(complaint(2, {"seeprom", "show", image, "--offset", "100", "--length", "53"}),
                HasSubstr("has 52 bytes from offset 100 on: 53 can't be shown"));
}

TEST_F(KestctlShow, WhatHasNoFormatIsSaidAndCanBeReadAsOne)
{
    const std::string image = file("image.bin", variedBytes(64));
    EXPECT_THAT(complaint(1, {"seeprom", "show", image}),
                HasSubstr("show: the bytes have no format that is known; --as FORMAT reads them as one of "));
    const RunResult result = kestctl({"seeprom", "show", image, "--as", "tlvinfo"});
    EXPECT_EQ(5, result.exit);
    EXPECT_THAT(result.output, HasSubstr("  Identifier"));
    EXPECT_THAT(complaint(2, {"seeprom", "show", image, "--as", "nothing"}), HasSubstr("'nothing' is no format"));
}

TEST_F(KestctlShow, OfManyBytesThatHaveNoMeaningTheFirstAreShown)
{
    const std::string image = file("image.bin", table() + std::string(300, 'U'));
    const std::string shown = says({"seeprom", "show", image});
    EXPECT_THAT(shown, HasSubstr("\n  Not known                 55 55 55 55 55"));
    EXPECT_THAT(shown, HasSubstr(" 55 ... 44 more\n"));
    const json all = json::parse(says({"--json", "seeprom", "show", image}));
    EXPECT_EQ(600U, all.at("fields").at(2).at("fields").at(0).at("value").get<std::string>().size());
}

TEST_F(KestctlShow, FieldsThatAreInNoBlock)
{
    const std::string image = std::string(sourceFolder) + "/examples/images/spd-256-ddr3-soldered.bin";
    EXPECT_THAT(says({"seeprom", "show", image}), testing::ContainsRegex("\n\nBytes used +176\n"));
}

TEST_F(KestctlShow, CustomTextsOfFruInformation)
{
    // a board area: five empty texts, then "AB"
    const std::string image("\x01\0\0\x01\0\0\0\xFE"
                            "\x01\x02\x19\0\0\0\xC0\xC0\xC0\xC0\xC0\xC2"
                            "AB\xC1\x1E",
                            24);
    EXPECT_THAT(says({"seeprom", "show", file("fru.bin", image)}), testing::ContainsRegex("\n  Custom 1 +AB\n"));
}

TEST_F(KestctlShow, BytesThatDoNotCarryTheFormatAreNotWhole)
{
    const RunResult result = kestctl({"seeprom", "show", "--as", "ddr4", file("zeros.bin", std::string(512, '\0'))});
    EXPECT_EQ(5, result.exit);
    EXPECT_THAT(result.output, HasSubstr("\ndamaged: the bytes that identify the format are not there\n"));
}

TEST_F(KestctlShow, WhatIsNeitherADeviceNorAFile)
{
    EXPECT_EQ("nothing: show: there is no such device and no such file; 'kestctl devices' lists the devices",
              complaint(4, {"seeprom", "show", "nothing"}));
}

TEST_F(KestctlShow, TextsOfAnImageCannotControlTheTerminal)
{
    std::string bytes = table();
    bytes.at(18) = '\x1B';
    const RunResult result = kestctl({"seeprom", "show", file("image.bin", bytes)});
    EXPECT_EQ(5, result.exit);
    EXPECT_EQ(std::string::npos, result.output.find('\x1B'));
    EXPECT_THAT(result.output, HasSubstr("  Serial number             1B 31  DAMAGED: it is not ASCII text\n"));
}

} // namespace
} // namespace kest::test
