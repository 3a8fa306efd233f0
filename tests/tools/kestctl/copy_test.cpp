/// Area "copy": copies with check sums, raw ones, damaged ones.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

/// panel-vpd has number 53250 and 256 bytes.
class KestctlCopy : public SeepromTest
{
protected:
    [[nodiscard]] std::filesystem::path copyFile(int number = 53250) const
    {
        return machine() / "state/qorn/P3_Root" / std::to_string(number);
    }
    /// Changes one bit of the copy's byte at an offset; a header of 44 bytes and a check sum are before them.
    void damage(std::size_t offset) const
    {
        std::string bytes = readFile(copyFile());
        bytes.at(48 + offset) = static_cast<char>(bytes.at(48 + offset) ^ 0x20);
        writeFile(copyFile(), bytes);
    }
    [[nodiscard]] json jsonOf(int exit, std::vector<std::string> command) const
    {
        command.insert(command.begin(), "--json");
        const RunResult result = kestctl(command);
        EXPECT_EQ(exit, result.exit) << result.output << result.errors;
        return json::parse(result.output);
    }
};

TEST_F(KestctlCopy, ACaptureKnowsItsDeviceAndItsTime)
{
    const json made = jsonOf(0, {"copy", "capture", "panel-vpd"});
    EXPECT_EQ("proved", made["state"]);
    EXPECT_EQ(256, made["size"]);
    EXPECT_EQ(256, made["device_size"]);
    EXPECT_EQ(json::array(), made["damaged"]);
    // 2020
    EXPECT_LT(1577836800000, made["captured_ms"].get<std::int64_t>());
    json listed = jsonOf(0, {"copy", "list"})["copies"];
    ASSERT_EQ(1U, listed.size());
    listed[0]["wavered"] = json::array();
    listed[0]["outvoted"] = 0;
    listed[0]["fields"] = nullptr;
    EXPECT_EQ(made, listed[0]);
    // a write to the copy is no capture
    says({"seeprom", "write", "panel-vpd", "--mode", "file", "--hex", "A55A"});
    const json written = jsonOf(0, {"copy", "list"})["copies"][0];
    EXPECT_EQ(made["captured_ms"], written["captured_ms"]);
    EXPECT_EQ("proved", written["state"]);
}

TEST_F(KestctlCopy, OfAnImportTheTimeIsNotKnown)
{
    says({"copy", "import", "panel-vpd", file("panel", std::string(256, 'p'))});
    says({"copy", "import", "5", file("five", "12345")});
    const json listed = jsonOf(0, {"copy", "list"})["copies"];
    EXPECT_EQ(5, listed.at(0)["number"]);
    EXPECT_EQ(5, listed.at(0)["size"]);
    EXPECT_EQ(nullptr, listed.at(0)["device_size"]);
    EXPECT_EQ(nullptr, listed.at(0)["captured_ms"]);
    EXPECT_EQ("proved", listed.at(0)["state"]);
    EXPECT_EQ(256, listed.at(1)["device_size"]);
    EXPECT_EQ(nullptr, listed.at(1)["captured_ms"]);
}

TEST_F(KestctlCopy, TheListShowsTheStateOfEach)
{
    says({"copy", "import", "5", file("five", "12345")});
    writeFile(copyFile(6), "raw");
    writeFile(copyFile(7), readFile(copyFile(5)).substr(0, 60));
    says({"copy", "capture", "panel-vpd"});
    damage(3);
    const std::string list = says({"copy", "list"});
    EXPECT_THAT(list, StartsWith("    NUMBER NAME                     SIZE  CAPTURED                 STATE\n"
                                 "         5                           5 B  -                        proved\n"
                                 "         6                           3 B  -                        unproved\n"
                                 "         7                             -  -                        damaged\n"
                                 "     53250 panel-vpd               256 B  2"));
    EXPECT_THAT(list, testing::EndsWith("Z damaged\n"));
    const json listed = jsonOf(0, {"copy", "list"})["copies"];
    EXPECT_EQ(nullptr, listed.at(2)["size"]);
    EXPECT_EQ(json::array(), listed.at(2)["damaged"]);
    EXPECT_EQ(json::array({0}), listed.at(3)["damaged"]);
}

