/// Parts that the device table knows by their bytes: a write to another part is refused.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/kestd_support.h"
#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class KestctlIdentity : public SeepromTest
{
protected:
    /// The table expects `value` of a device.
    void expects(const std::string& device, const std::string& value) const
    {
        const auto toml = machine() / "kest.toml";
        std::string text = readFile(toml);
        const std::string name = "name = \"" + device + "\"\n";
        text.insert(text.find(name), "expect = " + value + "\n");
        writeFile(toml, text);
    }
    void panel(const std::string& content) const { writeFile(machine() / "panel.bin", content); }
    [[nodiscard]] std::vector<std::string> writeTo(const std::string& device, const std::string& option) const
    {
        return {"seeprom", "write", device, "--offset", "0x40", "--hex", "5A", option};
    }
    static constexpr const char* tag = R"({ offset = 4, bytes = "54 6C 76 49" })";
};

TEST_F(KestctlIdentity, OfTheExpectedPartIsSaid)
{
    expects("panel-vpd", tag);
    panel("....TlvI" + std::string(248, 'x'));
    EXPECT_EQ("panel-vpd: the part is the expected one\n"
              "panel-vpd: would write 1 byte in 1 page; unchanged: 0 pages\n"
              "panel-vpd: offset width: one offset byte, 256 bytes: behind two offset bytes it goes on as behind one\n",
              says(writeTo("panel-vpd", "--dry-run")));
    EXPECT_THAT(says(writeTo("panel-vpd", "--yes")),
                StartsWith("panel-vpd: the part is the expected one\npanel-vpd: wrote 1 byte in 1 page; "));
    EXPECT_EQ('\x5A', image("panel")[0x40]);
    const json again = json::parse(says({"--json", "seeprom", "write", "panel-vpd", "--hex", "5B", "--yes"}));
    EXPECT_EQ("as-expected", again.at("identity"));
    const json other =
        json::parse(says({"--json", "seeprom", "write", "planar-vpd", "--hex", "5B", "--yes", "--force"}));
    EXPECT_EQ("not-expected", other.at("identity"));
}

TEST_F(KestctlIdentity, OfAnotherPartIsRefusedAndShown)
{
    expects("panel-vpd", tag);
    const std::string content = "....Tlvx" + std::string(248, 'x');
    panel(content);
    const std::string line =
        "panel-vpd: identity: the device table expects 54 6c 76 49 at offset 4 \\(0x4\\), the part "
        "holds 54 6c 76 78; is it another part\\? --force writes all the same "
        "\\[log 0x[0-9A-F]+\\]";
    EXPECT_THAT(complaint(3, writeTo("panel-vpd", "--yes")), MatchesRegex(line));
    EXPECT_THAT(complaint(3, writeTo("panel-vpd", "--dry-run")), MatchesRegex(line));
    EXPECT_EQ(content, image("panel"));
    EXPECT_FALSE(std::filesystem::exists(machine() / "state/undo"));
    const json entry = json::parse(says({"errors", "show", "last", "--json"}));
    EXPECT_EQ(0x80001703U, entry.at("return_code"));
    EXPECT_EQ(json::parse("[7, 73, 120, 0]"), entry.at("srcs").at(0).at("user_data"));
    EXPECT_EQ("sim:planar,L,1C0002,A4", entry.at("device"));
}

TEST_F(KestctlIdentity, OfAnotherPartIsTakenWhenForced)
{
    expects("panel-vpd", tag);
    panel(std::string(256, 'x'));
    std::vector<std::string> forced = writeTo("panel-vpd", "--yes");
    forced.emplace_back("--force");
    EXPECT_THAT(says(forced), StartsWith("panel-vpd: the part is not the expected one; forced\npanel-vpd: wrote 1 "));
    EXPECT_EQ('\x5A', image("panel")[0x40]);
}

