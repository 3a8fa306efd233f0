#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <gmock/gmock.h>
#include <grp.h>
#include <iterator>
#include <pwd.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/places.h"
#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;

using KestctlSim = MachineTest;
using KestctlErrors = MachineTest;
using KestctlTrace = MachineTest;

std::string image(const std::string& name)
{
    return readFile(std::filesystem::path(sourceFolder) / "examples/images" / name);
}

TEST_F(KestctlSim, NewMachineHoldsRealContents)
{
    EXPECT_EQ(image("tlvinfo-4096-switch.bin") + std::string(32768 - 4096, '\xFF'), readFile(machine() / "system.bin"));
    EXPECT_EQ(image("edid-128-dell-e178wfp-vga.bin") + std::string(128, '\xFF'), readFile(machine() / "panel.bin"));
    EXPECT_EQ(image("composite-65536-spd-records.bin"), readFile(machine() / "firmware.bin"));
    EXPECT_EQ(image("spd-1024-ddr5-M425R1GB4BB0.bin") + std::string(4096 - 1024, '\xFF'),
              readFile(machine() / "power.bin"));
    EXPECT_EQ(image("spd-512-ddr4-M471A1G44AB0.bin") + std::string(16384 - 512, '\xFF'),
              readFile(machine() / "riser.bin"));
    EXPECT_EQ(image("cal-256-scope-x24c02.bin"), readFile(machine() / "fan.bin"));
}

TEST_F(KestctlSim, AFullDiskIsAFailureAndNoWrongUse)
{
    const std::vector<std::vector<std::string>> commands{
        {"sim", "show"}, {"detect", "planar-vpd"}, {"scan", "sim:planar"}, {"seeprom", "read", "planar-vpd"}};
    for (const auto& command : commands) {
        std::filesystem::remove(machine() / "machine.state");
        const RunResult result = kestctl(command, {.largestFile = 1024});
        EXPECT_EQ(1, result.exit) << command.front();
        EXPECT_THAT(result.errors, HasSubstr("machine.state: state file: File too large")) << command.front();
    }
}

TEST_F(KestctlSim, NewRefusesAFolderThatIsInUse)
{
    const std::string before = readFile(machine() / "kest.toml");
    const RunResult result = run("kestctl", {"sim", "new", machine().string()});
    EXPECT_EQ(3, result.exit);
    EXPECT_EQ("kestctl: " + machine().string() +
                  ": sim new: there is something in it already, which is not overwritten; name a new folder\n",
              result.errors);
    EXPECT_EQ(before, readFile(machine() / "kest.toml"));
    writeFile(folder() / "file", "x");
    EXPECT_EQ(1, run("kestctl", {"sim", "new", (folder() / "file").string()}).exit);
}

// With 1024 bytes some images are written, and the next one is too large.
TEST_F(KestctlSim, NewThatFailsLeavesNothingBehindAndCanBeRepeated)
{
    const auto fresh = folder() / "home/fresh";
    const auto empty = folder() / "home/empty";
    std::filesystem::create_directories(empty);
    for (const auto& target : {fresh, empty}) {
        const RunResult failed = run("kestctl", {"sim", "new", target.string()}, {.largestFile = 1024});
        EXPECT_EQ(1, failed.exit);
        EXPECT_EQ("kestctl: " + target.string() + ": make machine: File too large\n", failed.errors);
        EXPECT_FALSE(std::filesystem::exists(fresh));
        EXPECT_TRUE(std::filesystem::is_empty(empty));
    }
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(folder() / "home"), {}));
    for (const auto& target : {fresh, empty}) {
        const RunResult made = run("kestctl", {"sim", "new", target.string()});
        EXPECT_EQ(0, made.exit) << made.errors;
        EXPECT_EQ(8, std::distance(std::filesystem::directory_iterator(target), {}));
    }
    EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator(folder() / "home"), {}));
}

