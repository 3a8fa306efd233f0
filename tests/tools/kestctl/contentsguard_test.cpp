/// Writes of contents with wrong checksums, and over contents of a known format.
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
using testing::StartsWith;

/// A table with product name "AB" and serial number "S1".
const std::string table("TlvInfo\0\x01\0\x0E!\x02"
                        "AB#\x02S1\xFE\x04\x44\x60\x4B\x07",
                        25);

std::string filled(std::string bytes, std::size_t length)
{
    bytes.resize(length, '\xFF');
    return bytes;
}

/// The table with another byte at an offset.
std::string damaged(std::size_t at, char byte)
{
    std::string bytes = table;
    bytes.at(at) = byte;
    return bytes;
}

class KestctlContents : public SeepromTest
{
protected:
    void panel(const std::string& content) const { writeFile(machine() / "panel.bin", filled(content, 256)); }
    [[nodiscard]] std::vector<std::string> writeOf(const std::string& content, const std::string& offset = "0") const
    {
        return {"seeprom", "write", "panel-vpd", "-i", file("new", content), "--offset", offset, "--yes"};
    }
    static constexpr const char* wrongSum =
        "panel-vpd: contents: the part would hold contents of the format tlvinfo (TlvInfo system EEPROM) that are "
        "damaged: crc: stored is 0x44604B08, computed is 0x44604B07; 'kestctl seeprom make tlvinfo' makes a whole "
        "image; --force "
        "writes all the same";
};

TEST_F(KestctlContents, WithAWrongChecksumAreRefusedWithoutATerminal)
{
    panel("");
    EXPECT_EQ(wrongSum, complaint(3, writeOf(damaged(24, '\x08'))));
    EXPECT_EQ(std::string(256, '\xFF'), image("panel"));
    EXPECT_FALSE(std::filesystem::exists(machine() / "state/undo"));
    says(writeOf(table));
    EXPECT_EQ(filled(table, 256), image("panel"));
}

TEST_F(KestctlContents, AreJudgedWithWhatIsNotWritten)
{
    panel(table);
    // the last byte of the checksum alone
    EXPECT_EQ(wrongSum, complaint(3, writeOf("\x08", "24")));
    // the first half of another table: the second half is the present one
    EXPECT_THAT(complaint(3, writeOf(damaged(13, 'x').substr(0, 16))),
                HasSubstr("crc: stored is 0x44604B07, computed"));
    // the second half of a table whose first half is there
    panel(table.substr(0, 16));
    says(writeOf(table.substr(16), "16"));
    EXPECT_EQ(filled(table, 256), image("panel"));
}

TEST_F(KestctlContents, ThatPassTheirEndAreRefused)
{
    panel("");
    EXPECT_THAT(complaint(3, writeOf(damaged(10, '\x08'))), HasSubstr(" that are damaged: "));
    EXPECT_THAT(complaint(3, writeOf(damaged(16, '\x20'))),
                HasSubstr(" that are damaged: serialNumber: its length is 32"));
    EXPECT_EQ(std::string(256, '\xFF'), image("panel"));
}

TEST_F(KestctlContents, OfAKnownFormatAreNotReplacedByOthers)
{
    panel(table);
    const std::string line = "panel-vpd: contents: the part holds contents of the format tlvinfo (TlvInfo system "
                             "EEPROM), and would hold another format: none that is known; --force writes all the same";
    EXPECT_EQ(line, complaint(3, writeOf(std::string(256, '\xFF'))));
    EXPECT_EQ(line, complaint(3, writeOf("x")));
    const std::string edid = readFile(std::string(sourceFolder) + "/examples/images/edid-128-dell-e178wfp-vga.bin");
    EXPECT_THAT(complaint(3, writeOf(edid)), HasSubstr("and would hold another format: edid; --force"));
    EXPECT_EQ(filled(table, 256), image("panel"));
    const std::string dump = (folder() / "dump.json").string();
    says({"seeprom", "dump", "panel-vpd", "-o", dump});
    panel(edid);
    EXPECT_THAT(complaint(3, {"seeprom", "restore", dump, "--yes"}),
                HasSubstr("would hold another format: tlvinfo; --force"));
    EXPECT_EQ(filled(edid, 256), image("panel"));
}

TEST_F(KestctlContents, AreWrittenWhenForcedAndBroughtBackByUndo)
{
    panel(table);
    std::vector<std::string> forced = writeOf("x");
    forced.emplace_back("--force");
    EXPECT_THAT(says(forced), HasSubstr("panel-vpd: wrote 1 byte in 1 page"));
    EXPECT_EQ('x', image("panel")[0]);
    says({"seeprom", "undo", "panel-vpd", "--yes"});
    EXPECT_EQ(filled(table, 256), image("panel"));
    // what was there before is brought back even if it is damaged
    says({"seeprom", "undo", "panel-vpd", "--yes"});
    EXPECT_EQ('x', image("panel")[0]);
}

