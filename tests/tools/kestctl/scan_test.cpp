#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

using KestctlScan = MachineTest;
using KestctlReset = MachineTest;
using KestctlTopology = MachineTest;
using KestctlDevices = MachineTest;
using KestctlDetect = MachineTest;

TEST_F(KestctlScan, ShowsTheDemoMachineAsAGrid)
{
    EXPECT_EQ("     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n"
              "00:                         -- -- -- -- -- -- -- --\n"
              "10: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- --\n"
              "20: 20 21 -- -- -- -- -- -- -- -- -- -- -- -- -- --\n"
              "30: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- --\n"
              "40: 40 -- -- -- -- -- -- -- 48 -- -- 4b -- -- -- --\n"
              "50: 50 -- 52 53 54 -- -- -- -- -- -- -- -- -- -- --\n"
              "60: 60 -- 62 -- -- -- -- -- -- -- -- -- -- -- -- --\n"
              "70: -- -- -- -- -- -- -- --\n"
              "\n"
              "40 = 0x20  PCA9555  card-presence\n"
              "42 = 0x21  PCA9554  straps\n"
              "80 = 0x40  922 hub\n"
              "90 = 0x48  LM75     inlet-temp\n"
              "96 = 0x4b  LM92     cpu-temp\n"
              "A0 = 0x50  24C256   planar-vpd\n"
              "A4 = 0x52  24C02    panel-vpd\n"
              "A6 = 0x53  24C512   firmware\n"
              "A8 = 0x54  24C32    power-vpd\n"
              "C0 = 0x60  PCA9552  panel-leds\n"
              "C4 = 0x62  PCA9551  fan-leds\n",
              says({"scan", "sim:planar"}));
}

TEST_F(KestctlScan, ABusMayBeNamedByADeviceOnIt)
{
    EXPECT_EQ(says({"scan", "sim:planar"}), says({"scan", "riser-vpd"}));
}

TEST_F(KestctlScan, GivesJson)
{
    const json result = json::parse(says({"scan", "sim:planar", "--json"}));
    EXPECT_EQ("sim:planar", result.at("bus"));
    EXPECT_EQ("L", result.at("node"));
    EXPECT_EQ(112, result.at("probed"));
    ASSERT_EQ(11U, result.at("devices").size());
    EXPECT_EQ(json::parse(R"({"address":64,"address7":32,"state":"present","type":"PCA9555","name":"card-presence"})"),
              result.at("devices").at(0));
    EXPECT_EQ(160, result.at("devices").at(5).at("address"));
    EXPECT_EQ(80, result.at("devices").at(5).at("address7"));
}

TEST_F(KestctlScan, AHeldBusIsUncertain)
{
    says({"sim", "fault", "add", "hold-sda", "--bus", "planar", "--count", "1"});
    const RunResult result = kestctl({"scan", "sim:planar"});
    EXPECT_THAT(result.output, HasSubstr("00:                         ?? ?? ??"));
    EXPECT_THAT(result.output, HasSubstr("\n10 = 0x08 to 3E = 0x1f  uncertain: "));
    EXPECT_THAT(result.output, HasSubstr("\n40 = 0x20  PCA9555  card-presence  uncertain: "));
}

TEST_F(KestctlReset, FreesAHeldBus)
{
    says({"sim", "fault", "add", "hold-sda", "--bus", "planar", "--count", "1"});
    EXPECT_NE(0, kestctl({"thermal", "read", "inlet-temp"}).exit);
    EXPECT_EQ("sim:planar: reset, the bus is free\n", says({"reset", "sim:planar"}));
    says({"thermal", "read", "inlet-temp"});
    EXPECT_EQ(json::parse(R"({"bus":"sim:planar","node":"L","reset":true})"),
              json::parse(says({"reset", "sim:planar", "--json"})));
}

TEST_F(KestctlReset, DoesNotFreeAHeldScl)
{
    says({"sim", "fault", "add", "hold-scl", "--bus", "planar"});
    EXPECT_EQ(1, kestctl({"thermal", "read", "inlet-temp"}).exit);
    EXPECT_EQ(1, kestctl({"reset", "sim:planar"}).exit);
    EXPECT_EQ(1, kestctl({"reset", "sim:planar"}).exit);
    says({"sim", "power-cycle"});
    EXPECT_EQ("sim:planar: reset, the bus is free\n", says({"reset", "sim:planar"}));
    says({"thermal", "read", "inlet-temp"});
}