TEST_F(KestctlSim, NewTakesAnEmptyFolderThroughALink)
{
    std::filesystem::create_directory(folder() / "empty");
    std::filesystem::create_directory_symlink("empty", folder() / "link");
    EXPECT_EQ(0, run("kestctl", {"sim", "new", (folder() / "link").string()}).exit);
    EXPECT_TRUE(std::filesystem::is_symlink(folder() / "link"));
    EXPECT_TRUE(std::filesystem::exists(folder() / "empty/kest.toml"));
    EXPECT_EQ(0, run("kestctl", {"sim", "new", "slash/"}, {.folder = folder()}).exit);
    EXPECT_TRUE(std::filesystem::exists(folder() / "slash/kest.toml"));
}

TEST_F(KestctlSim, NewNeedsNoUsableConfiguration)
{
    const RunResult result = run("kestctl", {"sim", "new", (folder() / "second").string(), "--json"},
                                 {.environment = {{"KEST_CONFIG", "/nowhere/kest.toml"}}});
    EXPECT_EQ(0, result.exit) << result.errors;
    EXPECT_EQ((folder() / "second/kest.toml").string(), json::parse(result.output).at("config"));
}

TEST_F(KestctlSim, EverythingStaysInTheFolder)
{
    // this leaves an error entry
    EXPECT_EQ(4, kestctl({"detect", "sim:planar,L,2C0256,AA"}).exit);
    EXPECT_TRUE(std::filesystem::exists(machine() / "state/errors.db") ||
                !std::filesystem::is_empty(machine() / "state"));
}

TEST_F(KestctlSim, ShowsChipsRegistersAndFaults)
{
    says({"sim", "fault", "add", "nack", "--bus", "sim:planar", "--address", "0xA0", "--way", "read", "--nth", "2",
          "--count", "3"});
    const std::string shown = says({"sim", "show"});
    EXPECT_THAT(shown, HasSubstr("planar   A2 = 0x51  24C128   behind 80 = 0x40, port 3 riser.bin\n"));
    EXPECT_THAT(shown, HasSubstr("  INPUT     0xFD  pin 0 1, 1 0, 2 1, 3 1, 4 1"));
    EXPECT_THAT(shown,
                HasSubstr("  1 nack               planar   A0 = 0x50 read from transaction 2 on 3 times, struck 0\n"));

    const json result = json::parse(says({"sim", "show", "--json"}));
    EXPECT_EQ(13U, result.at("chips").size());
    EXPECT_EQ("planar", result.at("chips").at(0).at("bus"));
    EXPECT_EQ(
        json::parse(
            R"({"number":1,"kind":"nack","bus":"planar","node":"","address":160,"way":"read","nth":2,"count":3,"probability":1.0,
                              "seed":1,"value":0,"byte":0,"until_reset":false,"struck":0})"),
        result.at("faults").at(0));
    EXPECT_FALSE(result.at("registers").empty());
}

TEST_F(KestctlSim, ShowsTheLevelsOfOutputs)
{
    says({"sim", "show"});
    const std::filesystem::path file = machine() / "machine.toml";
    std::string text = readFile(file);
    text.replace(text.find("inputs = 0xFFF5"), 15, "inputs = 0xFFF7");
    text.replace(text.find("celsius = 25.5"), 14, "celsius = 85.0");
    writeFile(file, text);
    const std::string shown = says({"sim", "show"});
    EXPECT_THAT(shown, HasSubstr("  INT       0x00  active, changed: 1\n"));
    EXPECT_THAT(shown, HasSubstr("  O.S.      0x00  active\n"));
    EXPECT_THAT(shown, HasSubstr("  T_CRIT_A  0x01  inactive\n"));
    const json registers = json::parse(says({"sim", "show", "--json"})).at("registers");
    const json interrupt{
        {"chip", "planar 0x40 PCA9555"}, {"name", "INT"}, {"value", 0}, {"meaning", "active, changed: 1"}};
    EXPECT_EQ(1, std::ranges::count(registers, interrupt));
    says({"port", "read", "card-presence"});
    EXPECT_THAT(says({"sim", "show"}), HasSubstr("  INT       0x01  inactive\n"));
}

