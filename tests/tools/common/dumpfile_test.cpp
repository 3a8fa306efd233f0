/// Dump and undo files: what they contain, which are refused, and where `restore` writes the bytes.
#include <algorithm>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

const std::string fortyBytes = "0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVW";

class KestctlDump : public SeepromTest
{
protected:
    /// A dump of the 40 bytes at offset 8 of panel-vpd, whose other bytes are 0xAA.
    [[nodiscard]] std::string dumped() const
    {
        writeFile(machine() / "panel.bin", std::string(8, '\xAA') + fortyBytes + std::string(208, '\xAA'));
        const std::string name = (folder() / "dump.json").string();
        EXPECT_EQ("", says({"seeprom", "dump", "panel-vpd", "--offset", "8", "--length", "40", "-o", name}));
        return name;
    }
    /// The complaint of `restore` about a file with this content.
    std::string refusal(const std::string& content) const
    {
        const std::string name = file("edited.json", content);
        const std::string line = complaint(2, {"seeprom", "restore", name, "--yes"});
        EXPECT_THAT(line, testing::StartsWith(name + ": ")) << content;
        return line.substr(std::min(line.size(), name.size() + 2));
    }
    /// Puts another read mode into the registry.
    void useReadMode(const std::string& mode) const
    {
        std::string text = readFile(machine() / "kest.toml");
        const std::size_t at = text.find("HWareMode");
        ASSERT_NE(std::string::npos, at) << text;
        writeFile(machine() / "kest.toml", text.replace(at, 9, mode));
    }
};

/// 40 is no multiple of the 32 bytes of a line. Another program computed the sum of the line
/// {"format":"kest-dump-2","device":"sim:planar,L,1C0002,A4",...,"data":["3031...","5051..."]}.
TEST_F(KestctlDump, HoldsWhatBelongsToTheBytesAndASumOfAllOfIt)
{
    EXPECT_EQ(R"({
  "format": "kest-dump-2",
  "device": "sim:planar,L,1C0002,A4",
  "name": "panel-vpd",
  "number": 53250,
  "mode": "hardware",
  "offset": 8,
  "length": 40,
  "data": [
    "303132333435363738393a3b3c3d3e3f404142434445464748494a4b4c4d4e4f",
    "5051525354555657"
  ],
  "sum": "4b8100c9"
}
)",
              readFile(dumped()));
}

TEST_F(KestctlDump, ALastLineThatIsNotFullIsRestored)
{
    const std::string dump = dumped();
    const std::string before = image("panel");
    writeFile(machine() / "panel.bin", std::string(256, 'x'));
    says({"seeprom", "restore", dump, "--yes"});
    EXPECT_EQ(std::string(8, 'x') + fortyBytes + std::string(208, 'x'), image("panel"));

    writeFile(machine() / "panel.bin", before);
    const std::string zeros = file("zeros", std::string(40, '\0'));
    const json written = json::parse(
        says({"--json", "seeprom", "write", "panel-vpd", "-i", zeros, "--offset", "8", "--all-pages", "--yes"}));
    EXPECT_NE(before, image("panel"));
    says({"seeprom", "restore", written["undo_file"], "--yes"});
    EXPECT_EQ(before, image("panel"));
}

TEST_F(KestctlDump, AnEditedValueIsFound)
{
    const json content = json::parse(readFile(dumped()));
    const auto before = image("panel");
    std::string line = content["data"][0];
    line[0] = '4';
    for (const auto& [key, value] : std::vector<std::pair<std::string, json>>{{"device", "sim:planar,L,1C0002,A6"},
                                                                              {"name", "other"},
                                                                              {"number", 53249},
                                                                              {"mode", "file"},
                                                                              {"offset", 16},
                                                                              {"sum", "4b8100ca"},
                                                                              {"data", {line, content["data"][1]}}}) {
        json edited = content;
        edited[key] = value;
        EXPECT_EQ("the check sum does not match the contents: the file was changed", refusal(edited.dump())) << key;
    }
    EXPECT_EQ(before, image("panel"));
}