TEST_F(KestctlReset, FindsTheBusFreeOnceAHeldSclHasMetItsAttempts)
{
    says({"sim", "fault", "add", "hold-scl", "--bus", "planar", "--address", "0xB0", "--count", "3", "--lasts-ms",
          "3600000"});
    EXPECT_THAT(says({"sim", "fault", "list"}),
                HasSubstr("hold-scl           planar   B0 = 0x58 3 times for 3600000 ms"));
    // one question meets the line
    EXPECT_EQ(1, kestctl({"detect", "sim:planar,L,2C0256,B0"}).exit);
    EXPECT_EQ(1, kestctl({"reset", "sim:planar"}).exit);
    EXPECT_EQ(1, kestctl({"reset", "sim:planar"}).exit);
    says({"reset", "sim:planar"});
}

TEST_F(KestctlTopology, IsATree)
{
    EXPECT_THAT(says({"topology"}), HasSubstr("sim:planar\n"
                                              "|-- 40 = 0x20  PCA9555  card-presence\n"
                                              "|-- 42 = 0x21  PCA9554  straps\n"
                                              "|-- 80 = 0x40  922 hub\n"
                                              "|   |-- port 1\n"
                                              "|   |   `-- A4 = 0x52  24C02    fan-vpd\n"
                                              "|   `-- port 3\n"
                                              "|       `-- A2 = 0x51  24C128   riser-vpd\n"
                                              "|-- 90 = 0x48  LM75     inlet-temp\n"
                                              "|-- 96 = 0x4b  LM92     cpu-temp\n"
                                              "|-- A0 = 0x50  24C256   planar-vpd\n"
                                              "|-- A4 = 0x52  24C02    panel-vpd\n"
                                              "|-- A6 = 0x53  24C512   firmware\n"
                                              "|-- A8 = 0x54  24C32    power-vpd\n"
                                              "|-- C0 = 0x60  PCA9552  panel-leds\n"
                                              "`-- C4 = 0x62  PCA9551  fan-leds\n"));
}

TEST_F(KestctlTopology, NestsHubsBehindHubs)
{
    std::string devices;
    for (const char* way : {"F0,70,1,922,82,3,2C0128,A2", "F0,70,1,922,82,0,2C0128,A4", "F0,70,0,2C0128,A2"}) {
        devices += "[[device]]\nlocation = \"sim:other,L," + std::string(way) +
                   "\"\nnumber = " + std::to_string(100 + devices.size()) + "\n";
    }
    writeFile(machine() / "kest.toml",
              readFile(machine() / "kest.toml") + devices +
                  "[[device]]\nlocation = \"sim:far,3,2C0128,A2\"\nnumber = 98\n"
                  "[[device]]\nlocation = \"sim:far,3,2C0128,A2\"\nname = \"far\"\nnumber = 99\n"
                  "[[device]]\nlocation = \"sim:far,3,2C0128,A2\"\nname = \"farther\"\nnumber = 97\n");
    EXPECT_THAT(says({"topology"}), EndsWith("sim:other\n"
                                             "`-- 70 = 0x38  F0 hub\n"
                                             "    |-- port 0\n"
                                             "    |   `-- A2 = 0x51  24C128\n"
                                             "    `-- port 1\n"
                                             "        `-- 82 = 0x41  922 hub\n"
                                             "            |-- port 0\n"
                                             "            |   `-- A4 = 0x52  24C128\n"
                                             "            `-- port 3\n"
                                             "                `-- A2 = 0x51  24C128\n"
                                             "sim:far on node 3\n"
                                             "`-- A2 = 0x51  24C128   far\n"));
}

TEST_F(KestctlTopology, ProbesWhatItIsAskedTo)
{
    says({"sim", "fault", "add", "nack", "--address", "0xA6"});
    const RunResult result = kestctl({"topology", "--probe"});
    EXPECT_EQ(0, result.exit);
    EXPECT_THAT(result.output, HasSubstr("A6 = 0x53  24C512   firmware  absent\n"));
    EXPECT_THAT(result.output, HasSubstr("A2 = 0x51  24C128   riser-vpd  present\n"));
    EXPECT_THAT(result.output, HasSubstr("80 = 0x40  922 hub  present\n"));
}