TEST_F(KestctlSim, FaultsStrikeAndAreCleared)
{
    EXPECT_EQ("fault 1\n", says({"sim", "fault", "add", "nack", "--address", "0xA0"}));
    EXPECT_EQ("fault 2\n", says({"sim", "fault", "add", "corrupt", "--address", "0x90", "--value", "0xFF"}));
    EXPECT_EQ(4, kestctl({"detect", "planar-vpd"}).exit);
    const json faults = json::parse(says({"sim", "fault", "list", "--json"})).at("faults");
    ASSERT_EQ(2U, faults.size());
    EXPECT_LT(0, faults.at(0).at("struck"));
    EXPECT_EQ("fault 1 cleared\n", says({"sim", "fault", "clear", "1"}));
    EXPECT_EQ(0, kestctl({"detect", "planar-vpd"}).exit);
    EXPECT_EQ("all faults cleared\n", says({"sim", "fault", "clear"}));
    EXPECT_EQ("", says({"sim", "fault", "list"}));
}

TEST_F(KestctlSim, PowerCycleBringsRegistersBackAndLeavesImages)
{
    says({"port", "write", "panel-leds", "on", "1"});
    const std::string before = readFile(machine() / "system.bin");
    says({"sim", "power-cycle"});
    EXPECT_EQ(0xFFFF, json::parse(says({"port", "read", "panel-leds", "--json"})).at("value"));
    EXPECT_EQ(before, readFile(machine() / "system.bin"));
}

// An image that takes no page leaves its bus unusable.
TEST_F(KestctlSim, APowerCycleThatABusCannotHaveIsAFailure)
{
    says({"sim", "power-cycle"});
    const RunResult write = kestctl({"seeprom", "write", "planar-vpd", "--offset", "0x7F00", "--hex", "A1A2", "--yes"},
                                    {.largestFile = 16384});
    EXPECT_NE(0, write.exit);
    const RunResult result = kestctl({"sim", "power-cycle"}, {.largestFile = 16384});
    EXPECT_EQ(1, result.exit);
    EXPECT_EQ("", result.output);
    EXPECT_EQ("kestctl: a bus was left out or is not done: it cannot be used, or the image of a page in a write cycle "
              "cannot be read or written; see to the machine's folder, and repeat it\n",
              result.errors);
    EXPECT_EQ("registers are at their defaults, hubs are out of reset; images are as they were, but for pages whose "
              "write cycles ran\n",
              says({"sim", "power-cycle"}));
}

TEST_F(KestctlSim, WithoutAMachineItSaysHowToMakeOne)
{
    writeFile(folder() / "kest.toml", "state = \"state\"\n");
    const RunResult result = run("kestctl", {"--config", (folder() / "kest.toml").string(), "sim", "show"});
    EXPECT_EQ(2, result.exit);
    EXPECT_EQ("kestctl: no simulated machine is configured; 'kestctl sim new DIR' makes one; then set "
              "KEST_CONFIG=DIR/kest.toml\n",
              result.errors);
}

TEST_F(KestctlSim, ABadMachineFileIsNamed)
{
    writeFile(machine() / "machine.toml",
              "[[bus]]\nname = \"planar\"\n[[chip]]\nbus = \"planar\"\ntype = \"24C03\"\naddress = 0xA0\n");
    const RunResult result = kestctl({"sim", "show"});
    EXPECT_EQ(2, result.exit);
    EXPECT_THAT(result.errors, HasSubstr("machine.toml:5:8: key 'type': unknown type of chip '24C03'"));
    EXPECT_THAT(kestctl({"scan", "sim:planar"}).errors,
                HasSubstr("machine.toml:5:8: key 'type': unknown type of chip '24C03'"));
}

