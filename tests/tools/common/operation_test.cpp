/// One operation at a time on a device: whole programs beside each other, and beside a lock that the test holds.
#include <csignal>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

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
using testing::MatchesRegex;
using testing::StartsWith;
using tools::operationLock;
using tools::operationUse;

constexpr std::int64_t someTimeMs = 1714564800250; // 2024-05-01T12:00:00.250Z

class KestctlOperation : public SeepromTest
{
protected:
    /// A lock of another program, on the device of a name.
    static std::unique_ptr<operationLock> heldBy(const std::string& doing, operationUse use, const std::string& device)
    {
        auto lock = tools::operationLockOf(tools::findDevice(device), use);
        EXPECT_EQ(0, lock->attempt({.process = 4711,
                                    .user = 4294967294U,
                                    .sinceMs = someTimeMs,
                                    .program = "other",
                                    .doing = doing,
                                    .device = device}));
        return lock;
    }

private:
    UsedConfiguration m_used{machine() / "kest.toml"};
};

constexpr const char* busyLine =
    "planar-vpd: lock: another program is at work on it: other seeprom write on planar-vpd (process 4711 of user "
    "4294967294) since 2024-05-01T12:00:00.250Z; wait for its end; --wait TIME waits longer";

TEST_F(KestctlOperation, AWriteKeepsEverybodyOff)
{
    const auto writer = heldBy("seeprom write", operationUse::write, "planar-vpd");
    const std::string input = file("input", image("system"));
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"seeprom", "read", "planar-vpd", "--length", "1"},
             {"seeprom", "dump", "planar-vpd", "--length", "1"},
             {"seeprom", "verify", "planar-vpd", input},
             {"seeprom", "diff", "planar-vpd", input},
             {"seeprom", "diff", "panel-vpd", "planar-vpd"},
             {"seeprom", "write", "planar-vpd", "--hex", "00", "--yes", "--force"},
             {"seeprom", "write", "planar-vpd", "--hex", "00", "--dry-run"},
             {"seeprom", "undo", "planar-vpd", "--yes"},
             {"copy", "capture", "planar-vpd"},
             {"detect", "planar-vpd"},
         }) {
        std::vector<std::string> words = command;
        words.insert(words.end(), {"--wait", "0"});
        EXPECT_EQ(busyLine, complaint(6, words));
    }
    // no entry of the error log, and others are free
    EXPECT_EQ(0U, json::parse(says({"errors", "list", "--json"})).at("entries").size());
    says({"seeprom", "read", "panel-vpd", "--length", "1", "--wait", "0"});
}

TEST_F(KestctlOperation, AReadKeepsWritersOffAlone)
{
    const auto reader = heldBy("seeprom dump", operationUse::read, "planar-vpd");
    says({"seeprom", "read", "planar-vpd", "--length", "1", "--wait", "0"});
    EXPECT_THAT(complaint(6, {"seeprom", "write", "planar-vpd", "--hex", "00", "--yes", "--force", "--wait", "0"}),
                HasSubstr("other seeprom dump on planar-vpd (process 4711 of user 4294967294)"));
    reader->release();
    says({"seeprom", "write", "planar-vpd", "--hex", "00", "--yes", "--force", "--wait", "0"});
}

TEST_F(KestctlOperation, RegisterDevicesAndSensorsToo)
{
    const auto leds = heldBy("port write", operationUse::write, "panel-leds");
    const auto sensor = heldBy("thermal read", operationUse::write, "inlet-temp");
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"port", "read", "panel-leds"},
                                               {"port", "write", "panel-leds", "on", "--pins", "0"},
                                               {"port", "config", "panel-leds", "duty0", "1"}}) {
        std::vector<std::string> words = command;
        words.insert(words.end(), {"--wait", "0"});
        EXPECT_THAT(complaint(6, words), StartsWith("panel-leds: lock: another program is at work on it: other port "
                                                    "write on panel-leds (process 4711"));
    }
    EXPECT_THAT(complaint(6, {"thermal", "read", "inlet-temp", "--wait", "0"}),
                StartsWith("inlet-temp: lock: another program is at work on it: other thermal read on inlet-temp"));
}

TEST_F(KestctlOperation, BehindAHubEachPortHasItsOwn)
{
    const auto riser = heldBy("seeprom write", operationUse::write, "riser-vpd");
    EXPECT_EQ(6, kestctl({"seeprom", "read", "riser-vpd", "--length", "1", "--wait", "0"}).exit);
    says({"seeprom", "read", "fan-vpd", "--length", "1", "--wait", "0"});
}