TEST_F(KestctlContents, BehindTheirEndAreNoMatter)
{
    panel(table);
    says(writeOf("free", "25"));
    says(writeOf("free", "200"));
    EXPECT_EQ("free", image("panel").substr(200, 4));
}

TEST_F(KestctlContents, AreToldInADryRun)
{
    panel(table);
    std::vector<std::string> rehearsed = writeOf("\x08", "24");
    rehearsed.back() = "--dry-run";
    EXPECT_THAT(says(rehearsed), AllOf(HasSubstr("panel-vpd: would write 1 byte in 1 page"),
                                       EndsWith("computed is 0x44604B07; a write asks, or needs --force\n")));
    rehearsed.emplace_back("--json");
    const json told = json::parse(says(rehearsed)).at("contents");
    EXPECT_EQ("tlvinfo", told.at("before"));
    EXPECT_EQ("tlvinfo", told.at("after"));
    EXPECT_EQ(
        "the part would hold contents of the format tlvinfo (TlvInfo system EEPROM) that are damaged: crc: stored "
        "is 0x44604B08, computed is 0x44604B07",
        told.at("doubt"));
    EXPECT_EQ(filled(table, 256), image("panel"));
}

TEST_F(KestctlContents, AreAskedAboutOnATerminal)
{
    panel(table);
    {
        Program asked("kestctl", writeOf("\x08", "24"), configured({.terminal = true}));
        EXPECT_TRUE(asked.waitFor("computed is 0x44604B07. Go on? [y/N]"));
        asked.type("n\n");
        EXPECT_EQ(3, asked.finish().exit);
    }
    EXPECT_EQ(filled(table, 256), image("panel"));
    Program asked("kestctl", writeOf("\x08", "24"), configured({.terminal = true}));
    EXPECT_TRUE(asked.waitFor("Go on? [y/N]"));
    asked.type("y\n");
    const RunResult done = asked.finish();
    EXPECT_EQ(0, done.exit);
    EXPECT_THAT(done.output, HasSubstr("; confirmed"));
    EXPECT_EQ(filled(damaged(24, '\x08'), 256), image("panel"));
}

TEST_F(KestctlContents, OfCopiesAreWrittenWithoutAQuestion)
{
    says({"copy", "import", "panel-vpd", file("copy", table), "--force"});
    says({"seeprom", "write", "panel-vpd", "--mode", "file", "--hex", "08", "--offset", "24"});
    EXPECT_EQ(damaged(24, '\x08'), says({"copy", "export", "panel-vpd", "-"}));
}

TEST_F(KestctlContents, DifferencesAreSaidInFields)
{
    panel(table);
    const std::string other = file("other", std::string("TlvInfo\0\x01\0\x0E!\x02"
                                                        "AB#\x02S2\xFE\x04\x46\x26\xF5\x5E",
                                                        25));
    EXPECT_THAT(kestctl({"seeprom", "diff", "panel-vpd", other}).output,
                EndsWith("serialNumber: S1 -> S2\ncrc: 0x44604B07 -> 0x4626F55E\n"));
    EXPECT_THAT(kestctl({"seeprom", "verify", "panel-vpd", other}).output,
                AllOf(StartsWith("panel-vpd: 5 of 25 bytes differ"), HasSubstr("\n  serialNumber: S1 -> S2\n")));
    const json told = json::parse(kestctl({"--json", "seeprom", "diff", "panel-vpd", other}).output).at("fields");
    EXPECT_EQ("tlvinfo", told.at("format"));
    EXPECT_EQ(json::parse(R"({"field": "serialNumber", "old": "S1", "new": "S2", "offset": 17})"),
              told.at("fields").at(0));
    // one side has no known format
    EXPECT_EQ(nullptr,
              json::parse(kestctl({"--json", "seeprom", "diff", "panel-vpd", file("none", "x")}).output).at("fields"));
}

TEST_F(KestctlContents, DifferencesOfCopiesAndDumpsAreSaidInFields)
{
    panel(table);
    const std::string dump = (folder() / "dump.json").string();
    EXPECT_EQ("", says({"seeprom", "dump", "panel-vpd", "-o", dump}));
    says({"copy", "capture", "panel-vpd"});
    says({"seeprom", "set", "panel-vpd", "serialNumber=S2", "--yes"});
    const std::string lines = "serialNumber: S1 -> S2\ncrc: 0x44604B07 -> 0x4626F55E\n";
    EXPECT_THAT(kestctl({"copy", "verify", "panel-vpd"}).output, HasSubstr("\n  serialNumber: S1 -> S2\n"));
    EXPECT_THAT(says({"copy", "capture", "panel-vpd", "--yes"}), HasSubstr("\n  serialNumber: S1 -> S2\n"));
    EXPECT_EQ(lines, says({"seeprom", "dump", "panel-vpd", "-o", dump}));
    EXPECT_EQ("", says({"seeprom", "dump", "panel-vpd", "-o", dump}));
}

} // namespace
} // namespace kest::test