TEST_F(KestctlIdentity, OfABlankPartIsNoMatter)
{
    expects("panel-vpd", tag);
    for (const char blank : {'\xFF', '\0'}) {
        panel(std::string(256, blank));
        EXPECT_THAT(says(writeTo("panel-vpd", "--yes")),
                    StartsWith("panel-vpd: the part is blank\npanel-vpd: wrote 1 "));
    }
    // bytes 4 to 7 are blank, the rest of their page is not
    panel("used\xFF\xFF\xFF\xFF" + std::string(248, '\xFF'));
    EXPECT_THAT(complaint(3, writeTo("panel-vpd", "--yes")), HasSubstr("the part holds ff ff ff ff; "));
    // one page blank in one way, another in the other
    expects("power-vpd", R"([{ offset = 0, bytes = "01" }, { offset = 64, bytes = "01" }])");
    writeFile(machine() / "power.bin", std::string(32, '\0') + std::string(4064, '\xFF'));
    EXPECT_THAT(complaint(3, writeTo("power-vpd", "--yes")), HasSubstr("at offset 0 (0x0), the part holds 00; "));
}

TEST_F(KestctlIdentity, IsCheckedAtEveryPlaceThatIsExpected)
{
    expects("panel-vpd", R"([{ offset = 0, bytes = "41" }, { offset = 0xFE, bytes = "4243" }])");
    panel("A" + std::string(253, '.') + "BC");
    EXPECT_EQ(0, kestctl(writeTo("panel-vpd", "--yes")).exit);
    panel("A" + std::string(253, '.') + "B.");
    EXPECT_THAT(complaint(3, writeTo("panel-vpd", "--yes")),
                HasSubstr("expects 42 43 at offset 254 (0xFE), the part holds 42 2e; "));
}

TEST_F(KestctlIdentity, OfALongTextShowsWhereItDiffers)
{
    expects("panel-vpd", R"({ offset = 0, bytes = "000102030405060708090A0B0C0D0E0F10111213" })");
    panel(std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10\x11\x12\x99", 20) +
          std::string(236, 'x'));
    EXPECT_THAT(complaint(3, writeTo("panel-vpd", "--yes")),
                HasSubstr("the device table expects 13 at offset 19 (0x13), the part holds 99; "));
    panel(std::string(256, 'x'));
    EXPECT_THAT(complaint(3, writeTo("panel-vpd", "--yes")),
                HasSubstr("expects 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f ... at offset 0 (0x0), the part "
                          "holds 78 78 78 78 78 78 78 78 78 78 78 78 78 78 78 78 ...; "));
}

TEST_F(KestctlIdentity, HoldsForDeviceTextsRestoresAndCopies)
{
    expects("panel-vpd", tag);
    panel(std::string(256, 'x'));
    EXPECT_THAT(complaint(3, writeTo("sim:planar,l,1c0002,a4", "--yes")), HasSubstr(": identity: the device table"));
    const std::string dump = (folder() / "dump.json").string();
    says({"seeprom", "dump", "panel-vpd", "-o", dump});
    panel(std::string(256, 'y'));
    EXPECT_THAT(complaint(3, {"seeprom", "restore", dump, "--yes"}), HasSubstr(": identity: the device table"));
    // the hardware would be refused; the copy is as expected
    says({"copy", "import", "panel-vpd", file("copy", "....TlvI..."), "--force"});
    EXPECT_THAT(says({"seeprom", "write", "panel-vpd", "--mode", "file", "--hex", "5A"}),
                StartsWith("panel-vpd: the part is the expected one\n"));
    EXPECT_EQ(std::string(256, 'y'), image("panel"));
}

TEST_F(KestctlIdentity, CanBeTheFormatOfTheContents)
{
    expects("panel-vpd", R"("edid")");
    const std::vector<std::string> write{"seeprom", "write", "panel-vpd", "--offset", "0xF0", "--hex", "5A", "--yes"};
    EXPECT_THAT(says(write), StartsWith("panel-vpd: the part is the expected one\n"));
    panel("TlvInfo" + std::string(249, '\0'));
    EXPECT_THAT(complaint(3, write), StartsWith("panel-vpd: identity: the device table expects contents of the format "
                                                "edid, the part holds tlvinfo; is it another part?"));
    panel(std::string(256, 'x'));
    EXPECT_THAT(complaint(3, write),
                HasSubstr("expects contents of the format edid, the part holds no known format; "));
    panel(std::string(256, '\xFF'));
    EXPECT_THAT(says(write), StartsWith("panel-vpd: the part is blank\n"));
}