TEST_F(KestctlOperation, JsonNamesTheHolders)
{
    const auto writer = heldBy("seeprom write", operationUse::write, "planar-vpd");
    const RunResult refused = kestctl({"seeprom", "read", "planar-vpd", "--wait", "0", "--json"});
    const json error = json::parse(refused.output).at("error");
    EXPECT_EQ(6, error.at("exit_code"));
    EXPECT_EQ("lock", error.at("step"));
    EXPECT_EQ(json::parse(R"([{"program": "other", "doing": "seeprom write", "device": "planar-vpd", "process": 4711,
                               "user": 4294967294, "since_ms": 1714564800250, "since": "2024-05-01T12:00:00.250Z"}])"),
              error.at("holders"));
}

TEST_F(KestctlOperation, WhatAHolderSaysIsOnlyText)
{
    auto writer = tools::operationLockOf(tools::findDevice("planar-vpd"), operationUse::write);
    ASSERT_EQ(0, writer->attempt({.process = 1,
                                  .user = 0,
                                  .sinceMs = INT64_MAX,
                                  .program = "\x1b[31m",
                                  .doing = "\xE2\x80\xAE",
                                  .device = std::string(300, 'x')}));
    EXPECT_EQ(
        "planar-vpd: lock: another program is at work on it: ?[31m \\xE2\\x80\\xAE on " + std::string(120, 'x') +
            " (process 1 of root) since 292278994-08-17T07:12:55.807Z; wait for its end; --wait TIME waits longer",
        complaint(6, {"seeprom", "read", "planar-vpd", "--wait", "0"}));
}

TEST_F(KestctlOperation, AWaitSaysForWhomAndEndsWithThem)
{
    const auto writer = heldBy("seeprom write", operationUse::write, "planar-vpd");
    Program read("kestctl", {"seeprom", "read", "planar-vpd", "--length", "16"},
                 configured({.environment = {{"TERM", "dumb"}}, .terminal = true}));
    ASSERT_TRUE(read.waitFor("kestctl: planar-vpd: waits for other seeprom write on planar-vpd (process 4711 of user "
                             "4294967294) since 2024-05-01T12:00:00.250Z\r\n"));
    writer->release();
    const RunResult done = read.finish();
    EXPECT_EQ(0, done.exit);
    EXPECT_THAT(done.output, HasSubstr("00000000  "));
}

TEST_F(KestctlOperation, AWaitEndsWithItsTime)
{
    const auto writer = heldBy("seeprom write", operationUse::write, "planar-vpd");
    const RunResult late = kestctl({"seeprom", "read", "planar-vpd", "--wait", "0.05"});
    EXPECT_EQ(6, late.exit);
    EXPECT_EQ("kestctl: planar-vpd: waits for other seeprom write on planar-vpd (process 4711 of user 4294967294) "
              "since 2024-05-01T12:00:00.250Z\nkestctl: " +
                  std::string(busyLine) + "\n",
              late.errors);
}

TEST_F(KestctlOperation, ASignalEndsAWait)
{
    const auto writer = heldBy("seeprom write", operationUse::write, "planar-vpd");
    Program read("kestctl", {"seeprom", "read", "planar-vpd", "--length", "16"},
                 configured({.environment = {{"TERM", "dumb"}}, .terminal = true}));
    ASSERT_TRUE(read.waitFor(": waits for "));
    read.sendSignal(SIGTERM);
    const RunResult ended = read.finish();
    EXPECT_EQ(143, ended.exit);
    EXPECT_THAT(ended.output, HasSubstr("kestctl: planar-vpd: lock: ended by SIGTERM\r\n"));
}