// All commands that need the machine end alike, and give the reason once.
TEST_F(KestctlSim, ABadMachineFileOrImageEndsWith2)
{
    const std::string toml = readFile(machine() / "machine.toml");
    const std::string copy = (folder() / "copy.bin").string();
    for (const bool badImage : {false, true}) {
        if (badImage) {
            writeFile(machine() / "machine.toml", toml);
            writeFile(machine() / "panel.bin", "short");
        } else {
            writeFile(machine() / "machine.toml", toml + "celsius = 3\n");
        }
        const char* const trouble = badImage ? ": image 'panel.bin': has 5 bytes, the chip 256"
                                             : ": unknown key 'celsius' in [[chip]] of type 24C02";
        for (const std::vector<std::string>& command :
             std::initializer_list<std::vector<std::string>>{{"detect"},
                                                             {"detect", "planar-vpd"},
                                                             {"scan", "sim:planar"},
                                                             {"reset", "sim:planar"},
                                                             {"topology"},
                                                             {"port", "read", "panel-leds"},
                                                             {"thermal", "read", "inlet-temp"},
                                                             {"seeprom", "read", "planar-vpd", "--length", "4"},
                                                             {"seeprom", "dump", "riser-vpd", "-o", copy},
                                                             {"copy", "capture", "planar-vpd"},
                                                             {"sim", "show"},
                                                             {"sim", "fault", "list"},
                                                             {"sim", "wave", "start", "planar", copy},
                                                             {"sim", "power-cycle"}}) {
            SCOPED_TRACE(command.front() + " " + command.back());
            const RunResult result = kestctl(command);
            EXPECT_EQ(2, result.exit);
            EXPECT_THAT(result.errors, HasSubstr(trouble));
            EXPECT_EQ(1, std::ranges::count(result.errors, '\n')) << result.errors;
        }
    }
}

