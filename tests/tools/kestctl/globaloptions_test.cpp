/// Options that every verb takes: --quiet and --timeout.
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "base/descriptor.h"
#include "tests/host/usedconfiguration.h"
#include "tests/tools/heldpages.h"
#include "tests/tools/seeprom_support.h"
#include "tools/common/device.h"
#include "tools/common/operation.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class KestctlGlobalOptions : public SeepromTest
{
protected:
    [[nodiscard]] std::string complaintOf(std::vector<std::string> arguments, int exit) const
    {
        const RunResult result = kestctl(std::move(arguments));
        EXPECT_EQ(exit, result.exit);
        return result.errors;
    }
};

TEST_F(KestctlGlobalOptions, StandBeforeAndBehindTheVerb)
{
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"-q", "--json", "--timeout", "1h", "detect", "planar-vpd"},
             {"detect", "planar-vpd", "--quiet", "--json", "--timeout=1h"},
             {"--timeout", "1h", "seeprom", "-q", "read", "planar-vpd", "--length", "4", "--json"}}) {
        const RunResult result = kestctl(words);
        EXPECT_EQ(0, result.exit) << result.errors;
        EXPECT_TRUE(json::accept(result.output)) << result.output;
    }
}

TEST_F(KestctlGlobalOptions, SizesAndTimesHaveUnits)
{
    EXPECT_EQ(64, json::parse(says({"seeprom", "read", "planar-vpd", "--offset", "4KiB", "--length", "0x40", "--json",
                                    "--wait", "500ms"}))
                      .at("length"));
    EXPECT_EQ(4096,
              json::parse(says({"seeprom", "read", "planar-vpd", "--offset", "4KiB", "--length", "0x40", "--json"}))
                  .at("offset"));
    EXPECT_EQ("kestctl: length '4kB': expected a size such as 256, 0x100, 4KiB or 1MiB\n",
              complaintOf({"seeprom", "read", "planar-vpd", "--length", "4kB"}, 2));
    EXPECT_EQ("kestctl: --wait '-1s': expected a time such as 500ms, 2s or 5min; a number alone means seconds\n",
              complaintOf({"detect", "planar-vpd", "--wait=-1s"}, 2));
    EXPECT_EQ("kestctl: --timeout '25h': expected 0 to 1d\n", complaintOf({"devices", "--timeout", "25h"}, 2));
    EXPECT_EQ("kestctl: --write-cycle '2s': expected 1ms to 1s\n",
              complaintOf({"seeprom", "write", "planar-vpd", "--hex", "00", "--write-cycle", "2s"}, 2));
    says({"sim", "fault", "add", "hold-scl", "--lasts-ms", "1.5s"});
    EXPECT_EQ(1500, json::parse(says({"sim", "fault", "list", "--json"})).at("faults").at(0).at("lasts_ms"));
}

/// As of a script's variable that is not set: it is no "not given", which would read or write everything.
TEST_F(KestctlGlobalOptions, AnEmptyValueIsRefused)
{
    const std::string output = (folder() / "o").string();
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"seeprom", "read", "planar-vpd", "-o", output, "--length"},
             {"seeprom", "read", "planar-vpd", "-o", output, "--offset"},
             {"seeprom", "read", "planar-vpd", "--output"},
             {"seeprom", "show", "planar-vpd", "--as"},
             {"seeprom", "make", "fru", "product.assetTag=A", "-o", output, "--size"},
             {"seeprom", "write", "planar-vpd", "--hex", "00", "--yes", "--force", "--input"},
             {"port", "write", "panel-leds", "on", "1", "--yes", "--pins"},
             {"errors", "list", "--since"},
             {"detect", "planar-vpd", "--timeout"},
             {"detect", "planar-vpd", "--speed"}}) {
        std::vector<std::string> apart = words;
        apart.emplace_back();
        std::vector<std::string> together = words;
        together.back() += "=";
        const std::string expected = "kestctl: " + words.back() + ": the value is empty; 'kestctl ";
        EXPECT_THAT(complaintOf(apart, 2), StartsWith(expected));
        EXPECT_THAT(complaintOf(together, 2), StartsWith(expected));
        // the next word is not its value
        together.emplace_back("--json");
        EXPECT_THAT(complaintOf(together, 2), StartsWith(expected));
    }
    EXPECT_EQ("kestctl: BITS: the value is empty; 'kestctl port write --help' shows how\n",
              complaintOf({"port", "write", "panel-leds", "on", "", "--pins", "0", "--yes"}, 2));
    EXPECT_FALSE(std::filesystem::exists(output));
}

TEST_F(KestctlGlobalOptions, QuietLeavesOutHints)
{
    const std::vector<std::string> write{"seeprom",  "write", "planar-vpd", "--hex",  "a5",
                                         "--offset", "300",   "--yes",      "--force"};
    EXPECT_THAT(says(write), HasSubstr("undo: kestctl seeprom restore "));
    std::vector<std::string> quiet = write;
    quiet[4] = "5a";
    quiet.emplace_back("-q");
    const std::string told = says(quiet);
    EXPECT_THAT(told, HasSubstr("planar-vpd: wrote 1 byte in 1 page"));
    EXPECT_THAT(told, Not(HasSubstr("undo:")));

    EXPECT_EQ("made a demo machine\n", says({"sim", "new", (folder() / "other").string(), "--quiet"}));
}