TEST_F(KestctlIdentity, OfAFormatThatNobodyKnowsIsWrongUse)
{
    expects("panel-vpd", R"("tlvx")");
    EXPECT_THAT(complaint(2, writeTo("panel-vpd", "--yes")),
                StartsWith("panel-vpd: 'tlvx' is the name of no known format; formats: "));
    EXPECT_EQ(2, kestctl({"devices"}).exit);
}

/// Reads that recover return zeros, and zeros would pass for a blank part.
TEST_F(KestctlIdentity, BehindAHubIsReadUntilReadsAgree)
{
    expects("riser-vpd", R"({ offset = 0, bytes = "01 02" })");
    writeFile(machine() / "riser.bin", std::string(16384, 'x'));
    // the first two reads are those of the old bytes
    fault({"hub-hold-sda", "--bus", "planar", "--address", "0x80", "--way", "read", "--nth", "3", "--count", "1"});
    EXPECT_THAT(complaint(3, writeTo("riser-vpd", "--yes")),
                HasSubstr("the device table expects 01 02 at offset 0 (0x0), the part holds 78 78; "));
    EXPECT_THAT(says({"sim", "fault", "list"}), HasSubstr(", struck 1\n"));
    EXPECT_EQ(std::string(16384, 'x'), image("riser"));
}

TEST_F(KestctlIdentity, IsCheckedBeforeAWriteByMessage)
{
    expects("panel-vpd", tag);
    expects("riser-vpd", tag);
    Daemon service(folder(), {"--config", (machine() / "kest.toml").string()});
    ASSERT_TRUE(service.isReady()) << service.errors();
    panel("....Tlvx" + std::string(248, 'x'));
    const std::vector<std::string> write{"message", "write", "panel-vpd", "--hex", "5A", "--yes"};
    EXPECT_THAT(complaint(3, write),
                HasSubstr("panel-vpd: identity: the device table expects 54 6c 76 49 at offset 4 (0x4), the part holds "
                          "54 6c 76 78; "));
    EXPECT_EQ('.', image("panel")[0]);
    panel("....TlvI" + std::string(248, 'x'));
    EXPECT_EQ(0, kestctl(write).exit);
    EXPECT_EQ('\x5A', image("panel")[0]);
    EXPECT_EQ(
        "riser-vpd: identity: the device table expects bytes of it, and a message can't show what is behind a hub; "
        "'kestctl seeprom write' checks them; --force leaves it to the service",
        complaint(3, {"message", "write", "riser-vpd", "--hex", "5A", "--yes"}));
}

TEST_F(KestctlIdentity, ThatADeviceHasNoRoomForIsReported)
{
    expects("panel-vpd", R"({ offset = 255, bytes = "0102" })");
    EXPECT_EQ(
        "panel-vpd: the device table expects 2 bytes at offset 255, which pass the end: the device holds 256 bytes",
        complaint(2, writeTo("panel-vpd", "--yes")));
    expects("panel-leds", tag);
    const RunResult listed = kestctl({"devices"});
    EXPECT_EQ(2, listed.exit);
    EXPECT_EQ("kestctl: sim:planar,L,1C0002,A4: the device table expects 2 bytes at offset 255, which pass the end: "
              "the device holds 256 bytes\n"
              "kestctl: sim:planar,L,9552,C0: the device table expects bytes of a PCA9552, which can't be read at an "
              "offset\n",
              listed.errors);
}

TEST_F(KestctlIdentity, StandsInTheListOfDevices)
{
    expects("panel-vpd", R"([{ offset = 4, bytes = "54 6C" }, { offset = 0xFF, bytes = "00" }])");
    const json rows = json::parse(says({"devices", "--json"})).at("devices");
    EXPECT_EQ(json::parse(R"([{"offset":4,"bytes":"546c"},{"offset":255,"bytes":"00"}])"), rows.at(1).at("expect"));
    EXPECT_EQ(json::array(), rows.at(0).at("expect"));
}

} // namespace
} // namespace kest::test
