#include <algorithm>
#include <gmock/gmock.h>
#include <map>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/host/usedconfiguration.h"
#include "tests/tools/program.h"
#include "tools/common/hublock.h"
#include "tools/common/operation.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// A machine with a configuration that has no device table.
class KestctlInit : public MachineTest
{
protected:
    /// The machine of a template, with random bytes in all images.
    void make(const std::string& name)
    {
        place = folder() / name;
        ASSERT_EQ(0, run("kestctl", {"sim", "new", place.string(), "--template", name}).exit);
        useBare();
        // the images are made when their buses are first used
        ASSERT_EQ(0, bare({"buses"}).exit);
        std::minstd_rand random(1);
        for (const auto& [image, bytes] : images()) {
            std::string content(bytes.size(), '\0');
            std::ranges::generate(content, [&random] { return static_cast<char>(random() >> 8U); });
            writeFile(place / image, content);
        }
    }
    void useBare(const std::string& more = {}) const
    {
        writeFile(bareFile(), "state = \"" + (folder() / "state").string() + "\"\n[machine]\nfolder = \"" +
                                  place.string() + "\"\n" + more);
    }
    [[nodiscard]] std::filesystem::path bareFile() const { return folder() / "bare.toml"; }
    [[nodiscard]] RunResult bare(std::vector<std::string> arguments, RunOptions options = {}) const
    {
        arguments.insert(arguments.begin(), {"--config", bareFile().string()});
        return run("kestctl", std::move(arguments), std::move(options));
    }
    [[nodiscard]] json proposed(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"init", "--json"});
        const RunResult result = bare(std::move(arguments));
        EXPECT_EQ(0, result.exit) << result.errors;
        return json::parse(result.output);
    }
    /// What was found at a 7-bit address, behind a port of a hub or on the bus itself; the test fails without it.
    [[nodiscard]] static json partAt(const json& result, int address7, int port = -1)
    {
        for (const json& part : result.at("buses").at(0).at("parts")) {
            const bool sameWay =
                port < 0 ? part.at("hub").is_null() : !part.at("hub").is_null() && part.at("hub").at("port") == port;
            if (part.at("address7") == address7 && sameWay) {
                return part;
            }
        }
        ADD_FAILURE() << "nothing at " << address7 << ", port " << port;
        return {};
    }
    [[nodiscard]] std::map<std::string, std::string> images() const
    {
        std::map<std::string, std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(place)) {
            if (entry.path().extension() == ".bin") {
                all[entry.path().filename().string()] = readFile(entry.path());
            }
        }
        return all;
    }

    std::filesystem::path place = machine();
};

TEST_F(KestctlInit, ProposesAFileThatSaysWhatIsProvedAndWhatIsAGuess)
{
    useBare();
    const RunResult result = bare({"init", "sim:planar", "--hubs"});
    EXPECT_EQ(0, result.exit) << result.errors;
    EXPECT_THAT(result.output, StartsWith("# Proposed by 'kestctl init' from what answers on the buses."));
    EXPECT_THAT(result.output, HasSubstr("\nstate = \"" + (folder() / "state").string() +
                                         "\"\n\n[machine]\nfolder = \"" + machine().string() + "\"\n"));
    EXPECT_THAT(result.output,
                HasSubstr("\n# ---- sim:planar: 112 addresses asked, from 10 = 0x08 to EE = 0x77\n"
                          "\n# 40 = 0x20: something answers, by its address a PCA9554 or a PCA9555: a guess.\n"
                          "#[[device]]\n#number = 0x0001\n#name = \"planar-20\"\n"
                          "#location = \"sim:planar,L,9554,40\"  # PCA9554\n"
                          "#location = \"sim:planar,L,9555,40\"  # PCA9555\n"));
    EXPECT_THAT(result.output, HasSubstr("\n# A4 = 0x52: proved: one offset byte, 256 bytes: "));
    EXPECT_THAT(result.output, HasSubstr("\n[[device]]\nnumber = 0x0008\nname = \"planar-52\"\n"
                                         "location = \"sim:planar,L,1C0002,A4\"\n"));
    EXPECT_THAT(result.output, HasSubstr("\n# A6 = 0x53: proved: two offset bytes: "));
    EXPECT_THAT(result.output, HasSubstr("\nlocation = \"sim:planar,L,2C0032,A6\"\n"));
    EXPECT_THAT(result.output, HasSubstr("\nname = \"planar-hub40-3-51\"\nlocation = "
                                         "\"sim:planar,L,922,80,3,2C0032,A2\"\n"));
    EXPECT_THAT(result.output, testing::EndsWith("\n# nothing answers at its other addresses.\n"));
}

