#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;

/// Tests of machines that are not the demo.
class KestctlTemplates : public MachineTest
{
protected:
    /// Makes the machine of a template and configures it.
    RunOptions start(const std::string& name)
    {
        const auto place = folder() / name;
        says({"sim", "new", place.string(), "--template", name});
        return {.environment = {{"KEST_CONFIG", (place / "kest.toml").string()}}};
    }
    json devices(const RunOptions& options)
    {
        return json::parse(run("kestctl", {"devices", "--json"}, options).output).at("devices");
    }
};

TEST_F(KestctlTemplates, AreNamedInTheHelpAndByTheRefusal)
{
    const std::string help = says({"sim", "new", "--help"});
    for (const char* line :
         {"--template NAME", "  demo     one bus with every type of chip\n",
          "  rack     eight nodes, 64 buses with 16 devices each\n",
          "  hubs     four hubs with chips behind every port\n", "  hostile  flaky wires, slow chips, wrong parts\n"}) {
        EXPECT_THAT(help, HasSubstr(line));
    }
    const RunResult refused = kestctl({"sim", "new", (folder() / "new").string(), "--template", "Rack"});
    EXPECT_EQ(2, refused.exit);
    EXPECT_EQ(
        "kestctl: there is no template 'Rack'; did you mean 'rack'? the templates are demo, rack, hubs, hostile\n",
        refused.errors);
    EXPECT_FALSE(std::filesystem::exists(folder() / "new"));
}

TEST_F(KestctlTemplates, DemoIsTheOneWithoutAName)
{
    start("demo");
    for (const char* file : {"machine.toml", "kest.toml", "riser.bin"}) {
        EXPECT_EQ(readFile(machine() / file), readFile(folder() / "demo" / file));
    }
}

TEST_F(KestctlTemplates, RackHasADeviceTableWithAllItsNodes)
{
    const RunOptions rack = start("rack");
    // 16 less the hub, 64 times
    EXPECT_EQ(960U, devices(rack).size());
    EXPECT_EQ(0, run("kestctl", {"detect", "m0-A0", "shelf7-m7-80-5-A2"}, rack).exit);
    EXPECT_THAT(run("kestctl", {"thermal", "read", "shelf3-m2-92"}, rack).output, HasSubstr("35.5"));
}

TEST_F(KestctlTemplates, HubsAreAllThere)
{
    const RunOptions hubs = start("hubs");
    EXPECT_EQ(66U, devices(hubs).size());
    EXPECT_EQ(0, run("kestctl", {"detect"}, hubs).exit);
}

TEST_F(KestctlTemplates, HostileHasPartsThatAreNotWhatTheirLabelsSay)
{
    const RunOptions hostile = start("hostile");
    EXPECT_EQ(4, run("kestctl", {"detect", "wrong-A6"}, hostile).exit);
    // its label promises 32 KiB, and the chip has 8: the start comes again
    const auto read = [&](const char* offset) {
        return run("kestctl", {"seeprom", "read", "wrong-A0", "--offset", offset, "--length", "16"}, hostile).output;
    };
    EXPECT_THAT(read("0"), HasSubstr("TlvInfo"));
    EXPECT_THAT(read("0x2000"), HasSubstr("TlvInfo"));
}

TEST_F(KestctlTemplates, FaultsAndWavesTakeANode)
{
    const RunOptions rack = start("rack");
    const auto says = [&rack](std::vector<std::string> arguments) {
        const RunResult result = run("kestctl", std::move(arguments), rack);
        EXPECT_EQ("", result.errors);
        return result.output;
    };
    const std::string file = (folder() / "wave.vcd").string();
    EXPECT_EQ("fault 1\n", says({"sim", "fault", "add", "nack", "--bus", "m1", "--node", "shelf2"}));
    EXPECT_EQ("fault 2\n", says({"sim", "fault", "add", "nack", "--node", "3"}));
    EXPECT_EQ("  1 nack               shelf2:m1 any address, struck 0\n"
              "  2 nack               any bus of shelf3 any address, struck 0\n",
              says({"sim", "fault", "list"}));
    for (const char* device : {"shelf2-m1-90", "shelf3-m7-90"}) {
        EXPECT_EQ(4, run("kestctl", {"detect", device}, rack).exit) << device;
    }
    EXPECT_EQ(0, run("kestctl", {"detect", "m1-90", "shelf2-m2-90", "shelf4-m1-90"}, rack).exit);

    says({"sim", "wave", "start", "m4", file, "--node", "7"});
    says({"thermal", "read", "shelf7-m4-90"});
    says({"sim", "wave", "stop", "m4", "--node", "shelf7"});
    EXPECT_THAT(readFile(file), HasSubstr("$comment IIC bus m4 $end"));
    EXPECT_LT(1000U, readFile(file).size());

    const RunResult none = run("kestctl", {"sim", "fault", "add", "nack", "--node", "shelf9"}, rack);
    EXPECT_EQ(4, none.exit);
    EXPECT_EQ(
        "kestctl: shelf9: the simulated machine has no such node; it has L, shelf1, shelf2, shelf3, shelf4, shelf5, "
        "shelf6, shelf7\n",
        none.errors);
}

} // namespace
} // namespace kest::test