/// The first writer stands within its first page; nobody gets between its read, its pages and its comparison.
TEST_F(KestctlOperation, TwoWritersAndAReader)
{
    const std::string all = file("new", std::string(32768, 'n'));
    HeldPages pages("sim:planar", 0xA0);
    Program first("kestctl", {"seeprom", "write", "planar-vpd", "-i", all, "--yes", "--force"}, configured());
    ASSERT_TRUE(pages.awaitWriter());
    const std::string holder = "planar-vpd: lock: another program is at work on it: kestctl seeprom write on "
                               "planar-vpd \\(process " +
                               std::to_string(first.pid()) + " of [^ ]*\\) since .*";
    EXPECT_THAT(complaint(6, {"seeprom", "write", "planar-vpd", "--hex", "55", "--yes", "--force", "--wait", "0"}),
                MatchesRegex(holder));
    EXPECT_THAT(complaint(6, {"seeprom", "read", "planar-vpd", "--wait", "0"}), MatchesRegex(holder));
    // another way to write the same device
    EXPECT_THAT(complaint(6, {"seeprom", "read", "sim:planar@A0,l,2c0256,a0", "--wait", "0"}),
                HasSubstr(": lock: another program is at work on it: kestctl seeprom write on planar-vpd (process "));
    pages.letGo();
    EXPECT_EQ(0, first.finish().exit);
    EXPECT_EQ(std::string(32768, 'n'), image("system"));
    says({"seeprom", "write", "planar-vpd", "--hex", "55", "--yes", "--force", "--wait", "0"});
    EXPECT_EQ('\x55', image("system")[0]);
}

TEST_F(KestctlOperation, AKilledWriterHoldsNobodyUp)
{
    HeldPages pages("sim:planar", 0xA0);
    Program first("kestctl", {"seeprom", "write", "planar-vpd", "--hex", "0102", "--yes", "--force"}, configured());
    ASSERT_TRUE(pages.awaitWriter());
    EXPECT_EQ(6, kestctl({"seeprom", "read", "planar-vpd", "--wait", "0"}).exit);
    first.sendSignal(SIGKILL);
    EXPECT_EQ(SIGKILL, first.finish().signal);
    says({"seeprom", "read", "planar-vpd", "--wait", "0"});
}

TEST_F(KestctlOperation, TwoDevicesAreComparedWhicheverIsNamedFirst)
{
    const auto reader = heldBy("seeprom read", operationUse::read, "panel-vpd");
    EXPECT_EQ(5, kestctl({"seeprom", "diff", "panel-vpd", "planar-vpd", "--wait", "0"}).exit);
    EXPECT_EQ(5, kestctl({"seeprom", "diff", "planar-vpd", "panel-vpd", "--wait", "0"}).exit);
    EXPECT_EQ(0, kestctl({"seeprom", "diff", "planar-vpd", "planar-vpd", "--wait", "0"}).exit);
}

TEST_F(KestctlOperation, ACopyIsNotHeld)
{
    says({"copy", "capture", "planar-vpd"});
    const auto writer = heldBy("seeprom write", operationUse::write, "planar-vpd");
    says({"seeprom", "read", "planar-vpd", "--length", "1", "--mode", "file", "--wait", "0"});
    says({"seeprom", "write", "planar-vpd", "--hex", "01", "--mode", "file", "--wait", "0"});
}

TEST_F(KestctlOperation, AUserWhoMayNotLockIsToldWhere)
{
    std::filesystem::create_directory(machine() / "iic.planar.operations");
    EXPECT_THAT(complaint(3, {"seeprom", "read", "planar-vpd", "--length", "1"}),
                MatchesRegex("planar-vpd: lock: the device can't be locked in '.*/machine': not permitted; run it as a "
                             "user who may use the bus or file"));
}

TEST_F(KestctlOperation, TheTimeToWaitIsCheckedLikeAnyOther)
{
    EXPECT_THAT(complaint(2, {"seeprom", "read", "planar-vpd", "--wait", "soon"}), HasSubstr("--wait"));
}

/// The step goes on to its end: what it has written is written.
TEST_F(KestctlOperation, ASignalInTheMiddleOfAStepEndsTheCommandBehindIt)
{
    bool ended = false;
    try {
        tools::whileHeld(
            tools::findDevice("planar-vpd"), {.use = operationUse::write, .doing = "port write"},
            [&ended] {
                kill(getpid(), SIGTERM);
                while (tools::pauseUnlessInterrupted(1'000'000)) {}
                ended = true;
            },
            "; nothing was written", "; all is written");
        ADD_FAILURE() << "no interruption";
    } catch (const tools::failure& why) {
        EXPECT_EQ(143, why.code);
        EXPECT_EQ("ended by SIGTERM; all is written", why.what);
        EXPECT_EQ("planar-vpd", why.device);
        EXPECT_EQ("port write", why.step);
    }
    EXPECT_TRUE(ended);
}

} // namespace
} // namespace kest::test