TEST_F(KestctlTopology, GivesJson)
{
    const json result = json::parse(says({"topology", "--json"}));
    const json& bus = *std::find_if(result.at("buses").begin(), result.at("buses").end(),
                                    [](const json& one) { return one.at("path") == "sim:planar"; });
    ASSERT_EQ(11U, bus.at("devices").size());
    const json& hub = bus.at("devices").at(2);
    EXPECT_EQ(128, hub.at("address"));
    EXPECT_EQ(3, hub.at("ports").at(1).at("port"));
    EXPECT_EQ(
        json::parse(
            R"({"address":162,"address7":81,"type":"24C128","name":"riser-vpd","number":53253,"text":"sim:planar,L,922,80,3,2C0128,A2"})"),
        hub.at("ports").at(1).at("devices").at(0));
}

TEST_F(KestctlDevices, ListsTheTable)
{
    EXPECT_THAT(says({"devices"}), StartsWith("0xD001     planar-vpd         24C256   sim:planar,L,2C0256,A0\n"
                                              "0xD002     panel-vpd          24C02    sim:planar,L,1C0002,A4\n"));
    const json rows = json::parse(says({"devices", "--json"})).at("devices");
    ASSERT_EQ(12U, rows.size());
    EXPECT_EQ(
        json::parse(
            R"({"number":53253,"position":0,"name":"riser-vpd","type":"24C128","text":"sim:planar,L,922,80,3,2C0128,A2","expect":[],"expect_format":null,
                "page_writes":0,"page_writes_in_group":0,"worn":false})"),
        rows.at(4));
}

TEST_F(KestctlDevices, ABadRowIsReportedAndTheOthersListed)
{
    const std::filesystem::path file = folder() / "kest.toml";
    writeFile(file,
              "state = \"state\"\n[[device]]\nnumber = 1\nlocation = \"sim:p,L,9553,C2\"\n[[device]]\nnumber = 2\n"
              "name = \"good\"\nlocation = \"sim:p,L,9552,C0\"\n");
    const RunResult result = run("kestctl", {"--config", file.string(), "devices"});
    EXPECT_EQ(2, result.exit);
    EXPECT_THAT(result.output, HasSubstr("0x0002     good               PCA9552  sim:p,L,9552,C0\n"));
    EXPECT_THAT(result.errors,
                StartsWith("kestctl: device text 'sim:p,L,9553,C2': field 3, '9553', is no device type"));
}

TEST_F(KestctlDetect, FindsWhatIsThere)
{
    EXPECT_EQ("planar-vpd: 24C256 at A0 = 0x50: present\n", says({"detect", "planar-vpd"}));
    // by number
    EXPECT_EQ("planar-vpd: 24C256 at A0 = 0x50: present\n", says({"detect", "0xD001"}));
    EXPECT_EQ("sim:planar,L,9552,C0: PCA9552 at C0 = 0x60: present\n", says({"detect", "sim:planar,L,9552,C0"}));
    // behind the hub, by reading a byte
    EXPECT_EQ("riser-vpd: 24C128 at A2 = 0x51: present\n", says({"detect", "riser-vpd"}));
}

TEST_F(KestctlDetect, WithoutDeviceAsksTheWholeTable)
{
    const json rows = json::parse(says({"detect", "--json"})).at("devices");
    ASSERT_EQ(12U, rows.size());
    for (const json& row : rows) {
        EXPECT_TRUE(row.at("present").get<bool>()) << row;
    }
}

TEST_F(KestctlDetect, ProbesTheAddressOfTheDeviceNotThatOfThePath)
{
    EXPECT_EQ(4, kestctl({"detect", "sim:planar@A0,L,2C0256,AA"}).exit);
    EXPECT_EQ(0, kestctl({"detect", "sim:planar@AA,L,2C0256,A0"}).exit);
}

TEST_F(KestctlDetect, ReportsWhatIsMissing)
{
    const RunResult result = kestctl({"detect", "sim:planar,L,2C0256,AA", "planar-vpd"});
    EXPECT_EQ(4, result.exit);
    EXPECT_EQ("planar-vpd: 24C256 at A0 = 0x50: present\n", result.output);
    EXPECT_THAT(
        result.errors,
        StartsWith("kestctl: sim:planar,L,2C0256,AA: detect: nothing answers at AA = 0x55; check address and power; "
                   "'kestctl scan sim:planar' shows what does [log 0x"));

    const json row = json::parse(kestctl({"detect", "--json", "sim:planar,L,2C0256,AA"}).output).at("devices").at(0);
    EXPECT_FALSE(row.at("present").get<bool>());
    EXPECT_EQ(0x80001311U, row.at("error").at("return_code"));
    EXPECT_NE(0U, row.at("error").at("log_id"));
}