TEST_F(KestctlCopy, VerifyComparesWithTheDevice)
{
    says({"copy", "capture", "panel-vpd"});
    EXPECT_THAT(says({"copy", "verify", "panel-vpd"}),
                StartsWith("copy 53250 (panel-vpd): equals the device, 256 bytes; proved, captured 2"));
    const json alike = jsonOf(0, {"copy", "verify", "0xD002"});
    EXPECT_EQ(true, alike["equal"]);
    EXPECT_EQ(0, alike["differing"]);
    EXPECT_EQ(json::array(), alike["ranges"]);

    std::string bytes = image("panel");
    for (const std::size_t at : {0U, 16U, 17U, 18U, 255U}) {
        bytes[at] = static_cast<char>(bytes[at] ^ 1);
    }
    writeFile(machine() / "panel.bin", bytes);
    const RunResult differs = kestctl({"copy", "verify", "panel-vpd"});
    EXPECT_EQ(5, differs.exit);
    EXPECT_EQ("", differs.errors);
    EXPECT_THAT(differs.output, StartsWith("copy 53250 (panel-vpd): 5 differing bytes in 3 ranges; proved, captured "));
    EXPECT_THAT(differs.output, testing::EndsWith("Z\n"
                                                  "  offset 0 (0x0): 1 byte\n"
                                                  "  offset 16 (0x10): 3 bytes\n"
                                                  "  offset 255 (0xFF): 1 byte\n"));
    const json found = jsonOf(5, {"copy", "verify", "panel-vpd"});
    EXPECT_EQ(false, found["equal"]);
    EXPECT_EQ(5, found["differing"]);
    EXPECT_EQ(json::parse(R"([{"offset": 0, "length": 1}, {"offset": 16, "length": 3}, {"offset": 255, "length": 1}])"),
              found["ranges"]);
    EXPECT_EQ(256, found["device_holds"]);
}

TEST_F(KestctlCopy, VerifySaysWhatARawCopyIsWorth)
{
    says({"copy", "capture", "panel-vpd"});
    writeFile(copyFile(), image("panel"));
    EXPECT_EQ("copy 53250 (panel-vpd): equals the device, 256 bytes; unproved (raw, without check sums)\n",
              says({"copy", "verify", "panel-vpd"}));
    const json found = jsonOf(0, {"copy", "verify", "panel-vpd"});
    EXPECT_EQ("unproved", found["state"]);
    EXPECT_EQ(nullptr, found["captured_ms"]);
}

TEST_F(KestctlCopy, VerifyCountsWhatOnlyOneOfThemHolds)
{
    says({"copy", "import", "panel-vpd", file("short", image("panel").substr(0, 250)), "--force"});
    const RunResult differs = kestctl({"copy", "verify", "panel-vpd"});
    EXPECT_EQ(5, differs.exit);
    EXPECT_EQ("copy 53250 (panel-vpd): 6 differing bytes in 1 range; proved\n"
              "  the copy holds 250 bytes, the device 256\n"
              "  offset 250 (0xFA): 6 bytes\n",
              differs.output);
}

TEST_F(KestctlCopy, VerifyNeedsACopyAndADevice)
{
    EXPECT_EQ("copy 53250 (panel-vpd): verify: there is no such copy; 'kestctl copy list' shows the copies",
              complaint(4, {"copy", "verify", "panel-vpd"}));
    says({"copy", "import", "5", file("five", "12345")});
    EXPECT_THAT(complaint(4, {"copy", "verify", "5"}), StartsWith("5: no such device in the device table; "));
}

