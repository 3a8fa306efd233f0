#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

class KestctlProbe : public SeepromTest
{
protected:
    void panel(const std::string& content) const { writeFile(machine() / "panel.bin", content); }
    static constexpr const char* asLarge = "sim:planar,L,2C0256,A4";
};

TEST_F(KestctlProbe, TellsAPartWithOneOffsetByteWhateverItIsCalled)
{
    panel(variedBytes(256));
    EXPECT_EQ("sim:planar,L,2C0256,A4: one offset byte, 256 bytes: behind two offset bytes it goes on as behind one\n"
              "named as a 24C256: is not\n"
              "types that fit: 24C02 (1C0002)\n"
              "\n"
              "[[device]]\n"
              "number = 0x0000D023\n"
              "location = \"sim:planar,L,1C0002,A4\"\n",
              says({"seeprom", "probe", asLarge}));
    EXPECT_EQ(variedBytes(256), image("panel"));
}

TEST_F(KestctlProbe, GivesARowOfTheDeviceTableInJson)
{
    panel(variedBytes(256));
    const json found = json::parse(says({"--json", "seeprom", "probe", "panel-vpd"}));
    EXPECT_EQ("one_byte", found.at("width").at("verdict"));
    EXPECT_EQ(1, found.at("width").at("offset_bytes"));
    EXPECT_EQ(json::parse("[\"1C0002\"]"), found.at("width").at("fits"));
    EXPECT_TRUE(found.at("as_claimed"));
    EXPECT_EQ("sim:planar,L,1C0002,A4", found.at("entry").at("location"));
    EXPECT_TRUE(found.at("entry").at("size_proved"));
    EXPECT_THAT(std::string(found.at("entry").at("toml")), HasSubstr("name = \"panel-vpd\"\n"));
}

TEST_F(KestctlProbe, AsksTheHubBeforeAPart)
{
    const json found = json::parse(says({"--json", "seeprom", "probe", "sim:planar,L,922,80,3,1C0002,A2"}));
    EXPECT_EQ("two_bytes", found.at("width").at("verdict"));
    EXPECT_EQ("hub", found.at("width").at("by"));
    EXPECT_FALSE(found.at("as_claimed"));
    // the hub's refusal does not stay in it
    EXPECT_EQ(0, kestctl({"seeprom", "read", "riser-vpd", "--length", "16"}).exit);
}

TEST_F(KestctlProbe, KeepsTheNumberThatTheTableGives)
{
    panel(variedBytes(256));
    std::string table = readFile(machine() / "kest.toml");
    const std::size_t number = table.rfind("number = ", table.find("name = \"panel-vpd\""));
    writeFile(machine() / "kest.toml", table.replace(number, 15, "number = 0"));
    EXPECT_EQ(0, json::parse(says({"--json", "seeprom", "probe", "panel-vpd"})).at("entry").at("number"));
}

TEST_F(KestctlProbe, OfABlankPartShowsNothing)
{
    panel(std::string(256, '\xFF'));
    const RunResult result = kestctl({"seeprom", "probe", "panel-vpd"});
    EXPECT_EQ(1, result.exit);
    EXPECT_EQ("panel-vpd: not decidable: its first 256 bytes are all FF\nnamed as a 24C02: not proved\n",
              result.output);
}

TEST_F(KestctlProbe, OfAnAbsentPartFails)
{
    EXPECT_THAT(complaint(4, {"seeprom", "probe", "sim:planar,L,1C0002,AE"}),
                StartsWith("sim:planar,L,1C0002,AE: probe: nothing answers"));
}

TEST_F(KestctlProbe, LeavesNoErrorEntryAndNoFirstFailureData)
{
    panel(variedBytes(256));
    says({"seeprom", "probe", asLarge});
    says({"seeprom", "probe", "sim:planar,L,922,80,3,1C0002,A2"});
    EXPECT_EQ(json::array(), json::parse(says({"--json", "errors", "list"})).at("entries"));
}

TEST_F(KestctlProbe, AWriteOfAnotherWidthIsRefusedAlsoWhenItIsRehearsed)
{
    panel(variedBytes(256));
    for (const char* how : {"--yes", "--dry-run"}) {
        EXPECT_EQ("sim:planar,L,2C0256,A4: width proof: the part is no 24C256: one offset byte, 256 bytes: behind two "
                  "offset bytes it goes on as behind one; types that would fit: 24C02 (1C0002)",
                  complaint(3, {"seeprom", "write", asLarge, "--hex", "5A", "--force", "--width-unproved", how}));
    }
    EXPECT_EQ(variedBytes(256), image("panel"));
}

TEST_F(KestctlProbe, AWriteToABlankPartIsTriedAndPutBackWhenTheWidthIsWrong)
{
    panel(std::string(256, '\xFF'));
    const std::string line = complaint(3, {"seeprom", "write", asLarge, "--hex", "5A5B", "--force", "--yes"});
    EXPECT_EQ("sim:planar,L,2C0256,A4: width proof: a byte written behind two offset bytes arrived as one behind one "
              "does; it holds its old bytes; types that would fit: 24C02 (1C0002)",
              line);
    EXPECT_EQ(std::string(256, '\xFF'), image("panel"));
    EXPECT_THAT(says({"seeprom", "write", "panel-vpd", "--hex", "5A5B", "--yes"}),
                HasSubstr("offset width: one offset byte, 256 bytes: a byte written at offset 0x0 as a trial reads "
                          "back\n"));
    EXPECT_EQ("\x5A\x5B\xFF", image("panel").substr(0, 3));
}

TEST_F(KestctlProbe, AWriteWithoutAProofNeedsAWordOfItsOwn)
{
    std::string repeated;
    while (repeated.size() < 256) {
        repeated += "0123";
    }
    panel(repeated);
    std::vector<std::string> write{"seeprom", "write", "panel-vpd", "--hex", "5A", "--yes", "--force"};
    EXPECT_EQ("panel-vpd: width proof: the offset width is not decidable: its first 256 bytes repeat; "
              "--width-unproved writes all the same, or 'width_proved = true' in the device table",
              complaint(3, write));
    EXPECT_EQ(repeated, image("panel"));
    std::string table = readFile(machine() / "kest.toml");
    writeFile(machine() / "kest.toml",
              std::string(table).insert(table.find("name = \"panel-vpd\""), "width_proved = true\n"));
    says(write);
    EXPECT_EQ('\x5A', image("panel")[0]);
    writeFile(machine() / "kest.toml", table);
    panel(repeated);
    write.emplace_back("--width-unproved");
    says(write);
    EXPECT_EQ('\x5A', image("panel")[0]);
}

TEST_F(KestctlProbe, AWriteWithoutAProofAsksOnATerminalWhateverYesSays)
{
    std::string repeated;
    while (repeated.size() < 256) {
        repeated += "0123";
    }
    panel(repeated);
    const std::vector<std::string> write{"seeprom", "write", "panel-vpd", "--hex", "5A", "--yes"};
    const RunResult no = kestctl(write, {.input = "n\n", .terminal = true});
    EXPECT_EQ(3, no.exit);
    EXPECT_THAT(no.output, HasSubstr("the offset width is not decidable: its first 256 bytes repeat"));
    EXPECT_EQ(repeated, image("panel"));
    EXPECT_EQ(0, kestctl(write, {.input = "y\n", .terminal = true}).exit);
    EXPECT_EQ('\x5A', image("panel")[0]);
}

} // namespace
} // namespace kest::test
