#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using Kestctl = MachineTest;

struct Complaint {
    std::vector<std::string> arguments;
    int exit;
    std::string line; ///< the whole of standard error, without "kestctl: " and the line end
};

void expectComplaint(const RunResult& result, const Complaint& expected)
{
    const std::string command = testing::PrintToString(expected.arguments);
    EXPECT_EQ(expected.exit, result.exit) << command;
    EXPECT_EQ("kestctl: " + expected.line + "\n", result.errors) << command;
    EXPECT_EQ("", result.output) << command;
}

TEST(KestctlHelp, ShowsANewUserHowToBegin)
{
    const RunResult help = run("kestctl", {"--help"});
    EXPECT_EQ(0, help.exit);
    EXPECT_EQ("", help.errors);
    for (const char* part :
         {"kestctl sim new demo && export KEST_CONFIG=$PWD/demo/kest.toml", "sim:planar,L,2C0256,A0",
          "PATH,NODE,922,HUB,PORT,TYPE,ADDRESS", "4 device absent", "--json", "--config", "--version"}) {
        EXPECT_THAT(help.output, HasSubstr(part));
    }
    for (const char* area : {"seeprom", "copy", "message", "detect", "scan", "topology", "devices", "reset", "port",
                             "thermal", "errors", "trace", "sim"}) {
        EXPECT_THAT(help.output, HasSubstr(std::string("\n  ") + area + " ")) << area;
    }
}

/// The lines of a command's help, and the commands that it lists below "Subcommands:".
struct HelpPage {
    std::vector<std::string> lines, commands;
};