TEST_F(KestctlDetect, MissingBehindTheHub)
{
    const RunResult result = kestctl({"detect", "sim:planar,L,922,80,3,2C0128,A8"});
    EXPECT_EQ(4, result.exit);
    // the hub itself answers, so its address is not mentioned, though a device answers at half of it
    EXPECT_THAT(
        result.errors,
        HasSubstr("the device behind the hub does not answer at A8 = 0x54, port 3; check port and address [log 0x"));
}

TEST_F(KestctlDetect, HintsAtAnAddressInTheWrongForm)
{
    // 50 is the chip at A0 in the 7-bit form
    EXPECT_THAT(kestctl({"detect", "sim:planar,L,2C0256,50"}).errors,
                HasSubstr("a device answers at A0 = 0x50: write A0, addresses are in the 8-bit form"));
    // 84 is twice 42, where an expander answers
    EXPECT_THAT(kestctl({"detect", "sim:planar,L,9554,84"}).errors,
                HasSubstr("a device answers at 42 = 0x21: write 42, addresses are in the 8-bit form"));
}

TEST_F(KestctlDetect, NoAddressIsNamedWhereThatTypeIsNeverFound)
{
    // a hub answers at twice 40, which can't be an expander, and an expander at half of the hub's 80
    says({"sim", "fault", "add", "nack", "--address", "0x40"});
    EXPECT_THAT(
        kestctl({"detect", "card-presence"}).errors,
        HasSubstr(
            "nothing answers at 40 = 0x20; check address and power; 'kestctl scan sim:planar' shows what does [log"));
    says({"sim", "fault", "clear"});
    says({"sim", "fault", "add", "nack", "--address", "0x80"});
    EXPECT_THAT(kestctl({"detect", "riser-vpd"}).errors,
                HasSubstr("the hub did not answer and was reset; try again: the next transfer can work [log"));
}

TEST_F(KestctlDetect, AHeldBusIsNoAbsence)
{
    says({"sim", "fault", "add", "hold-scl", "--count", "1"});
    const RunResult result = kestctl({"detect", "planar-vpd"});
    EXPECT_EQ(1, result.exit);
    EXPECT_THAT(result.errors, HasSubstr("'kestctl reset sim:planar' frees a held bus"));
}

TEST_F(KestctlDetect, AnAdapterThatIsGoneIsNoHeldBus)
{
    says({"sim", "fault", "add", "gone"});
    const RunResult result = kestctl({"detect", "planar-vpd"});
    EXPECT_EQ(4, result.exit);
    EXPECT_THAT(result.errors,
                StartsWith("kestctl: planar-vpd: detect: the bus is gone; 'kestctl sim fault list' shows "
                           "whether a fault holds it [log 0x"));
}

TEST_F(KestctlDetect, EveryCommandAsksToRepairABadMachine)
{
    writeFile(machine() / "machine.toml", "[[bus]]\nname = 7\n");
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"detect", "planar-vpd"}, {"seeprom", "read", "planar-vpd"}}) {
        const RunResult result = kestctl(command);
        EXPECT_EQ(2, result.exit);
        EXPECT_THAT(result.errors, HasSubstr("; repair the machine's folder")) << command.front();
    }
}

TEST_F(KestctlDetect, AHeldBusIsReportedWithItsLine)
{
    says({"sim", "fault", "add", "hold-sda", "--bus", "planar", "--count", "1"});
    const RunResult result = kestctl({"detect", "planar-vpd"});
    EXPECT_EQ(1, result.exit);
    EXPECT_THAT(result.errors, StartsWith("kestctl: planar-vpd: detect: the bus is held: SDA stays low; 'kestctl reset "
                                          "sim:planar' frees a held bus [log 0x"));
}

TEST_F(KestctlDetect, AMissingKernelBusHasAHintThatHelps)
{
    EXPECT_THAT(kestctl({"detect", "/dev/i2c-254,L,2C0256,A0"}).errors,
                StartsWith("kestctl: /dev/i2c-254,L,2C0256,A0: detect: there is no such bus; 'ls /dev/i2c-*' shows the "
                           "adapters; the kernel's module i2c-dev makes them [log 0x"));
    EXPECT_THAT(kestctl({"scan", "/dev/i2c-254"}).errors,
                StartsWith("kestctl: /dev/i2c-254: open: there is no such bus; 'ls /dev/i2c-*' shows the adapters"));
}

} // namespace
} // namespace kest::test