/// Runs kestctl in a child as the user nobody, who may read the configuration. @return its exit code
int exitAsNobody(const std::filesystem::path& configuration, const std::vector<std::string>& arguments)
{
    const pid_t child = fork();
    if (child == 0) {
        const passwd* const nobody = getpwnam("nobody");
        if (nobody == nullptr || setgroups(0, nullptr) != 0 || setgid(nobody->pw_gid) != 0 ||
            setuid(nobody->pw_uid) != 0) {
            _exit(99);
        }
        const RunResult result = run("kestctl", arguments, {.environment = {{"KEST_CONFIG", configuration.string()}}});
        std::fputs(result.errors.c_str(), stderr);
        _exit(result.exit);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(KestctlSim, AMachineThatTheUserMayNotUseEndsWith3)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    // makes the state file
    says({"sim", "show"});
    std::filesystem::permissions(folder(), std::filesystem::perms(0755));
    std::filesystem::permissions(machine(), std::filesystem::perms(0777));
    std::filesystem::permissions(machine() / "machine.state", std::filesystem::perms(0600));
    EXPECT_EQ(3, exitAsNobody(machine() / "kest.toml", {"sim", "show"}));
    EXPECT_EQ(3, exitAsNobody(machine() / "kest.toml", {"detect"}));
    std::filesystem::permissions(machine() / "machine.state", std::filesystem::perms(0666));
    EXPECT_EQ(3, exitAsNobody(machine() / "kest.toml", {"sim", "show"})) << "the images are not the user's, either";
    for (const auto& entry : std::filesystem::directory_iterator(machine())) {
        if (entry.path().extension() == ".bin") {
            std::filesystem::permissions(entry.path(), std::filesystem::perms(0666));
        }
    }
    EXPECT_EQ(0, exitAsNobody(machine() / "kest.toml", {"sim", "show"}));
}

TEST_F(KestctlSim, AFaultOfNoBusOrAddress0IsRefused)
{
    struct Row {
        const char *option, *value, *why;
    };
    for (const Row& wrong :
         {Row{"--address", "0", "kestctl: no chip has address 0; leave --address out for every address\n"},
          Row{"--bus", "", "kestctl: --bus: the value is empty; 'kestctl sim fault add --help' shows how\n"},
          Row{"--bus", "sim:", "kestctl: --bus names no bus; leave it out for every bus\n"}}) {
        const RunResult result = kestctl({"sim", "fault", "add", "nack", wrong.option, wrong.value});
        EXPECT_EQ(2, result.exit) << wrong.option;
        EXPECT_EQ(wrong.why, result.errors);
    }
    EXPECT_EQ("", says({"sim", "fault", "list"}));
}

TEST_F(KestctlSim, AFaultOfANodeIsShownWithTheNode)
{
    writeFile(machine() / "machine.toml", "[[bus]]\nname = \"planar\"\n[[bus]]\nname = \"planar\"\nnode = \"second\"\n"
                                          "[[fault]]\nkind = \"gone\"\nnode = \"second\"\n");
    EXPECT_EQ("  1 gone               any bus of second any address, struck 0\n", says({"sim", "fault", "list"}));
    EXPECT_EQ("second", json::parse(says({"sim", "fault", "list", "--json"})).at("faults").at(0).at("node"));
}

TEST_F(KestctlSim, BusesOfOtherNodesAreNamedWithTheNode)
{
    writeFile(machine() / "machine.toml", "[[bus]]\nname = \"planar\"\n[[bus]]\nname = \"riser\"\nnode = \"second\"\n");
    const std::string file = (folder() / "wave.vcd").string();
    says({"sim", "wave", "start", "second:riser", file});
    says({"sim", "wave", "stop", "second:riser"});
    for (const char* absent : {"riser", "second:planar", "third:riser", ":planar"}) {
        const RunResult result = kestctl({"sim", "wave", "start", absent, file});
        EXPECT_EQ(4, result.exit) << absent;
        EXPECT_THAT(result.errors, HasSubstr("the simulated machine has no such bus; it has planar"));
    }
}

TEST_F(KestctlSim, AFaultIsListedWithWhatItLeavesOpen)
{
    says({"sim", "fault", "add", "gone", "--count", "1"});
    EXPECT_THAT(says({"sim", "fault", "list"}),
                HasSubstr("  1 gone               any bus  any address once, struck 0\n"));
}

TEST_F(KestctlSim, WaveformIsDecodedByOthers)
{
    const std::filesystem::path file = folder() / "wave.vcd";
    says({"sim", "wave", "start", "planar", file.string()});
    says({"thermal", "read", "inlet-temp"});
    says({"sim", "wave", "stop", "planar"});
    const std::string recorded = readFile(file);
    EXPECT_THAT(recorded, HasSubstr("SCL"));
    EXPECT_THAT(recorded, HasSubstr("SDA"));
    if (std::system("command -v sigrok-cli >/dev/null 2>&1") != 0) {
        ASSERT_EQ(nullptr, getenv("KEST_REQUIRE_SIGROK")) << "sigrok-cli is not installed";
        GTEST_SKIP() << "sigrok-cli is not installed";
    }
    const std::string decoded = folder() / "decoded";
    ASSERT_EQ(0, std::system(
                     ("sigrok-cli -I vcd -i " + file.string() + " -P i2c:scl=SCL:sda=SDA -A i2c=addr-data > " + decoded)
                         .c_str()));
    EXPECT_THAT(readFile(decoded), HasSubstr("i2c-1: Read\ni2c-1: Address read: 48\ni2c-1: ACK\ni2c-1: Data read: 19\n"
                                             "i2c-1: ACK\ni2c-1: Data read: 80\ni2c-1: NACK\n"));
}

TEST_F(KestctlSim, ARecordingThatCannotBeWrittenFails)
{
    const RunResult result = kestctl({"sim", "wave", "start", "planar", (folder() / "none/wave.vcd").string()});
    EXPECT_EQ(1, result.exit);
    EXPECT_THAT(result.errors, HasSubstr("wave.vcd: record: No such file or directory"));
    const RunResult stop = kestctl({"sim", "wave", "stop", "planar"});
    EXPECT_EQ(1, stop.exit);
    EXPECT_THAT(stop.errors, HasSubstr("sim:planar: sim wave stop: nothing is being recorded"));
}

TEST_F(KestctlSim, ARecordingOverwritesWaveformsAlone)
{
    const std::string image = readFile(machine() / "system.bin");
    for (const std::filesystem::path& file : {machine() / "system.bin", machine() / "machine.toml", folder()}) {
        const RunResult result = kestctl({"sim", "wave", "start", "planar", file.string()});
        EXPECT_EQ(3, result.exit) << file;
        EXPECT_EQ("kestctl: " + file.string() +
                      ": record: what is there is no waveform, and is not overwritten; name a new file\n",
                  result.errors);
    }
    EXPECT_EQ(image, readFile(machine() / "system.bin"));
    const RunResult nameless = kestctl({"sim", "wave", "start", "planar", ""});
    EXPECT_EQ(2, nameless.exit);
    EXPECT_EQ("kestctl: FILE: the value is empty; 'kestctl sim wave start --help' shows how\n", nameless.errors);
}

/// Every field of `stored` is in `shown` with the same value; `shown` may have more.
void expectContains(const json& shown, const json& stored, const std::string& where)
{
    if (stored.is_array()) {
        ASSERT_EQ(stored.size(), shown.size()) << where;
        for (std::size_t index = 0; index < stored.size(); ++index) {
            expectContains(shown.at(index), stored.at(index), where + "/" + std::to_string(index));
        }
    } else if (stored.is_object()) {
        for (const auto& [name, value] : stored.items()) {
            ASSERT_TRUE(shown.contains(name)) << where << "/" << name;
            expectContains(shown.at(name), value, where + "/" + name);
        }
    } else {
        EXPECT_EQ(stored, shown) << where;
    }
}

TEST_F(KestctlErrors, ShowsEveryStoredFieldUnderItsName)
{
    // no database: the entry stays in the spool
    std::filesystem::create_directories(machine() / "state/errors.db");
    EXPECT_NE(0, kestctl({"seeprom", "read", "sim:planar,L,2C0256,AA", "--length", "4"}).exit);
    const std::string line = readFile(machine() / "state/errors.spool");
    const json stored = json::parse(line.substr(0, line.find('\n')));
    EXPECT_LT(0U, stored.at("srcs").size() * stored.at("user_details").size() * stored.at("software_errors").size());
    expectContains(
        json::parse(kestctl({"errors", "show", std::to_string(stored.at("id").get<std::uint32_t>()), "--json"}).output),
        stored, "");
}

TEST_F(KestctlErrors, AFailureIsFoundByItsNumber)
{
    EXPECT_EQ("no error entries\n", says({"errors", "list"}));
    EXPECT_EQ("no error entries match\n", says({"errors", "list", "--since", "1h"}));
    const json row = json::parse(kestctl({"detect", "sim:planar,L,2C0256,AA", "--json"}).output).at("devices").at(0);
    const auto id = row.at("error").at("log_id").get<std::uint32_t>();

    const json list = json::parse(says({"errors", "list", "--json"})).at("entries");
    ASSERT_EQ(1U, list.size());
    EXPECT_EQ(id, list.at(0).at("id"));
    EXPECT_EQ(0x80001311U, list.at(0).at("return_code"));
    EXPECT_EQ(0x130A, list.at(0).at("reason"));
    EXPECT_EQ("the device is absent", list.at(0).at("reason_text"));
    EXPECT_EQ(0x1300, list.at(0).at("creator"));
    EXPECT_EQ(0x2000, list.at(0).at("action"));
    EXPECT_EQ("kestctl", list.at(0).at("process"));

    const json entry = json::parse(says({"errors", "show", std::to_string(id), "--json"}));
    EXPECT_EQ(8, entry.at("srcs").at(0).at("module"));
    EXPECT_EQ(0x55, entry.at("srcs").at(0).at("subsystem"));
    EXPECT_EQ(4, entry.at("callouts").at(0).at("procedure"));
    bool textFound = false;
    for (const json& details : entry.at("user_details")) {
        textFound = textFound || (details.at("subsection") == 7 && details.at("text") == "sim:planar@AA,L,2C0256,AA");
    }
    EXPECT_TRUE(textFound) << entry;
    EXPECT_FALSE(entry.at("traces").empty());

    const std::string shown = says({"errors", "show", "last"});
    EXPECT_THAT(shown, HasSubstr("return code     0x80001311\n"));
    EXPECT_THAT(shown, HasSubstr("SRC 1           0x130A the device is absent\n  module        8 KEST_detectDevice\n"));
    EXPECT_THAT(shown, HasSubstr("callout         priority 1, procedure 4 check the request and the software\n"));
    EXPECT_THAT(shown, HasSubstr("details 7       device text\n  sim:planar@AA,L,2C0256,AA\n"));
}

TEST_F(KestctlErrors, TheListNamesDevicesWithinEightyColumns)
{
    // first-failure data
    EXPECT_EQ(4, kestctl({"port", "read", "sim:planar,L,9552,C6"}).exit);
    // device text
    EXPECT_EQ(4, kestctl({"detect", "sim:planar,L,2C0256,AA"}).exit);
    // device path
    EXPECT_EQ(4, kestctl({"detect", "sim:nosuch,L,2C0256,AA"}).exit);
    // none of these
    EXPECT_EQ(4, kestctl({"seeprom", "read", "--mode", "file", "planar-vpd"}).exit);
    const std::string longest = "sim:" + std::string(60, 'n') + ",L,2C0256,AA";
    EXPECT_EQ(4, kestctl({"detect", longest}).exit);

    std::vector<json> devices;
    const json list = json::parse(says({"errors", "list", "--json"}));
    for (const json& entry : list.at("entries")) {
        devices.push_back(entry.at("device"));
    }
    EXPECT_EQ((std::vector<json>{"sim:" + std::string(60, 'n') + "@AA", nullptr, "sim:nosuch@AA",
                                 "sim:planar@AA,L,2C0256,AA", "sim:planar@C6"}),
              devices);
    EXPECT_EQ(devices.front(), json::parse(says({"errors", "show", "last", "--json"})).at("device"));

    std::istringstream lines(says({"errors", "list"}));
    // from the column of devices on; second lines from that of reasons on
    std::vector<std::string> ends;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_GE(80U, line.size()) << line;
        ends.push_back(line.starts_with("           ") ? line.substr(11) : line.substr(42));
    }
    EXPECT_EQ((std::vector<std::string>{
                  "device",
                  "first reason",
                  "sim:nnnnnnnnnnnnn...nnnnnnnnnnnnnnn@AA",
                  "1311 nothing answers, or no such bus",
                  "-",
                  "1306 the device has no persisted copy",
                  "sim:nosuch@AA",
                  "1311 nothing answers, or no such bus",
                  "sim:planar@AA,L,2C0256,AA",
                  "130A the device is absent",
                  "sim:planar@C6",
                  "1311 nothing answers, or no such bus",
              }),
              ends);
}