HelpPage helpOf(std::vector<std::string> words)
{
    words.emplace_back("--help");
    const RunResult help = run("kestctl", words);
    EXPECT_EQ(0, help.exit) << testing::PrintToString(words);
    HelpPage page;
    std::istringstream text(help.output);
    bool listing = false;
    for (std::string line; std::getline(text, line);) {
        page.lines.push_back(line);
        if (listing && line.size() > 2 && line.starts_with("  ") && line[2] != ' ') {
            page.commands.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
        listing = line.empty() ? false : listing || line == "Subcommands:";
    }
    return page;
}

/// @return the number of help pages from that of `words` downwards
int checkColumns(const std::vector<std::string>& words)
{
    const HelpPage page = helpOf(words);
    int pages = 1;
    for (const std::string& line : page.lines) {
        EXPECT_GE(80U, line.size()) << testing::PrintToString(words) << ": " << line;
    }
    for (const std::string& command : page.commands) {
        std::vector<std::string> below = words;
        below.push_back(command);
        pages += checkColumns(below);
    }
    return pages;
}

TEST(KestctlHelp, EveryPageFitsEightyColumns) { EXPECT_EQ(55, checkColumns({})); }

TEST(KestctlHelp, VersionIsOneLine)
{
    const RunResult version = run("kestctl", {"--version"});
    EXPECT_EQ(0, version.exit);
    EXPECT_THAT(version.output, testing::MatchesRegex("kestctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
    EXPECT_EQ("", version.errors);
}

TEST_F(Kestctl, WrongUseEndsWithTwoAndOneLine)
{
    for (const Complaint& expected : std::vector<Complaint>{
             {{}, 2, "AREA is required; 'kestctl --help' shows how"},
             {{"port"}, 2, "VERB is required; 'kestctl port --help' shows how"},
             {{"sim", "fault"}, 2, "VERB is required; 'kestctl sim fault --help' shows how"},
             {{"devices", "--timeout"}, 2, "--timeout: the value is missing; 'kestctl devices --help' shows how"},
             {{"devices", "--timeout", "1", "--timeout", "2"},
              2,
              "--timeout can be given only once; 'kestctl devices --help' shows how"},
             {{"scan", "sim:planar", "more"}, 2, "'more' was not expected; 'kestctl scan --help' shows how"},
             {{"scan"}, 2, "BUS is required; 'kestctl scan --help' shows how"},
             {{"nonsense"}, 2, "there is no 'nonsense'; 'kestctl --help' shows how"},
             {{"port", "nonsense"}, 2, "there is no 'nonsense'; 'kestctl port --help' shows how"},
             {{"sim", "fault", "nonsense"}, 2, "there is no 'nonsense'; 'kestctl sim fault --help' shows how"},
             {{"detect", "--nonsense"}, 2, "'--nonsense' was not expected; 'kestctl detect --help' shows how"},
             {{"scan", "planar"},
              4,
              "planar: no such device in the device table; 'kestctl devices' lists them; or give a device text "
              "PATH,NODE,TYPE,ADDRESS or BUS:PART@ADDR7"},
             {{"scan", "/dev/i2c"},
              2,
              "bus '/dev/i2c' is no device path: /dev/i2c-N or sim:BUS, either with @HH behind it"},
             {{"scan", "sim:planar", "--node", "9"},
              2,
              "--node: expected L or 0 to 7; 'kestctl scan --help' shows how"},
             {{"scan", "sim:nosuch"}, 4, "sim:nosuch: open: the simulated machine has no such bus; it has planar"},
             {{"detect", "--speed", "0", "planar-vpd"},
              2,
              "--speed 0: expected 1 to 1000 kHz; faster modes of the bus are not served"},
             {{"port", "read", "panel-leds", "--speed", "3400"},
              2,
              "--speed 3400: expected 1 to 1000 kHz; faster modes of the bus are not served"},
             {{"port", "write", "inlet-temp", "low", "1"},
              2,
              "inlet-temp: 'port write' does not serve an LM75; 'kestctl thermal read' reads it"},
             {{"port", "config", "inlet-temp", "output", "1"},
              2,
              "inlet-temp: 'port config' does not serve an LM75; 'kestctl thermal read' reads it"},
             {{"errors", "list", "--since", "2024-02-30"},
              2,
              "--since '2024-02-30': expected a time such as 2024-05-01, 2024-05-01T12:00:00Z, 90s, 15m, 2h or 7d"},
             {{"detect", "--speed", "fast", "planar-vpd"},
              2,
              "--speed 'fast': expected a decimal number, or a hexadecimal one after 0x"},
             {{"port", "read", "planar-vpd"},
              2,
              "planar-vpd: 'port read' does not serve a 24C256; 'kestctl seeprom' reads and writes it"},
             {{"port", "write", "straps", "blink0", "--pins", "0"},
              2,
              "operation 'blink0': a PCA9554 supports low, high, copy"},
             {{"port", "write", "panel-leds", "on"}, 2, "give either BITS or --pins"},
             {{"port", "write", "panel-leds", "on", "0x10000"}, 2, "BITS '0x10000': expected 0 to 65535 (0xFFFF)"},
             {{"port", "write", "straps", "low", "0x100"}, 2, "BITS '0x100': expected 0 to 255 (0xFF)"},
             {{"port", "write", "panel-leds", "on", "1", "--mask", "1"}, 2, "--mask goes with copy alone"},
             {{"port", "config", "panel-leds", "output", "1"},
              2,
              "function 'output': a PCA9552 supports prescaler0, duty0, prescaler1, duty1"},
             {{"port", "config", "straps", "polarity1", "0xF0"},
              2,
              "function 'polarity1': a PCA9554 has one port, and its function is polarity0"},
             {{"port", "config", "panel-leds", "duty0", "256"}, 2, "VALUE '256': expected 0 to 255 (0xFF)"},
             {{"port", "config", "panel-leds", "duty0", "--pins", "1"}, 2, "duty0 takes a VALUE, not --pins"},
             {{"thermal", "read", "panel-leds"},
              2,
              "panel-leds: 'thermal read' does not serve a PCA9552; 'kestctl port' works on it"},
             {{"thermal", "read", "inlet-temp", "--count", "2"},
              2,
              "--count requires --watch; 'kestctl thermal read --help' shows how"},
             {{"thermal", "read", "sim:planar,L,922,80,3,75,90"},
              2,
              "sim:planar,L,922,80,3,75,90: an LM75 can't be reached behind a 922 hub, which passes SEEPROM transfers "
              "on and nothing else"},
             {{"port", "read", "sim:planar,L,922,80,3,9552,C0"},
              2,
              "sim:planar,L,922,80,3,9552,C0: a PCA9552 can't be reached behind a 922 hub, which passes SEEPROM "
              "transfers on and "
              "nothing else"},
             {{"port", "read", "sim:planar,L,F0,70,1,9552,C0"},
              2,
              "sim:planar,L,F0,70,1,9552,C0: no transfer goes through an F0 hub"},
             {{"detect", "sim:planar,L,922,80,3,172,A2"},
              2,
              "sim:planar,L,922,80,3,172,A2: a 172 device can't be reached behind a 922 hub, which passes SEEPROM "
              "transfers on and "
              "nothing else"},
             {{"errors", "show", "0x1"}, 1, "0x1: no such error entry; 'kestctl errors list' shows them"},
             {{"errors", "list", "--since", "soon"},
              2,
              "--since 'soon': expected a time such as 2024-05-01, 2024-05-01T12:00:00Z, 90s, 15m, 2h or 7d"},
             {{"errors", "clear"}, 3, "All error entries will be deleted. not confirmed; --yes confirms it"},
             {{"trace", "--folder", "nowhere"}, 2, "'nowhere' is no folder"},
             {{"sim", "fault", "add", "nonsense"},
              2,
              "unknown kind of fault 'nonsense'; 'kestctl sim fault add --help' lists kinds and values"},
             {{"sim", "fault", "add", "nack", "--bus", "nosuch"},
              4,
              "nosuch: the simulated machine has no such bus; it has planar"},
             {{"sim", "fault", "clear", "77"}, 1, "there is no fault 77; 'kestctl sim fault list' shows them"},
             {{"sim", "wave", "stop", "nosuch"}, 4, "nosuch: the simulated machine has no such bus; it has planar"},
         }) {
        expectComplaint(kestctl(expected.arguments, {.folder = folder()}), expected);
    }
}

TEST_F(Kestctl, AnOddAddressIsExplained)
{
    expectComplaint(kestctl({"port", "read", "sim:planar,L,9552,61"}),
                    {{},
                     2,
                     "device text 'sim:planar,L,9552,61': field 4, '61', is odd: addresses are in the 8-bit form; if "
                     "it is a 7-bit one, "
                     "write C2"});
}

TEST_F(Kestctl, FailuresAreJsonToo)
{
    const RunResult result = kestctl({"port", "read", "nosuch", "--json"});
    EXPECT_EQ(4, result.exit);
    const json error = json::parse(result.output).at("error");
    EXPECT_EQ("no such device in the device table", error.at("message"));
    EXPECT_EQ("nosuch", error.at("device"));
    EXPECT_EQ(4, error.at("exit_code"));
    EXPECT_EQ(0, error.at("log_id"));
    EXPECT_THAT(result.errors, StartsWith("kestctl: nosuch: "));
}

TEST_F(Kestctl, TextsOfStrangersAreEscaped)
{
    const RunResult result = kestctl({"detect", "sim:\x1b[31mred\n\xff,L,75,90"});
    EXPECT_NE(0, result.exit);
    EXPECT_THAT(result.errors, HasSubstr("\\x1B[31mred\\x0A\\xFF"));
    EXPECT_THAT(result.errors, Not(HasSubstr("\x1b")));
    EXPECT_EQ(1, std::count(result.errors.begin(), result.errors.end(), '\n')) << result.errors;

    const RunResult asJson = kestctl({"detect", "--json", "sim:\x1b[31mred\n\xff,L,75,90"});
    EXPECT_THAT(asJson.output, Not(HasSubstr("\x1b")));
    EXPECT_FALSE(json::parse(asJson.output).at("devices").at(0).at("present").get<bool>());
}

TEST_F(Kestctl, AFullDiskIsReported)
{
    const RunResult result = kestctl({"devices"}, {.outputTo = "/dev/full"});
    EXPECT_EQ(1, result.exit);
    EXPECT_EQ("kestctl: standard output: write: No space left on device\n", result.errors);
}

/// As with `| head`: the reader stops, which does not change the result of the command.
TEST_F(Kestctl, AReaderThatStopsReadingIsNoFailure)
{
    const std::string other = (folder() / "other").string();
    writeFile(other, std::string(256, 'x'));
    for (const auto& [exit, command] : std::vector<std::pair<int, std::vector<std::string>>>{
             {0, {"devices"}},
             {0, {"seeprom", "read", "planar-vpd", "-o", "-"}},
             {0, {"devices", "--json"}},
             {0, {"thermal", "read", "inlet-temp", "--watch", "0.01"}},
             // what it found still decides the exit code
             {5, {"seeprom", "verify", "panel-vpd", other}}}) {
        const RunResult result = kestctl(command, {.closeOutput = true});
        EXPECT_EQ(exit, result.exit) << testing::PrintToString(command);
        EXPECT_EQ(0, result.signal) << testing::PrintToString(command);
        EXPECT_EQ("", result.errors) << testing::PrintToString(command);
    }
}

TEST_F(Kestctl, ColourIsForTerminalsAlone)
{
    EXPECT_THAT(kestctl({"detect", "planar-vpd"}, {.environment = {{"TERM", "xterm"}}}).output, Not(HasSubstr("\x1b")));
    EXPECT_THAT(kestctl({"detect", "planar-vpd"}, {.environment = {{"TERM", "xterm"}}, .terminal = true}).output,
                HasSubstr("\x1b[32mpresent\x1b[0m"));
    EXPECT_THAT(kestctl({"detect", "planar-vpd"}, {.environment = {{"TERM", "dumb"}}, .terminal = true}).output,
                Not(HasSubstr("\x1b")));
    EXPECT_THAT(
        kestctl({"detect", "planar-vpd"}, {.environment = {{"TERM", "xterm"}, {"NO_COLOR", "1"}}, .terminal = true})
            .output,
        Not(HasSubstr("\x1b")));
}

TEST_F(Kestctl, AnUnusableConfigurationIsReported)
{
    const std::filesystem::path file = folder() / "bad.toml";
    writeFile(file, "state = \"s\"\nnonsense = 1\n");
    const RunResult result = run("kestctl", {"--config", file.string(), "devices"});
    EXPECT_EQ(2, result.exit);
    EXPECT_THAT(result.errors, StartsWith("kestctl: " + file.string() + ":2:1: key 'nonsense'"));
    const std::string missing = (folder() / "none.toml").string();
    expectComplaint(run("kestctl", {"devices", "--config", missing}),
                    {{}, 2, missing + ": No such file or directory; repair it, or name another file with --config"});
}

TEST_F(Kestctl, ConfigurationOptionOverridesTheEnvironment)
{
    const RunResult result = run("kestctl", {"--config", (machine() / "kest.toml").string(), "devices"},
                                 {.environment = {{"KEST_CONFIG", "/nowhere/kest.toml"}}});
    EXPECT_EQ(0, result.exit) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("planar-vpd"));
}

} // namespace
} // namespace kest::test