TEST_F(KestctlCopy, ADamagedCopyIsNamedAndServedByNothing)
{
    says({"copy", "capture", "panel-vpd"});
    damage(200);
    fault({"nack", "--address", "0xA4"});
    EXPECT_EQ("copy 53250 (panel-vpd): verify: the copy is damaged: in the 4 KiB from offset 0 (0x0); 'kestctl copy "
              "capture' or 'import' makes it anew",
              complaint(1, {"copy", "verify", "panel-vpd"}))
        << "the device is not asked";
    clearFaults();
    const json found = jsonOf(1, {"copy", "verify", "panel-vpd"});
    EXPECT_EQ("damaged", found["state"]);
    EXPECT_EQ(json::array({0}), found["damaged"]);
    for (const char* mode : {"file", "mixed"}) {
        const RunResult read = kestctl({"seeprom", "read", "panel-vpd", "--mode", mode, "-o", "-"});
        EXPECT_EQ(1, read.exit);
        EXPECT_EQ("", read.output);
        EXPECT_THAT(read.errors, StartsWith("kestctl: panel-vpd: read: the persisted copy is damaged; 'kestctl copy "
                                            "verify' shows where; 'copy capture' or 'import' makes it anew [log "));
        const std::string shown = says({"errors", "show", "last"});
        EXPECT_THAT(shown, HasSubstr("0x1407 the persisted copy is damaged\n"));
        EXPECT_THAT(shown, HasSubstr(" file of the copy\n  " + copyFile().string() + "\n"));
        EXPECT_EQ(1, kestctl({"seeprom", "write", "panel-vpd", "--mode", mode, "--hex", "00", "--yes"}).exit);
    }
    const std::string before = image("panel");
    EXPECT_EQ(before, says({"seeprom", "read", "panel-vpd", "-o", "-"})) << "the hardware was left alone";
}

TEST_F(KestctlCopy, AnEmptyFileIsNoReasonToTakeTheHardware)
{
    says({"copy", "capture", "panel-vpd"});
    writeFile(copyFile(), "");
    EXPECT_EQ(1, kestctl({"seeprom", "read", "panel-vpd", "--mode", "mixed"}).exit);
}

TEST_F(KestctlCopy, ADamagedCopyIsExportedByForceAlone)
{
    says({"copy", "capture", "panel-vpd"});
    damage(0);
    const std::string target = (folder() / "target").string();
    EXPECT_EQ("copy 53250 (panel-vpd): read: the copy is damaged; 'kestctl copy verify 53250' shows where",
              complaint(1, {"copy", "export", "panel-vpd", target}));
    EXPECT_FALSE(std::filesystem::exists(target));
    std::string bytes = image("panel");
    bytes[0] = static_cast<char>(bytes[0] ^ 0x20);
    EXPECT_EQ(bytes, says({"copy", "export", "panel-vpd", "-", "--force"}));
    // the header, too
    writeFile(copyFile(), "X" + readFile(copyFile()).substr(1));
    EXPECT_EQ(true, jsonOf(0, {"copy", "export", "panel-vpd", target, "--force"})["salvaged"]);
    EXPECT_EQ(bytes, readFile(target));
}

TEST_F(KestctlCopy, ADamagedCopyIsReplacedAndRemoved)
{
    says({"copy", "capture", "panel-vpd"});
    writeFile(copyFile(), readFile(copyFile()).substr(1));
    EXPECT_THAT(complaint(3, {"copy", "capture", "panel-vpd"}), HasSubstr("replace it? not confirmed"));
    says({"copy", "capture", "panel-vpd", "--yes"});
    EXPECT_EQ(image("panel"), says({"copy", "export", "panel-vpd", "-"}));
    damage(1);
    says({"copy", "remove", "panel-vpd", "--yes"});
    EXPECT_FALSE(std::filesystem::exists(copyFile()));
}

TEST_F(KestctlCopy, TheFileOfACopyIsNotImported)
{
    says({"copy", "import", "5", file("five", "12345")});
    EXPECT_EQ(copyFile(5).string() + " is the file of a copy, with check sums, and no raw bytes; 'kestctl copy export' "
                                     "writes raw bytes; --force takes it as it is",
              complaint(2, {"copy", "import", "6", copyFile(5).string()}));
    says({"copy", "import", "6", copyFile(5).string(), "--force"});
    EXPECT_EQ(readFile(copyFile(5)), says({"copy", "export", "6", "-"}));
}

} // namespace
} // namespace kest::test
