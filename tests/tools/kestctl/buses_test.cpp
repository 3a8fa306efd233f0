#include <algorithm>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

using KestctlBuses = MachineTest;

TEST_F(KestctlBuses, ListsSimulatedBuses)
{
    EXPECT_THAT(says({"buses"}), HasSubstr("sim:planar  simulated machine " + machine().string() +
                                           "\n"
                                           "  clock      400 kHz\n"
                                           "  functions  I2C messages, "));
    EXPECT_THAT(says({"buses"}), HasSubstr("\n  chips      13, of them 2 behind hubs\n"));
}

TEST_F(KestctlBuses, GivesJson)
{
    const json buses = json::parse(says({"buses", "--json"})).at("buses");
    const auto found =
        std::find_if(buses.begin(), buses.end(), [](const json& bus) { return bus.at("path") == "sim:planar"; });
    ASSERT_NE(buses.end(), found);
    EXPECT_EQ("L", found->at("node"));
    EXPECT_EQ("simulated", found->at("kind"));
    EXPECT_EQ(json(), found->at("number"));
    EXPECT_EQ(400'000, found->at("clock_hz"));
    EXPECT_EQ(json::array(), found->at("limits"));
    EXPECT_EQ(13, found->at("chips"));
    EXPECT_EQ(2, found->at("chips_behind_hubs"));
}

TEST_F(KestctlBuses, OfANodeAndWithLimits)
{
    writeFile(machine() / "machine.toml",
              "[[bus]]\nname = \"far\"\nnode = \"riser\"\nspeed_khz = 100\nadapter = { smbus = \"words\" }\n");
    writeFile(folder() / "kest.toml",
              "state = \"state\"\n[machine]\nfolder = \"machine\"\n[nodes]\n3 = \"sim:riser\"\n");
    const RunResult result = run("kestctl", {"--config", (folder() / "kest.toml").string(), "buses"});
    EXPECT_EQ(0, result.exit) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("sim:far on node 3  simulated machine "));
    EXPECT_THAT(result.output, HasSubstr("\n  clock      100 kHz\n"));
    EXPECT_THAT(result.output, HasSubstr("\n  limits     SMBus calls only, with at most 2 bytes\n"
                                         "  chips      0, of them 0 behind hubs\n"));
}

TEST_F(KestctlBuses, AMachineThatCannotBeOpenedIsReported)
{
    writeFile(machine() / "machine.toml", "nonsense\n");
    const RunResult result = kestctl({"buses"});
    EXPECT_EQ(2, result.exit);
    EXPECT_THAT(result.errors, StartsWith("kestctl: "));
    EXPECT_THAT(result.errors, HasSubstr("machine.toml:1:"));
}

} // namespace
} // namespace kest::test