TEST_F(KestctlErrors, AreFilteredExportedAndCleared)
{
    for (int entry = 0; entry < 3; ++entry) {
        EXPECT_EQ(4, kestctl({"detect", "sim:planar,L,2C0256,AA"}).exit);
    }
    EXPECT_EQ(2U, json::parse(says({"errors", "list", "--last", "2", "--json"})).at("entries").size());
    EXPECT_EQ(0U, json::parse(says({"errors", "list", "--severity", "recovered", "--json"})).at("entries").size());
    EXPECT_EQ(3U, json::parse(says({"errors", "list", "--severity", "unrecovered", "--component", "0x1300", "--since",
                                    "1h", "--json"}))
                      .at("entries")
                      .size());
    EXPECT_EQ(0U, json::parse(says({"errors", "list", "--since", "2100-01-01", "--json"})).at("entries").size());

    const std::filesystem::path file = folder() / "errors.jsonl";
    EXPECT_EQ("3 entries written to " + file.string() + "\n", says({"errors", "export", file.string()}));
    EXPECT_EQ(readFile(file), says({"errors", "export"}));
    std::istringstream lines(readFile(file));
    std::vector<std::uint32_t> ids;
    for (std::string line; std::getline(lines, line);) {
        ids.push_back(json::parse(line).at("id"));
    }
    ASSERT_EQ(3U, ids.size());
    // oldest first
    EXPECT_EQ(ids.back(), json::parse(says({"errors", "show", "last", "--json"})).at("id"));

    const RunResult unwritable = kestctl({"errors", "export", (folder() / "none/file").string()});
    EXPECT_EQ(1, unwritable.exit);
    EXPECT_THAT(unwritable.errors, HasSubstr("none/file: export: No such file or directory"));
    EXPECT_EQ(1, kestctl({"errors", "export", "/dev/full"}).exit);

    EXPECT_EQ("", says({"errors", "clear", "--yes"}));
    EXPECT_EQ("no error entries\n", says({"errors", "list"}));
    EXPECT_EQ("no error entries match\n", says({"errors", "list", "--since", "1h"}));
}