TEST_F(KestctlInit, TheFileWorksAsItStands)
{
    useBare();
    const std::string file = (folder() / "kest.toml").string();
    const RunResult result = bare({"init", "sim:planar", "--hubs", "-o", file});
    EXPECT_EQ(0, result.exit) << result.errors;
    EXPECT_THAT(result.output, StartsWith(file +
                                          ": 4 rows are ready, 8 wait for a decision; read it, then use it by\n"
                                          "  export KEST_CONFIG=" +
                                          file + "\n"));
    const RunResult listed = run("kestctl", {"--config", file, "devices"});
    EXPECT_EQ(0, listed.exit) << listed.errors;
    EXPECT_THAT(listed.output, HasSubstr("planar-hub40-1-52"));
    const RunResult detected = run("kestctl", {"--config", file, "detect"});
    EXPECT_EQ(0, detected.exit) << detected.errors;
    EXPECT_EQ("planar-hub40-1-52: 24C02 at A4 = 0x52: present\n"
              "planar-hub40-3-51: 24C32 at A2 = 0x51: present\n"
              "planar-52: 24C02 at A4 = 0x52: present\n"
              "planar-53: 24C32 at A6 = 0x53: present\n",
              detected.output);
}

TEST_F(KestctlInit, AGuessThatIsDecidedOnWorksToo)
{
    useBare();
    std::string text = bare({"init", "sim:planar"}).output;
    const std::string row = "#[[device]]\n#number = 0x0001\n#name = \"planar-20\"\n"
                            "#location = \"sim:planar,L,9554,40\"  # PCA9554\n"
                            "#location = \"sim:planar,L,9555,40\"  # PCA9555\n";
    ASSERT_THAT(text, HasSubstr(row));
    text.replace(text.find(row), row.size(),
                 "[[device]]\nnumber = 0x0001\nname = \"planar-20\"\nlocation = \"sim:planar,L,9555,40\"  # PCA9555\n");
    writeFile(folder() / "kest.toml", text);
    const RunResult read = run("kestctl", {"--config", (folder() / "kest.toml").string(), "port", "read", "planar-20"});
    EXPECT_EQ(0, read.exit) << read.errors;
}

TEST_F(KestctlInit, LooksBehindHubsOnlyWhenToldThatTheyAreHubs)
{
    useBare();
    const json without = proposed({"sim:planar"});
    EXPECT_EQ("none", partAt(without, 0x40).at("source"));
    EXPECT_THAT(partAt(without, 0x40).at("note").get<std::string>(), HasSubstr("by its address a 922 hub: a guess"));
    EXPECT_THAT(without.at("configuration").get<std::string>(), Not(HasSubstr(",922,")));
    EXPECT_THAT(proposed({"sim:planar", "--hubs"}).at("configuration").get<std::string>(), HasSubstr(",922,80,3,"));
}

TEST_F(KestctlInit, FindsAllPartsOfTheTreeOfHubs)
{
    make("hubs");
    const auto before = images();
    const std::string file = (folder() / "kest.toml").string();
    const json result = proposed({"sim:tree", "--hubs", "-o", file});
    EXPECT_EQ(64, result.at("ready"));
    EXPECT_EQ(2, result.at("to_decide"));
    EXPECT_EQ(json({"2C0032", "2C0064", "2C0128", "2C0256", "2C0512"}), partAt(result, 0x51, 1).at("types"));
    EXPECT_EQ(json({"1C0002"}), partAt(result, 0x52, 7).at("types"));
    const RunResult detected = run("kestctl", {"--config", file, "detect"});
    EXPECT_EQ(0, detected.exit) << detected.errors;
    EXPECT_EQ(64, std::ranges::count(detected.output, '\n'));
    EXPECT_EQ(before, images());
}

TEST_F(KestctlInit, TellsPartsOfOtherMakersApartAndChangesNone)
{
    make("hostile");
    const auto before = images();
    const json result = proposed({"sim:parts", "--hubs"});
    const auto proof = [&](int address7, int port = -1) { return partAt(result, address7, port); };
    // a ferroelectric part, and each way of taking half an offset
    for (const int address7 : {0x50, 0x51, 0x52, 0x53}) {
        EXPECT_EQ("proof", proof(address7).at("source")) << proof(address7);
        EXPECT_EQ("2C0032", proof(address7).at("types").at(0));
        EXPECT_TRUE(proof(address7).at("ready").get<bool>());
    }
    // a 24C08 has four addresses, and is not served
    EXPECT_EQ(json::array(), proof(0x54).at("types"));
    EXPECT_THAT(proof(0x54).at("note").get<std::string>(), HasSubstr("Such parts are not served"));
    for (const int address7 : {0x55, 0x56, 0x57}) {
        EXPECT_FALSE(proof(address7).at("ready").get<bool>()) << proof(address7);
    }
    // a 24C04 and a 24C16 behind ports 0 and 1, and a 24C02 alone on port 2
    EXPECT_FALSE(proof(0x50, 0).at("ready").get<bool>()) << proof(0x50, 0);
    EXPECT_FALSE(proof(0x57, 1).at("ready").get<bool>()) << proof(0x57, 1);
    EXPECT_TRUE(proof(0x52, 2).at("ready").get<bool>()) << proof(0x52, 2);
    EXPECT_THAT(proof(0x52, 2).at("note").get<std::string>(),
                HasSubstr("It has 256 bytes: a 24C04 to 24C16 would also answer at A6 = 0x53"));
    EXPECT_EQ(before, images());
}

