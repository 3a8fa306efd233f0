/// Device texts that name a device of the device table with another type: nothing goes over the wires unless forced.
#include <gmock/gmock.h>

#include "tests/tools/kestd_support.h"
#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using testing::HasSubstr;

class KestctlOtherType : public SeepromTest
{
protected:
    void append(const std::string& text) const
    {
        const auto toml = machine() / "kest.toml";
        writeFile(toml, readFile(toml) + text);
    }
    /// panel.bin becomes a ferroelectric part, which has no pages and no write cycle.
    void makePanelFerroelectric() const
    {
        std::string text = readFile(machine() / "machine.toml");
        const std::size_t at = text.find("image = \"panel.bin\"");
        const std::size_t cycle = text.find("write_cycle_ms", at);
        text.erase(cycle, text.find('\n', cycle) - cycle);
        text.insert(at, "kind = \"fram\"\n");
        writeFile(machine() / "machine.toml", text);
    }
    [[nodiscard]] static std::string refusal(const std::string& text, const std::string& has, const std::string& name)
    {
        return text + ": the device table has " + has + "; name " + name + ", or --force takes the type that you give";
    }
};

/// The second byte of an offset is data to a part with one byte, and a ferroelectric part writes it at once.
TEST_F(KestctlOtherType, AReadCannotChangeAFerroelectricPart)
{
    makePanelFerroelectric();
    writeFile(machine() / "panel.bin", std::string(256, '\xAA'));
    EXPECT_EQ(refusal("sim:planar,L,2C0256,A4", "a 24C02, panel-vpd, at A4 = 0x52", "panel-vpd"),
              complaint(3, {"seeprom", "read", "sim:planar,L,2C0256,A4", "--offset", "0x1234", "--length", "4"}));
    EXPECT_EQ(std::string(256, '\xAA'), image("panel"));
    says({"seeprom", "read", "sim:planar,L,2C0256,A4", "--offset", "0x1234", "--length", "4", "--force"});
    EXPECT_EQ(std::string(18, '\xAA') + '\x34' + std::string(237, '\xAA'), image("panel"));
}

TEST_F(KestctlOtherType, IsRefusedByEveryVerbThatUsesTheHardware)
{
    const std::string before = image("system");
    const std::string some = file("some", "0123");
    const std::string dump = (folder() / "dump.json").string();
    const std::string output = (folder() / "output").string();
    says({"seeprom", "dump", "sim:planar,L,1C0002,A0", "--length", "4", "-o", dump, "--force"});
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"seeprom", "read", "sim:planar,L,1C0002,A0"},
             {"seeprom", "verify", "sim:planar,L,1C0002,A0", some},
             {"seeprom", "diff", "sim:planar,L,1C0002,A0", some},
             {"seeprom", "diff", "panel-vpd", "sim:planar,L,1C0002,A0"},
             {"seeprom", "dump", "sim:planar,L,1C0002,A0", "-o", output},
             {"seeprom", "write", "sim:planar,L,1C0002,A0", "--hex", "5A", "--yes"},
             {"seeprom", "write", "sim:planar,L,1C0002,A0", "--hex", "5A", "--dry-run"},
             {"seeprom", "restore", dump, "--yes"},
             {"seeprom", "restore", dump, "--device", "sim:planar,L,1C0002,A0", "--yes"},
             {"message", "read", "sim:planar,L,1C0002,A0"},
             {"message", "write", "sim:planar,L,1C0002,A0", "--hex", "5A", "--yes"}}) {
        EXPECT_EQ(refusal("sim:planar,L,1C0002,A0", "a 24C256, planar-vpd, at A0 = 0x50", "planar-vpd"),
                  complaint(3, command))
            << testing::PrintToString(command);
    }
    const std::string leds = refusal("sim:planar,L,9551,C0", "a PCA9552, panel-leds, at C0 = 0x60", "panel-leds");
    EXPECT_EQ(leds, complaint(3, {"port", "read", "sim:planar,L,9551,C0"}));
    EXPECT_EQ(leds, complaint(3, {"port", "write", "sim:planar,L,9551,C0", "on", "1"}));
    EXPECT_EQ(leds, complaint(3, {"port", "config", "sim:planar,L,9551,C0", "duty0", "1"}));
    EXPECT_EQ(refusal("sim:planar,L,92,90", "an LM75, inlet-temp, at 90 = 0x48", "inlet-temp"),
              complaint(3, {"thermal", "read", "sim:planar,L,92,90"}));
    EXPECT_EQ(before, image("system"));
    EXPECT_FALSE(std::filesystem::exists(output));
    EXPECT_EQ("no error entries\n", says({"errors", "list"}));
}

TEST_F(KestctlOtherType, IsTakenWhenForced)
{
    const std::string some = file("some", image("panel").substr(0, 4));
    const std::string dump = (folder() / "dump.json").string();
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"seeprom", "read", "sim:planar,L,2C0256,A4", "--length", "4"},
             {"seeprom", "dump", "sim:planar,L,2C0256,A4", "--length", "4", "-o", dump},
             {"seeprom", "diff", "sim:planar,L,2C0256,A4", "sim:planar,L,2C0256,A4", "--length", "4"},
             {"port", "read", "sim:planar,L,9551,C0"},
             {"thermal", "read", "sim:planar,L,92,90"}}) {
        std::vector<std::string> forced = command;
        forced.emplace_back("--force");
        EXPECT_EQ(3, kestctl(command).exit) << testing::PrintToString(command);
        EXPECT_EQ(0, kestctl(forced).exit) << testing::PrintToString(command);
    }
}