TEST_F(KestctlDump, IsReadStrictly)
{
    const std::string text = readFile(dumped());
    const auto with = [&text](const std::string& old, const std::string& now) {
        std::string edited = text;
        EXPECT_NE(std::string::npos, edited.find(old)) << old;
        return edited.replace(edited.find(old), old.size(), now);
    };
    const std::string number = "expected a whole number of 32 bits";
    EXPECT_EQ("key \"offset\": " + number, refusal(with("\"offset\": 8", "\"offset\": 8.9")));
    EXPECT_EQ("key \"offset\": " + number, refusal(with("\"offset\": 8", "\"offset\": 8.0")));
    EXPECT_EQ("key \"offset\": " + number, refusal(with("\"offset\": 8", "\"offset\": -1")));
    EXPECT_EQ("key \"offset\": " + number, refusal(with("\"offset\": 8", "\"offset\": \"8\"")));
    EXPECT_EQ("key \"offset\": " + number, refusal(with("\"offset\": 8", "\"offset\": true")));
    EXPECT_EQ("key \"offset\": " + number, refusal(with("\"offset\": 8", "\"offset\": 4294967296")));
    EXPECT_EQ("key \"number\": " + number, refusal(with("53250", "53250.5")));
    EXPECT_EQ("key \"length\": " + number, refusal(with("\"length\": 40", "\"length\": 40.5")));
    EXPECT_EQ("key \"offset\": is there twice", refusal(with("\"offset\": 8", "\"offset\": 16, \"offset\": 8")));
    EXPECT_EQ("key \"data\": is there twice", refusal(with("\"data\"", "\"data\": [], \"data\"")));
    EXPECT_EQ("key \"more\": is not known", refusal(with("\"offset\"", "\"more\": 1, \"offset\"")));
    EXPECT_EQ("key \"number\": " + number, refusal(with("\"number\": 53250,", "")));
    EXPECT_EQ("key \"mode\": expected \"hardware\" or \"file\"", refusal(with("\"hardware\"", "\"mixed\"")));
    EXPECT_EQ("key \"length\": the data hold 40 bytes", refusal(with("\"length\": 40", "\"length\": 41")));
    EXPECT_EQ("key \"format\": expected \"kest-dump-2\"", refusal(with("kest-dump-2", "kest-dump-3")));
    EXPECT_EQ("not a dump file (no JSON object); 'kestctl seeprom dump' makes one", refusal("[]"));
}

TEST_F(KestctlDump, LayoutDoesNotCount)
{
    // one line, keys in another order
    const std::string squeezed = json::parse(readFile(dumped())).dump();
    says({"seeprom", "restore", file("squeezed.json", squeezed), "--yes"});
}

TEST_F(KestctlDump, OfTheFormatBeforeIsTakenAndCalledUnproved)
{
    const std::string old = R"({"format": "kest-dump-1", "device": "sim:planar,L,1C0002,A4", "name": "panel-vpd",
        "offset": 8, "length": 40, "sum": "074b4918",
        "data": ["303132333435363738393a3b3c3d3e3f404142434445464748494a4b4c4d4e4f", "5051525354555657"]})";
    const std::string name = file("old.json", old);
    writeFile(machine() / "panel.bin", std::string(256, 'x'));
    const RunResult restored = kestctl({"seeprom", "restore", name, "--yes"});
    EXPECT_EQ(0, restored.exit);
    EXPECT_EQ("kestctl: " + name + ": an older dump: its sum covers the data alone, device and offset are not proved\n",
              restored.errors);
    EXPECT_EQ(fortyBytes, image("panel").substr(8, 40));
    EXPECT_EQ("the check sum does not match the data: the file was changed",
              refusal(std::string(old).replace(old.find("074b4918"), 8, "074b4919")));
    EXPECT_EQ("key \"offset\": expected a whole number of 32 bits",
              refusal(std::string(old).replace(old.find(": 8,"), 4, ": 3.9,")));
}

TEST_F(KestctlDump, IntoAFileIsReportedInJson)
{
    const std::string name = (folder() / "dump.json").string();
    EXPECT_EQ(
        json::parse(R"({"device":"panel-vpd","text":"sim:planar,L,1C0002,A4","offset":8,"length":40,"output":")" +
                    name + R"(","wavered":[],"outvoted":0,"fields":null})"),
        json::parse(says({"--json", "seeprom", "dump", "panel-vpd", "--offset", "8", "--length", "40", "-o", name})));
    EXPECT_EQ("kest-dump-2", json::parse(says({"--json", "seeprom", "dump", "panel-vpd"})).at("format"));
}

/// There is no question about the chip, and the copy's bytes are not written to it.
TEST_F(KestctlDump, AWriteThatTheCopyServesIsAllTheCopys)
{
    const std::string chip(256, 'd');
    const std::string copy(256, 'c');
    const std::string toml = readFile(machine() / "kest.toml");
    for (const auto& [mode, readMode] : {std::pair("mixed", "HWareMode"), std::pair("registry", "MixedMode"),
                                         std::pair("registry", "FileMode"), std::pair("file", "HWareMode")}) {
        SCOPED_TRACE(std::string(mode) + " " + readMode);
        writeFile(machine() / "kest.toml", toml);
        writeFile(machine() / "panel.bin", chip);
        says({"copy", "import", "panel-vpd", file("copy", copy), "--yes"});
        useReadMode(readMode);
        const json written =
            json::parse(says({"--json", "seeprom", "write", "panel-vpd", "--mode", mode, "--hex", "4D4E"}));
        EXPECT_EQ("file", written["mode"]);
        EXPECT_EQ("MN" + copy.substr(2), says({"copy", "export", "panel-vpd", "-"}));
        EXPECT_EQ("file", json::parse(readFile(written["undo_file"])).at("mode"));
        EXPECT_THAT(says({"seeprom", "write", "panel-vpd", "--mode", mode, "--hex", "4F"}),
                    testing::StartsWith("panel-vpd (persisted copy): wrote 1 byte in 1 page; "));
        says({"seeprom", "restore", written["undo_file"]});
        EXPECT_EQ(copy, says({"copy", "export", "panel-vpd", "-"}));
        EXPECT_EQ(chip, image("panel"));
    }
}