TEST_F(KestctlInit, APartAtAllAddressesIsNotTakenForEight)
{
    make("hostile");
    const auto before = images();
    const json result = proposed({"sim:deaf"});
    EXPECT_EQ(0, result.at("ready"));
    EXPECT_EQ(8, result.at("to_decide"));
    EXPECT_EQ(json({"1C0002"}), partAt(result, 0x50).at("types"));
    EXPECT_THAT(partAt(result, 0x57).at("note").get<std::string>(),
                HasSubstr("it holds the bytes of the part at A0 = 0x50: it may be the same part"));
    EXPECT_EQ(before, images());
}

TEST_F(KestctlInit, FlakyWiresGiveAFileThatIsAcceptedAndChangeNothing)
{
    make("hostile");
    const auto before = images();
    const std::string file = (folder() / "kest.toml").string();
    EXPECT_EQ(3U, proposed({"sim:flaky", "sim:slow", "sim:wrong", "--hubs", "-o", file}).at("buses").size());
    const RunResult listed = run("kestctl", {"--config", file, "devices"});
    EXPECT_EQ(0, listed.exit) << listed.errors;
    EXPECT_EQ(before, images());
}

TEST_F(KestctlInit, BlankPartsWaitForADecision)
{
    useBare();
    writeFile(machine() / "panel.bin", std::string(256, '\xFF'));
    const json part = partAt(proposed({"sim:planar"}), 0x52);
    EXPECT_EQ("address", part.at("source"));
    EXPECT_FALSE(part.at("ready").get<bool>());
    EXPECT_EQ(json({"1C0002", "2C0032", "2C0064", "2C0128", "2C0256", "2C0512"}), part.at("types"));
    EXPECT_THAT(part.at("note").get<std::string>(), HasSubstr("a guess"));
}

TEST_F(KestctlInit, NeverReplacesAFileUnasked)
{
    useBare();
    const std::filesystem::path file = folder() / "mine.toml";
    writeFile(file, "# mine\n");
    const RunResult refused = bare({"init", "sim:planar", "-o", file.string()});
    EXPECT_EQ(3, refused.exit);
    EXPECT_EQ("# mine\n", readFile(file));
    EXPECT_EQ(0, bare({"init", "sim:planar", "-o", file.string(), "--yes"}).exit);
    EXPECT_THAT(readFile(file), StartsWith("# Proposed by 'kestctl init'"));
}

TEST_F(KestctlInit, WaitsForThoseWhoWriteToAPart)
{
    useBare();
    const UsedConfiguration used{bareFile()};
    const auto held = [](const std::string& device) {
        auto lock = tools::operationLockOf(tools::parseDeviceText(device), tools::operationUse::write);
        EXPECT_EQ(0, lock->attempt({.process = 4711,
                                    .user = 4294967294U,
                                    .sinceMs = 1714564800250,
                                    .program = "other",
                                    .doing = "seeprom write",
                                    .device = device}));
        return lock;
    };
    for (const char* device : {"sim:planar,L,1C0002,A4", "sim:planar,L,922,80,3,2C0128,A2"}) {
        const auto writer = held(device);
        const RunResult busy = bare({"init", "sim:planar", "--hubs", "--wait", "0"});
        EXPECT_EQ(6, busy.exit) << busy.output;
        EXPECT_EQ("", busy.output);
        EXPECT_THAT(busy.errors, HasSubstr(": lock: another program is at work on it: other seeprom write on " +
                                           std::string(device)));
    }
    const auto reader =
        tools::operationLockOf(tools::parseDeviceText("sim:planar,L,1C0002,A4"), tools::operationUse::read);
    ASSERT_EQ(0, reader->attempt({}));
    EXPECT_EQ(0, bare({"init", "sim:planar", "--wait", "0"}).exit);
}