TEST_F(KestctlOtherType, IsFoundInEverySpellingAndBehindHubs)
{
    append("\n[nodes]\n1 = \"sim:blade\"\n2 = \"sim:blade\"\n"
           "[[device]]\nnumber = 7\nlocation = \"sim:mezzanine,1,2C0032,A6\"\n");
    writeFile(machine() / "machine.toml",
              readFile(machine() / "machine.toml") + "\n[[bus]]\nname = \"mezzanine\"\nnode = \"blade\"\n");
    const std::string has = "a 24C256, planar-vpd, at A0 = 0x50";
    for (const char* text : {"sim:planar,l,1c0002,a0", "sim:planar,L,0x1C0002,0xA0", "sim:planar@A0,L,1C0002,A0",
                             "sim:planar,L,001C0002,00A0"}) {
        EXPECT_EQ(refusal(text, has, "planar-vpd"), complaint(3, {"seeprom", "read", text})) << text;
    }
    // a row without a name, on a node that has two numbers
    EXPECT_EQ(refusal("sim:mezzanine,2,1C0002,A6", "a 24C32, device 0x7, at A6 = 0x53", "0x7"),
              complaint(3, {"seeprom", "read", "sim:mezzanine,2,1C0002,A6"}));
    EXPECT_EQ(refusal("sim:planar,L,922,80,3,1C0002,A2", "a 24C128, riser-vpd, at A2 = 0x51", "riser-vpd"),
              complaint(3, {"seeprom", "read", "sim:planar,L,922,80,3,1C0002,A2"}));
    // the hub itself
    EXPECT_EQ("sim:planar,L,9554,80: the device table has a 922 hub, on the way to riser-vpd, at 80 = 0x40; --force "
              "takes the type that you give",
              complaint(3, {"port", "read", "sim:planar,L,9554,80"}));
    // another port, address, node or bus
    EXPECT_EQ(4, kestctl({"seeprom", "read", "sim:planar,L,922,80,4,1C0002,A2", "--length", "1"}).exit);
    EXPECT_EQ(4, kestctl({"seeprom", "read", "sim:mezzanine,1,1C0002,A0", "--length", "1"}).exit);
}

TEST_F(KestctlOtherType, NeverRefusesADeviceThatIsNamed)
{
    append("\n[[device]]\nnumber = 7\nlocation = \"sim:planar@A0,l,2c0256,0xa0\"\n");
    EXPECT_EQ(0, kestctl({"seeprom", "read", "planar-vpd", "--length", "4"}).exit);
    EXPECT_EQ(0, kestctl({"seeprom", "read", "7", "--length", "4"}).exit);
    EXPECT_EQ(0, kestctl({"seeprom", "read", "0xD001", "--length", "4"}).exit);
    EXPECT_EQ(0, kestctl({"port", "read", "panel-leds"}).exit);
    EXPECT_EQ(0, kestctl({"seeprom", "read", "sim:planar,L,2C0256,A0", "--length", "4"}).exit);
    EXPECT_EQ(0, kestctl({"devices"}).exit);
}

/// The copy has no offsets to mistake, and detection sends no register transfer.
TEST_F(KestctlOtherType, IsNoMatterWithoutATransferToTheDevice)
{
    says({"copy", "import", "0", file("copy", "0123456789")});
    EXPECT_EQ("0123",
              says({"seeprom", "read", "sim:planar,L,1C0002,A0", "--mode", "file", "--length", "4", "-o", "-"}));
    EXPECT_EQ(0, kestctl({"detect", "sim:planar,L,1C0002,A0"}).exit);
}

TEST_F(KestctlOtherType, InTheTableItselfIsAnErrorOfTheConfiguration)
{
    append("\n[[device]]\nnumber = 7\nname = \"twin\"\nlocation = \"sim:planar,L,2C0032,A4\"\n");
    const std::string toml = readFile(machine() / "kest.toml");
    const auto lineOf = [&toml](const std::string& text) {
        return std::to_string(1 + std::count(toml.begin(), toml.begin() + static_cast<long>(toml.find(text)), '\n'));
    };
    EXPECT_EQ((machine() / "kest.toml").string() + ":" + lineOf("sim:planar,L,2C0032,A4") +
                  ":12: key 'device.location': twin has type 2C0032 at the place where panel-vpd (line " +
                  lineOf("sim:planar,L,1C0002,A4") + ") has type 1C0002; repair it, or name another file with --config",
              complaint(2, {"seeprom", "read", "panel-vpd"}));
    EXPECT_EQ(2, kestctl({"devices"}).exit);
}

TEST_F(KestctlOtherType, InTheTableLeavesTheServiceItsOldConfiguration)
{
    append("\n[[device]]\nnumber = 0\nlocation = \"sim:planar,L,1C0002,A4\"\n");
    const auto toml = machine() / "kest.toml";
    const std::string right = readFile(toml);
    Daemon service(folder(), {"--config", toml.string()});
    ASSERT_TRUE(service.isReady()) << service.errors();
    writeFile(toml, right + "\n[[device]]\nnumber = 7\nlocation = \"sim:planar,L,2C0032,A4\"\n");
    EXPECT_TRUE(service.reload());
    EXPECT_THAT(service.errors(), HasSubstr("device 0x7 has type 2C0032 at the place where panel-vpd (line "));
    writeFile(toml, right);
    EXPECT_EQ(0, kestctl({"message", "read", "panel-vpd", "--length", "4"}).exit);
}

} // namespace
} // namespace kest::test