TEST_F(KestctlDump, OfACopyGoesBackToTheCopy)
{
    const std::string chip(256, 'd');
    const std::string copy(256, 'c');
    writeFile(machine() / "panel.bin", chip);
    says({"copy", "import", "panel-vpd", file("copy", copy)});
    const std::string dump = (folder() / "dump.json").string();
    says({"seeprom", "dump", "panel-vpd", "--mode", "mixed", "-o", dump});
    says({"copy", "import", "panel-vpd", file("other", std::string(256, 'o')), "--yes"});
    says({"seeprom", "restore", dump});
    EXPECT_EQ(copy, says({"copy", "export", "panel-vpd", "-"}));
    EXPECT_EQ(chip, image("panel"));
    // to the chip only with --mode, and with a confirmation
    EXPECT_EQ(3, kestctl({"seeprom", "restore", dump, "--mode", "hardware"}).exit);
    says({"seeprom", "restore", dump, "--mode", "hardware", "--yes"});
    EXPECT_EQ(copy, image("panel"));
}

/// Copies belong to device numbers.
TEST_F(KestctlDump, TheCopyOfANumberIsThatOfItsFirstPosition)
{
    const auto toml = machine() / "kest.toml";
    writeFile(toml, readFile(toml) + "\n[[device]]\nnumber = 0xD002\nposition = 1\nname = \"panel-b\"\n"
                                     "location = \"sim:planar,L,2C0032,A8\"\n");
    const std::string copy(256, 'c');
    says({"copy", "import", "panel-vpd", file("copy", copy)});
    const std::string other = file("other", std::string(4096, 'o'));
    constexpr auto why = "panel-b: persisted copies are kept by device number alone, and the copy of 0xD002 is that of "
                         "panel-vpd, at position 0; give it a number of its own in the device table";
    EXPECT_EQ(why, complaint(2, {"copy", "import", "panel-b", other, "--yes"}));
    EXPECT_EQ(why, complaint(2, {"copy", "capture", "panel-b", "--yes"}));
    EXPECT_EQ(why, complaint(2, {"copy", "remove", "panel-b", "--yes"}));
    EXPECT_EQ(why, complaint(2, {"seeprom", "read", "panel-b", "--mode", "file"}));
    // the device has no copy
    EXPECT_EQ(image("power").substr(0, 4),
              says({"seeprom", "read", "panel-b", "--mode", "mixed", "--length", "4", "-o", "-"}));
    EXPECT_EQ(copy, says({"copy", "export", "panel-vpd", "-"}));
    EXPECT_EQ(copy, says({"copy", "export", "0xD002", "-"}));
}

TEST_F(KestctlDump, ACopyOfAnotherSizeThanItsDeviceIsRefused)
{
    const std::string small = file("small", "12345");
    const std::string large = file("large", std::string(257, 'x'));
    EXPECT_EQ("copy 53250 (panel-vpd): " + small +
                  " holds 5 bytes, the device 256; --force makes a copy of it all the "
                  "same",
              complaint(2, {"copy", "import", "panel-vpd", small, "--yes"}));
    EXPECT_EQ("copy 53250 (panel-vpd): " + large +
                  " holds 257 bytes, the device 256; --force makes a copy of it all the "
                  "same",
              complaint(2, {"copy", "import", "0xD002", large, "--yes"}));
    EXPECT_EQ("no persisted copies; 'kestctl copy capture DEVICE' makes one\n", says({"copy", "list"}));
    says({"copy", "import", "panel-vpd", small, "--force"});
    EXPECT_EQ("12345", says({"copy", "export", "panel-vpd", "-"}));
}

TEST_F(KestctlDump, AnUndoFileThatCannotBeSavedStopsTheWriteAndIsLogged)
{
    writeFile(machine() / "panel.bin", std::string(256, '\xAA'));
    std::filesystem::create_directories(machine() / "state");
    writeFile(machine() / "state/undo", "a file");
    EXPECT_THAT(complaint(1, {"seeprom", "write", "panel-vpd", "--hex", "01", "--yes"}),
                testing::MatchesRegex(".*/state/undo: save the undo file in: .* \\[log 0x[0-9A-F]+\\]"));
    EXPECT_EQ(std::string(256, '\xAA'), image("panel"));
    const std::string shown = says({"errors", "show", "last"});
    EXPECT_THAT(shown, HasSubstr("return code     0x80001702\n"));
    EXPECT_THAT(shown, HasSubstr("SRC 1           0x1702 the undo file could not be saved\n"));
    EXPECT_THAT(shown, HasSubstr("details 7       device text\n  sim:planar,L,1C0002,A4\n"));
}

} // namespace
} // namespace kest::test
