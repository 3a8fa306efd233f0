/// kestctl seeprom dump --all: every SEEPROM of the device table, on the demo machine.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using Names = std::set<std::string>;

class KestctlDumpAll : public SeepromTest
{
protected:
    [[nodiscard]] std::string output() const { return (folder() / "out").string(); }
    [[nodiscard]] Names filesThere() const
    {
        Names names;
        for (const auto& each : std::filesystem::directory_iterator(output())) {
            names.insert(each.path().filename().string());
        }
        return names;
    }
    /// Transfers take as long as on a real bus.
    void useRealTime() const
    {
        std::string text = readFile(machine() / "kest.toml");
        text.replace(text.find("\"fast\""), 6, "\"real\"");
        writeFile(machine() / "kest.toml", text);
    }
};

const Names allFiles{"fan-vpd.json",    "firmware.json",  "panel-vpd.json",
                     "planar-vpd.json", "power-vpd.json", "riser-vpd.json"};

TEST_F(KestctlDumpAll, SavesEverySeepromAsDumpDoes)
{
    EXPECT_EQ("planar-vpd: 32.0 KiB in " + output() + "/planar-vpd.json\npanel-vpd: 256 B in " + output() +
                  "/panel-vpd.json\nfirmware: 64.0 KiB in " + output() + "/firmware.json\npower-vpd: 4.0 KiB in " +
                  output() + "/power-vpd.json\nriser-vpd: 16.0 KiB in " + output() +
                  "/riser-vpd.json\nfan-vpd: 256 B in " + output() + "/fan-vpd.json\n",
              says({"seeprom", "dump", "--all", output()}));
    EXPECT_EQ(allFiles, filesThere());
    EXPECT_EQ(says({"seeprom", "dump", "planar-vpd"}), readFile(output() + "/planar-vpd.json"));
    EXPECT_EQ(says({"seeprom", "dump", "riser-vpd"}), readFile(output() + "/riser-vpd.json"));
}

TEST_F(KestctlDumpAll, AFailureDoesNotStopTheOthers)
{
    fault({"nack", "--address", "0xA8"});
    const RunResult result = kestctl({"seeprom", "dump", "--all", output(), "--json"});
    EXPECT_EQ(4, result.exit);
    EXPECT_THAT(result.errors, HasSubstr("kestctl: power-vpd: dump: "));
    EXPECT_EQ(1, std::ranges::count(result.errors, '\n'));
    Names others = allFiles;
    others.erase("power-vpd.json");
    EXPECT_EQ(others, filesThere());
    const json rows = json::parse(result.output).at("devices");
    ASSERT_EQ(6U, rows.size());
    EXPECT_EQ("power-vpd", rows.at(3).at("device"));
    EXPECT_EQ(4, rows.at(3).at("exit_code"));
    EXPECT_EQ("fan-vpd", rows.at(5).at("device"));
    EXPECT_EQ(0, rows.at(5).at("exit_code"));
    EXPECT_EQ(256, rows.at(5).at("length"));
}

TEST_F(KestctlDumpAll, AnInterruptEndsItWithoutHalfFiles)
{
    useRealTime();
    Program program("kestctl", {"seeprom", "dump", "--all", output()}, configured());
    // the third device takes 1.5 seconds
    ASSERT_TRUE(program.readLine());
    ASSERT_TRUE(program.readLine());
    program.sendSignal(SIGINT);
    const RunResult result = program.finish();
    EXPECT_EQ(130, result.exit);
    EXPECT_THAT(result.errors, HasSubstr("kestctl: firmware: dump: interrupted"));
    EXPECT_EQ((Names{"panel-vpd.json", "planar-vpd.json"}), filesThere());
}

TEST_F(KestctlDumpAll, ATerminalShowsABarForEachBus)
{
    useRealTime();
    const RunResult result =
        kestctl({"seeprom", "dump", "--all", output()}, {.environment = {{"TERM", "xterm"}}, .terminal = true});
    EXPECT_EQ(0, result.exit) << result.output;
    EXPECT_THAT(result.output, HasSubstr("sim:planar                   ["));
    EXPECT_THAT(result.output, HasSubstr(" KiB of 116.5 KiB\r\n"));
    EXPECT_THAT(result.output, HasSubstr("fan-vpd: 256 B in " + output() + "/fan-vpd.json\r\n"));
}

TEST_F(KestctlDumpAll, ARowWithoutANameHasAFileByItsNumber)
{
    writeFile(machine() / "kest.toml", readFile(machine() / "kest.toml") +
                                           "\n[[device]]\nnumber = 0xAB\nposition = 3\nlocation = "
                                           "\"sim:planar,L,1C0002,A4\"\n");
    says({"seeprom", "dump", "--all", output()});
    Names all = allFiles;
    all.insert("device-0xAB-3.json");
    EXPECT_EQ(all, filesThere());
}

TEST_F(KestctlDumpAll, IsForWholeDevicesAndForNoOther)
{
    EXPECT_THAT(complaint(2, {"seeprom", "dump"}), HasSubstr("dump takes a DEVICE or --all DIRECTORY"));
    EXPECT_THAT(complaint(2, {"seeprom", "dump", "panel-vpd", "--all", output()}), HasSubstr("dump takes a DEVICE or"));
    EXPECT_THAT(complaint(2, {"seeprom", "dump", "--all", output(), "--length", "4"}),
                HasSubstr("--all takes whole devices"));
    EXPECT_FALSE(std::filesystem::exists(output()));
}

} // namespace
} // namespace kest::test