/// Who writes to a part behind the hub goes on through the hub, and so comes to its end.
TEST_F(KestctlInit, DoesNotKeepTheHubWhileItWaitsForAPart)
{
    useBare();
    const UsedConfiguration used{bareFile()};
    const auto writer =
        tools::operationLockOf(tools::parseDeviceText("sim:planar,L,922,80,3,2C0128,A2"), tools::operationUse::write);
    ASSERT_EQ(0, writer->attempt({.program = "other", .doing = "seeprom write", .device = "riser"}));
    std::vector<std::string> words{"--config", bareFile().string(), "init", "sim:planar", "--hubs"};
    Program init("kestctl", words, {.environment = {{"TERM", "dumb"}}, .terminal = true});
    ASSERT_TRUE(init.waitFor(": waits for other seeprom write"));
    {
        const tools::hubLock hub({"sim:planar", "L"}, 0x80);
        EXPECT_EQ(0, hub.error());
    }
    writer->release();
    const RunResult done = init.finish();
    EXPECT_EQ(0, done.exit) << done.output;
    EXPECT_THAT(done.output, HasSubstr("planar-hub40-3-51"));
}

TEST_F(KestctlInit, JsonHasTheSameContent)
{
    useBare();
    const json result = proposed({"sim:planar", "--hubs"});
    EXPECT_EQ(bare({"init", "sim:planar", "--hubs"}).output, result.at("configuration"));
    EXPECT_EQ(json(), result.at("file"));
    EXPECT_EQ("sim:planar", result.at("buses").at(0).at("path"));
    EXPECT_EQ(112, result.at("buses").at(0).at("asked"));
    const json part = partAt(result, 0x51, 3);
    EXPECT_EQ(162, part.at("address"));
    EXPECT_EQ(json::parse(R"({"address":128,"address7":64,"port":3})"), part.at("hub"));
    EXPECT_EQ("present", part.at("state"));
    EXPECT_EQ("proof", part.at("source"));
    EXPECT_EQ("planar-hub40-3-51", part.at("name"));
    EXPECT_EQ("sim:planar,L,922,80,3,2C0032,A2", part.at("location"));
    EXPECT_EQ(4, part.at("number"));
}

TEST_F(KestctlInit, NumbersFollowThoseOfTheDeviceTable)
{
    useBare("[[device]]\nnumber = 0xD022\nlocation = \"sim:planar,L,92,96\"\n");
    EXPECT_EQ(0xD023, partAt(proposed({"sim:planar"}), 0x20).at("number"));
}

TEST_F(KestctlInit, AHeldBusIsSaidInOneLine)
{
    useBare();
    EXPECT_EQ(0, bare({"sim", "fault", "add", "hold-scl", "--bus", "planar"}).exit);
    const RunResult result = bare({"init", "sim:planar"});
    EXPECT_EQ(0, result.exit);
    EXPECT_THAT(result.output, HasSubstr("\n# 10 = 0x08 to EE = 0x77: whether something answers is not certain: "));
    EXPECT_THAT(result.output, Not(HasSubstr("[[device]]")));
}

TEST_F(KestctlInit, ABusThatIsNotThereIsAbsent)
{
    useBare();
    const RunResult result = bare({"init", "sim:planar", "sim:nosuch"});
    EXPECT_EQ(4, result.exit);
    EXPECT_EQ("", result.output);
    EXPECT_THAT(result.errors, StartsWith("kestctl: sim:nosuch: open: the simulated machine has no such bus"));
}

TEST_F(KestctlInit, BusesOfNodesKeepTheirNode)
{
    make("rack");
    useBare("[nodes]\n3 = \"sim:shelf3\"\n");
    const std::string file = (folder() / "kest.toml").string();
    const json result = proposed({"sim:m2", "--node", "3", "--hubs", "-o", file});
    EXPECT_EQ("3", result.at("buses").at(0).at("node"));
    EXPECT_EQ("node3-m2-50", partAt(result, 0x50).at("name"));
    EXPECT_EQ("sim:m2,3,2C0032,A0", partAt(result, 0x50).at("location"));
    EXPECT_THAT(readFile(file), HasSubstr("\n[nodes]\n3 = \"sim:shelf3\"\n"));
    const RunResult detected = run("kestctl", {"--config", file, "detect"});
    EXPECT_EQ(0, detected.exit) << detected.errors;
}

TEST_F(KestctlInit, AHubThatSomebodyElseHoldsIsLeftAlone)
{
    useBare();
    const UsedConfiguration used(bareFile());
    const tools::hubLock lock({"sim:planar", "L"}, 0x80);
    ASSERT_EQ(0, lock.error());
    const json result = proposed({"sim:planar", "--hubs", "--wait", "0"});
    EXPECT_EQ("a 922 hub, as --hubs says; what is behind it was not asked: somebody else holds it",
              partAt(result, 0x40).at("note"));
    EXPECT_THAT(result.at("configuration").get<std::string>(), Not(HasSubstr(",922,")));
}

} // namespace
} // namespace kest::test
