/// [defaults] of kest.toml, and the options that go before them: --verbose, --no-retries, --colour and the others.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/host/usedconfiguration.h"
#include "tests/tools/seeprom_support.h"
#include "tools/common/device.h"
#include "tools/common/operation.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class KestctlDefaults : public SeepromTest
{
protected:
    /// Puts keys into [defaults] of the configuration in use.
    void defaults(const std::string& keys) const
    {
        writeFile(machine() / "kest.toml", configuration + "\n[defaults]\n" + keys + "\n");
    }
    [[nodiscard]] std::string complaintOf(const std::string& keys) const
    {
        defaults(keys);
        const RunResult result = kestctl({"devices"});
        EXPECT_EQ(2, result.exit);
        const std::string file = "kestctl: " + (machine() / "kest.toml").string() + ":";
        EXPECT_EQ(file, result.errors.substr(0, file.size()));
        // behind line and column
        return result.errors.substr(result.errors.find(" key ") + 1);
    }

    std::string configuration = readFile(machine() / "kest.toml");
};

const std::vector<std::string> detect{"detect", "planar-vpd"};

std::vector<std::string> with(std::vector<std::string> words, const std::vector<std::string>& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

TEST_F(KestctlDefaults, OfJson)
{
    defaults("json = true");
    EXPECT_TRUE(json::accept(says(detect)));
    EXPECT_EQ("planar-vpd: 24C256 at A0 = 0x50: present\n", says(with(detect, {"--no-json"})));
    defaults("json = false");
    EXPECT_TRUE(json::accept(says(with(detect, {"--json"}))));
    // failures, too
    defaults("json = true");
    EXPECT_EQ(4, json::parse(kestctl({"port", "read", "nosuch"}).output).at("error").at("exit_code"));
}

TEST_F(KestctlDefaults, OfQuiet)
{
    defaults("quiet = true");
    EXPECT_EQ("made a demo machine\n", says({"sim", "new", (folder() / "one").string()}));
    EXPECT_THAT(says({"sim", "new", (folder() / "two").string(), "--no-quiet"}), HasSubstr("KEST_CONFIG"));
    defaults("quiet = false");
    EXPECT_EQ("made a demo machine\n", says({"sim", "new", (folder() / "three").string(), "-q"}));
}

TEST_F(KestctlDefaults, OfVerbose)
{
    const std::string line = "kestctl: sim:planar: A0 = 0x50: ";
    EXPECT_EQ("", kestctl(detect).errors);
    EXPECT_THAT(kestctl(with(detect, {"-v"})).errors, HasSubstr(line));
    defaults("verbose = 1");
    EXPECT_THAT(kestctl(detect).errors, HasSubstr(line));
    EXPECT_EQ("", kestctl(with(detect, {"--no-verbose"})).errors);
    EXPECT_THAT(kestctl(with({"-vv"}, detect)).errors, HasSubstr(line));
}

TEST_F(KestctlDefaults, OfTheTimes)
{
    const UsedConfiguration used{machine() / "kest.toml"};
    const tools::deviceOperation held(tools::findDevice("planar-vpd"),
                                      {.use = tools::operationUse::write, .doing = "a test"});
    defaults("wait = 0");
    EXPECT_THAT(kestctl(detect).errors, Not(HasSubstr("waits for")));
    EXPECT_EQ(6, kestctl(detect).exit);
    defaults("wait = \"1h\"\ntimeout = \"1ms\"");
    EXPECT_THAT(kestctl(detect).errors, HasSubstr("the time of --timeout is up"));
    EXPECT_THAT(kestctl(with(detect, {"--wait", "0", "--timeout", "0"})).errors, Not(HasSubstr("--timeout")));
}

TEST_F(KestctlDefaults, OfVotes)
{
    const auto readsOf = [this](const std::vector<std::string>& more) {
        const std::string lines = kestctl(with({"seeprom", "read", "planar-vpd", "--length", "4", "-vv"}, more)).errors;
        std::size_t count = 0;
        for (std::size_t at = lines.find("read 4:"); at != lines.npos; at = lines.find("read 4:", at + 1)) {
            ++count;
        }
        return count;
    };
    EXPECT_EQ(1U, readsOf({}));
    EXPECT_EQ(5U, readsOf({"--voted", "5"}));
    defaults("voted = 3");
    EXPECT_EQ(3U, readsOf({}));
    EXPECT_EQ(5U, readsOf({"--voted", "5"}));
    EXPECT_EQ(1U, readsOf({"--no-voted"}));
}

TEST_F(KestctlDefaults, OfVerify)
{
    const auto wrote = [this](const std::string& byte, const std::vector<std::string>& more) {
        return says(with(
            {"seeprom", "write", "panel-vpd", "--hex", byte, "--offset", "40", "--yes", "--force", "--width-unproved"},
            more));
    };
    EXPECT_THAT(wrote("11", {}), HasSubstr("read back and compared"));
    EXPECT_THAT(wrote("12", {"--no-verify"}), HasSubstr("not verified"));
    defaults("verify = false");
    EXPECT_THAT(wrote("13", {}), HasSubstr("not verified"));
    EXPECT_THAT(wrote("14", {"--verify"}), HasSubstr("read back and compared"));
}

TEST_F(KestctlDefaults, OfRetries)
{
    const std::vector<std::string> read{"seeprom", "read", "panel-vpd", "--length", "4"};
    const auto exitAfterOneRefusal = [&](const std::vector<std::string>& more) {
        clearFaults();
        fault({"nack", "--address", "0xA4", "--count", "1"});
        return kestctl(with(read, more)).exit;
    };
    EXPECT_EQ(0, exitAfterOneRefusal({}));
    EXPECT_NE(0, exitAfterOneRefusal({"--no-retries"}));
    defaults("retries = false");
    EXPECT_NE(0, exitAfterOneRefusal({}));
    EXPECT_EQ(0, exitAfterOneRefusal({"--retries"}));
}

/// The end of a write cycle is no retry: each page but the first needs it.
TEST_F(KestctlDefaults, OfRetriesLeaveTheWaitForAWriteCycle)
{
    const std::string bytes = file("new", std::string(64, 'n'));
    says({"seeprom", "write", "panel-vpd", "-i", bytes, "--yes", "--force", "--width-unproved", "--no-retries"});
    EXPECT_EQ(std::string(64, 'n'), image("panel").substr(0, 64));
    // an arbitration that is lost once
    fault({"arbitration", "--address", "0xA4", "--count", "1"});
    EXPECT_EQ(1, kestctl({"seeprom", "read", "panel-vpd", "--no-retries"}).exit);
}

/// What comes through a hub is certain only when two reads agree.
TEST_F(KestctlDefaults, OfRetriesLeaveTheReadsThatMustAgree)
{
    const std::string lines = kestctl({"seeprom", "read", "riser-vpd", "--length", "4", "--no-retries", "-v"}).errors;
    const std::size_t first = lines.find("read 5:");
    EXPECT_NE(lines.npos, first) << lines;
    EXPECT_NE(lines.npos, lines.find("read 5:", first + 1)) << lines;
}

TEST_F(KestctlDefaults, OfColour)
{
    const RunOptions plain{.environment = {{"TERM", "xterm"}}};
    const RunOptions terminal{.environment = {{"TERM", "xterm"}}, .terminal = true};
    const RunOptions dumb{.environment = {{"TERM", "dumb"}}, .terminal = true};
    const auto isColoured = [this](const std::vector<std::string>& more, const RunOptions& where) {
        return kestctl(with(detect, more), where).output.find("\x1b[32mpresent\x1b[0m") != std::string::npos;
    };
    EXPECT_FALSE(isColoured({}, plain));
    EXPECT_TRUE(isColoured({}, terminal));
    EXPECT_FALSE(isColoured({}, dumb));
    EXPECT_TRUE(isColoured({"--colour", "always"}, plain));
    EXPECT_TRUE(isColoured({"--color=always"}, dumb));
    EXPECT_FALSE(isColoured({"--colour=never"}, terminal));
    EXPECT_TRUE(isColoured({}, {.environment = {{"CLICOLOR_FORCE", "1"}}}));
    EXPECT_FALSE(isColoured({}, {.environment = {{"CLICOLOR_FORCE", "0"}}}));
    EXPECT_FALSE(isColoured({}, {.environment = {{"CLICOLOR_FORCE", "1"}, {"NO_COLOR", "1"}}}));
    defaults("colour = \"always\"");
    EXPECT_TRUE(isColoured({}, plain));
    EXPECT_FALSE(isColoured({"--colour", "never"}, plain));
    EXPECT_TRUE(isColoured({}, {.environment = {{"NO_COLOR", "1"}}}));
    const RunResult wrong = kestctl(with(detect, {"--colour", "blue"}));
    EXPECT_EQ(2, wrong.exit);
    EXPECT_EQ("kestctl: --colour 'blue': expected auto, always or never\n", wrong.errors);
}

TEST_F(KestctlDefaults, ThatAreWrongAreReported)
{
    EXPECT_THAT(
        complaintOf("yes = true"),
        MatchesRegex("key 'defaults.yes': expected one of the keys quiet, verbose, json, colour, timeout, wait, "
                     "retries, voted, verify, found an unknown key; .*\n"));
    EXPECT_THAT(complaintOf("force = true"), HasSubstr("found an unknown key"));
    EXPECT_THAT(complaintOf("quiet = 1"),
                HasSubstr("key 'defaults.quiet': expected true or false, found the integer 1"));
    EXPECT_THAT(complaintOf("verbose = 3"), HasSubstr("expected an integer from 0 to 2, found the integer 3"));
    EXPECT_THAT(complaintOf("voted = 4"), HasSubstr("expected an odd integer from 1 to 15, found the integer 4"));
    EXPECT_THAT(complaintOf("colour = \"blue\""), HasSubstr("found the string \"blue\""));
    for (const char* time : {"-1", "\"-1s\"", "\"2\"", "\"25h\"", "86401", "1.5", "\"soon\"", "true"}) {
        EXPECT_THAT(complaintOf("wait = " + std::string(time)),
                    HasSubstr("key 'defaults.wait': expected a time such as \"500ms\" or \"5min\", or seconds; at most "
                              "1d, found "));
    }
}

TEST_F(KestctlDefaults, ThatAreWrongAreReportedWithTheirLine)
{
    writeFile(machine() / "kest.toml", "[defaults]\nquiet = true\nvotes = 3\n");
    EXPECT_THAT(kestctl({"devices"}).errors,
                HasSubstr((machine() / "kest.toml").string() + ":3:1: key 'defaults.votes'"));
}

class KestctlVerbose : public SeepromTest
{
};

TEST_F(KestctlVerbose, ShowsEachTransaction)
{
    const RunResult read = kestctl({"-v", "seeprom", "read", "planar-vpd", "--length", "4", "--offset", "3"});
    EXPECT_EQ(0, read.exit);
    EXPECT_THAT(read.errors, ContainsRegex("kestctl: sim:planar: A0 = 0x50: write 2: 00 03; read 4: 49 6e 66 6f: done, "
                                           "[0-9]+\\.[0-9]{3} ms\n"));
    // standard output is as ever
    EXPECT_EQ(says({"seeprom", "read", "planar-vpd", "--length", "4", "--offset", "3"}), read.output);
}

TEST_F(KestctlVerbose, ShowsWhatFailsBeforeTheFailure)
{
    const RunResult result = kestctl({"detect", "-v", "sim:planar,L,2C0256,AC"});
    EXPECT_EQ(4, result.exit);
    const std::size_t line =
        result.errors.find("kestctl: sim:planar: AC = 0x56: is it there: address not acknowledged");
    EXPECT_NE(result.errors.npos, line) << result.errors;
    EXPECT_LT(line, result.errors.find("kestctl: sim:planar,L,2C0256,AC: detect: ")) << result.errors;
    EXPECT_THAT(result.errors, HasSubstr(" more like it\n"));
    EXPECT_THAT(kestctl({"detect", "-vv", "sim:planar,L,2C0256,AC"}).errors, Not(HasSubstr(" more like it\n")));
}

TEST_F(KestctlVerbose, ShowsPortsScansAndResets)
{
    EXPECT_THAT(kestctl({"port", "write", "panel-leds", "on", "--pins", "0", "-v"}).errors,
                HasSubstr("C0 = 0x60: write 5: 16 54 55 55 55: done, "));
    EXPECT_THAT(kestctl({"scan", "sim:planar", "--verbose"}).errors, HasSubstr("A0 = 0x50: is it there: done"));
    EXPECT_THAT(kestctl({"reset", "sim:planar", "-v"}).errors, HasSubstr("kestctl: sim:planar: reset: done"));
}

/// A dry run writes nothing: the bus shows it.
TEST_F(KestctlVerbose, ShowsThatADryRunOnlyReads)
{
    EXPECT_EQ("", kestctl({"port", "write", "panel-leds", "on", "--pins", "0", "-v", "--dry-run"}).errors);
}

} // namespace
} // namespace kest::test