TEST_F(KestctlTrace, ShowsProcessesThatEnded)
{
    says({"port", "read", "panel-leds"});
    const json rings = json::parse(says({"trace", "--list", "--json"})).at("rings");
    ASSERT_FALSE(rings.empty());
    bool found = false;
    for (const json& ring : rings) {
        found =
            found || (ring.at("buffer") == "kest" && ring.at("process") == "kestctl" && !ring.at("alive").get<bool>());
    }
    EXPECT_TRUE(found) << rings;
    EXPECT_THAT(says({"trace", "--buffer", "kest"}), HasSubstr(" KEST_dpRead"));
    EXPECT_EQ("", says({"trace", "--buffer", "nosuch"}));

    std::istringstream lines(says({"trace", "--json", "--last", "5"}));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_TRUE(json::parse(line).contains("hash")) << line;
    }
    EXPECT_EQ(5, count);
}

TEST_F(KestctlTrace, ReportsWhatItLeavesOutAndGoesOn)
{
    says({"port", "read", "panel-leds"});
    const std::filesystem::path traces = machine() / "state" / "trace";
    writeFile(traces / "zeroed.ring", std::string(70000, '\0'));
    writeFile(traces / "cut.ring", "KESTRING");
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"trace", "--buffer", "kest"}, {"trace", "--list"}}) {
        const RunResult result = kestctl(command);
        EXPECT_EQ(1, result.exit);
        EXPECT_THAT(result.errors, HasSubstr("kestctl: " + (traces / "zeroed.ring").string() +
                                             ": trace: its header is zeroed, or was never written; left out\n"));
        EXPECT_THAT(result.errors, HasSubstr("kestctl: " + (traces / "cut.ring").string() +
                                             ": trace: cut short: 8 of 128 bytes of a header; left out\n"));
        EXPECT_EQ(2, std::ranges::count(result.errors, '\n')) << result.errors;
        EXPECT_THAT(result.output, HasSubstr(command.back() == "kest" ? " KEST_dpRead" : " ended  kest "));
    }
}

TEST_F(KestctlTrace, OfOneProcess)
{
    Program watch("kestctl", {"thermal", "read", "inlet-temp", "--watch", "5"}, configured());
    ASSERT_TRUE(watch.readLine().has_value());
    const std::string pid = std::to_string(watch.pid());
    EXPECT_THAT(says({"trace", "--pid", pid}), HasSubstr("kestctl/" + pid + " kest "));
    EXPECT_THAT(says({"trace", "--pid", pid, "--list"}), HasSubstr(" alive  kest "));
    watch.sendSignal(SIGKILL);
    watch.finish();
    EXPECT_THAT(says({"trace", "--pid", pid, "--list"}), HasSubstr(" ended  kest "));
}

} // namespace
} // namespace kest::test