TEST_F(KestctlGlobalOptions, QuietKeepsResultsAndFailures)
{
    const RunResult result = kestctl({"detect", "planar-vpd", "nosuch", "-q"});
    EXPECT_EQ(4, result.exit);
    EXPECT_EQ("planar-vpd: 24C256 at A0 = 0x50: present\n", result.output);
    EXPECT_THAT(result.errors, StartsWith("kestctl: nosuch: no such device in the device table"));
}

/// A command whose time is up while others have the device, and what it says of that.
class KestctlTimeout : public KestctlGlobalOptions
{
protected:
    KestctlTimeout() { writeFile(machine() / "panel.bin", std::string(256, '\xAA')); }

    UsedConfiguration used{machine() / "kest.toml"};
};

/// The signal of its timer comes while it waits.
TEST_F(KestctlTimeout, EndsTheWaitForOthers)
{
    const tools::device which = tools::findDevice("panel-vpd");
    const tools::deviceOperation held(which, {.use = tools::operationUse::write, .doing = "a test"});
    Program read("kestctl", {"seeprom", "read", "panel-vpd", "--wait", "1h", "--timeout", "1h"},
                 {.environment = configured().environment, .terminal = true});
    ASSERT_TRUE(read.waitFor("kestctl: panel-vpd: waits for "));
    read.sendSignal(SIGALRM);
    const RunResult result = read.finish();
    EXPECT_EQ(6, result.exit);
    EXPECT_THAT(result.output, HasSubstr("kestctl: panel-vpd: lock: another program is at work on it: kestctl a test "
                                         "on panel-vpd (process "));
    EXPECT_THAT(result.output, HasSubstr("; wait for its end; the time of --timeout is up"));
}

/// The signal of its timer comes in the middle of the first page.
TEST_F(KestctlTimeout, EndsAWriteBehindThePagesThatAreUnderWay)
{
    HeldPages pages("sim:planar", 0xA4);
    Program write("kestctl",
                  {"seeprom", "write", "panel-vpd", "-i", file("new", std::string(256, '\x55')), "--yes", "--force",
                   "--width-unproved", "--timeout", "1h", "--json"},
                  configured());
    ASSERT_TRUE(pages.awaitWriter());
    ASSERT_TRUE(deliver(write, SIGALRM));
    pages.letGo();
    const RunResult ended = write.finish();
    EXPECT_EQ(1, ended.exit);
    EXPECT_THAT(ended.errors, StartsWith("kestctl: panel-vpd: write: the time of --timeout is up; "));
    EXPECT_EQ("timeout", json::parse(ended.output).at("error").at("verdict"));
    // no page is half old and half new
    const std::string now = image("panel");
    for (std::size_t page = 0; page < 256; page += 8) {
        EXPECT_THAT(now.substr(page, 8), testing::AnyOf(std::string(8, '\xAA'), std::string(8, '\x55'))) << page;
    }
    EXPECT_EQ("", kestctl({"errors", "list", "--json"}).errors);
    EXPECT_EQ(0U, json::parse(says({"errors", "list", "--json"})).at("entries").size());
}

TEST_F(KestctlTimeout, EndsAtOnceWhatWatchesNoSignals)
{
    says({"scan", "sim:planar"});
    HeldMachine held(machine());
    Program scan("kestctl", {"scan", "sim:planar", "--json", "--timeout", "1ms"}, configured());
    const RunResult ended = scan.finish();
    held.letGo();
    EXPECT_EQ(1, ended.exit);
    EXPECT_EQ("kestctl: the time of --timeout is up\n", ended.errors);
    EXPECT_EQ("timeout", json::parse(ended.output).at("error").at("verdict"));
}

/// Its output is a pipe that is full, and stays so.
TEST_F(KestctlTimeout, EndsWhatNobodyTakesTheOutputOf)
{
    const std::string pipe = (folder() / "pipe").string();
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const fileDescriptor full(open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::string block(4096, 'x');
    while (write(full.number(), block.data(), block.size()) > 0) {
        continue;
    }
    const RunResult ended = kestctl({"devices", "--json", "--timeout", "1ms"}, {.outputTo = pipe});
    EXPECT_EQ(1, ended.exit);
    EXPECT_EQ("kestctl: the time of --timeout is up\n", ended.errors);
}

TEST_F(KestctlTimeout, OfZeroIsNone) { EXPECT_EQ(0, kestctl({"detect", "planar-vpd", "--timeout", "0"}).exit); }

/// SIGALRM has its usual effect without the option.
TEST_F(KestctlTimeout, IsTheOnlyUseOfItsSignal)
{
    HeldPages pages("sim:planar", 0xA4);
    Program write("kestctl", {"seeprom", "write", "panel-vpd", "--hex", "55", "--yes", "--force", "--width-unproved"},
                  configured());
    ASSERT_TRUE(pages.awaitWriter());
    write.sendSignal(SIGALRM);
    EXPECT_EQ(SIGALRM, write.finish().signal);
    pages.letGo();
}

} // namespace
} // namespace kest::test
