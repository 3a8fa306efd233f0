/// ^C and its like while kestctl works on a device: where it ends, what it says, and what the device holds then.
#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/host/usedconfiguration.h"
#include "tests/tools/heldpages.h"
#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;

/// Content of planar-vpd that shows how many offset bytes it takes.
std::string content(unsigned seed)
{
    std::mt19937 bytes(seed);
    std::string all(32768, '\0');
    std::ranges::generate(all, [&bytes] { return static_cast<char>(bytes() & 0xFFU); });
    return all;
}

class KestctlInterrupt : public SeepromTest
{
protected:
    KestctlInterrupt() { writeFile(machine() / "system.bin", content(1)); }

    /// All of planar-vpd, other bytes than it holds at first.
    [[nodiscard]] std::string newContent() const { return file("new", content(2)); }

    /// A write of all of planar-vpd that has been stopped within its first page.
    struct StoppedWrite {
        StoppedWrite(const KestctlInterrupt& test, std::vector<std::string> more)
            : pages("sim:planar", 0xA0), program("kestctl", command(test, std::move(more)), test.configured())
        {
            EXPECT_TRUE(pages.awaitWriter());
        }
        static std::vector<std::string> command(const KestctlInterrupt& test, std::vector<std::string> more)
        {
            std::vector<std::string> words{"seeprom", "write", "planar-vpd", "-i", test.newContent(), "--yes"};
            words.insert(words.end(), more.begin(), more.end());
            return words;
        }

        HeldPages pages;
        Program program;
    };

    /// How a write ends that gets a signal within its first page.
    RunResult interruptedWrite(int signal, std::vector<std::string> more = {})
    {
        StoppedWrite write(*this, std::move(more));
        EXPECT_TRUE(deliver(write.program, signal));
        write.pages.letGo();
        return write.program.finish();
    }
    [[nodiscard]] std::size_t entries() const
    {
        return json::parse(says({"errors", "list", "--json"})).at("entries").size();
    }
    [[nodiscard]] std::size_t undoFiles() const
    {
        return json::parse(says({"seeprom", "undo", "planar-vpd", "--list", "--json"})).at("undo_files").size();
    }

private:
    UsedConfiguration m_used{machine() / "kest.toml"};
};

/// 16 pages of 64 bytes are a group. What comes behind is as before.
TEST_F(KestctlInterrupt, AWriteEndsBehindTheGroupOfPagesThatIsUnderWay)
{
    const std::string old = image("system");
    const RunResult ended = interruptedWrite(SIGINT);
    EXPECT_EQ(130, ended.exit);
    EXPECT_EQ("", ended.output);
    EXPECT_THAT(ended.errors,
                MatchesRegex("kestctl: planar-vpd: write: interrupted; 1024 of 32768 bytes are written and verified; "
                             "'kestctl seeprom restore [^ ]*/undo/planar-vpd-[^ ]*' puts the old bytes back\n"));
    EXPECT_EQ(content(2).substr(0, 1024) + old.substr(1024), image("system"));
    EXPECT_EQ(0U, entries());
    // the device is free at once
    says({"seeprom", "undo", "planar-vpd", "--yes", "--wait", "0"});
    EXPECT_EQ(old, image("system"));
}

TEST_F(KestctlInterrupt, EachSignalHasItsExitCodeAndItsWords)
{
    const RunResult terminated = interruptedWrite(SIGTERM);
    EXPECT_EQ(143, terminated.exit);
    EXPECT_THAT(terminated.errors, HasSubstr("planar-vpd: write: ended by SIGTERM; 1024 of 32768 bytes are written"));
    says({"seeprom", "undo", "planar-vpd", "--yes"});
    const RunResult hungUp = interruptedWrite(SIGHUP);
    EXPECT_EQ(129, hungUp.exit);
    EXPECT_THAT(hungUp.errors, HasSubstr("write: ended by SIGHUP: the terminal was closed; 1024 of 32768 bytes"));
}

TEST_F(KestctlInterrupt, JsonHasTheExitCodeAndWhatIsWritten)
{
    const RunResult ended = interruptedWrite(SIGINT, {"--json"});
    const json error = json::parse(ended.output).at("error");
    EXPECT_EQ(130, error.at("exit_code"));
    EXPECT_EQ("interrupted; 1024 of 32768 bytes are written and verified", error.at("message"));
    EXPECT_EQ(0, error.at("log_id"));
}

/// One page: it is the whole write, and it is compared before the program ends.
TEST_F(KestctlInterrupt, AfterTheLastPageTheBytesAreComparedAllTheSame)
{
    HeldPages pages("sim:planar", 0xA0);
    Program write("kestctl", {"seeprom", "write", "planar-vpd", "--hex", "0102", "--offset", "0x100", "--yes"},
                  configured());
    ASSERT_TRUE(pages.awaitWriter());
    ASSERT_TRUE(deliver(write, SIGINT));
    pages.letGo();
    const RunResult ended = write.finish();
    EXPECT_EQ(130, ended.exit);
    EXPECT_THAT(ended.errors, HasSubstr("write: interrupted; all 2 bytes are written and verified; 'kestctl seeprom "
                                        "restore "));
    EXPECT_EQ("\x01\x02", image("system").substr(0x100, 2));
}

TEST_F(KestctlInterrupt, NothingIsLeftOfAWriteThatEndsAtItsQuestion)
{
    const std::string old = image("system");
    Program write("kestctl", {"seeprom", "write", "planar-vpd", "-i", newContent()},
                  configured({.environment = {{"TERM", "dumb"}}, .terminal = true}));
    ASSERT_TRUE(write.waitFor("[y/N] "));
    // ^C on the terminal
    write.type("\x03");
    const RunResult ended = write.finish();
    EXPECT_EQ(130, ended.exit);
    EXPECT_THAT(ended.output, HasSubstr("kestctl: question: interrupted; nothing was written\r\n"));
    EXPECT_EQ(old, image("system"));
    EXPECT_EQ(0U, undoFiles());
}

TEST_F(KestctlInterrupt, AClosedTerminalEndsAQuestion)
{
    auto write = std::make_unique<Program>(
        "kestctl", std::vector<std::string>{"seeprom", "write", "planar-vpd", "-i", newContent()},
        configured({.environment = {{"TERM", "dumb"}}, .terminal = true}));
    ASSERT_TRUE(write->waitFor("[y/N] "));
    write->closeTerminal();
    EXPECT_EQ(129, write->finish().exit);
    EXPECT_EQ(0U, undoFiles());
}

/// The page cannot be written while the test holds it, so only the signals can end the program so soon.
TEST_F(KestctlInterrupt, ASecondInterruptWithinASecondEndsAtOnce)
{
    const std::string old = image("system");
    StoppedWrite write(*this, {});
    // signals that come while one is pending are one
    while (!hasEnded(write.program)) {
        write.program.sendSignal(SIGINT);
    }
    const RunResult ended = write.program.finish();
    EXPECT_EQ(130, ended.exit);
    EXPECT_THAT(ended.errors, MatchesRegex("kestctl: planar-vpd: write: ended at once; what is written is not known; "
                                           "'kestctl seeprom restore [^ ]*' puts the old bytes back\n"));
    EXPECT_EQ(old, image("system"));
    write.pages.letGo();
    // its undo file is whole, and nobody holds the device
    says({"seeprom", "undo", "planar-vpd", "--yes", "--all-pages", "--wait", "0"});
}

TEST_F(KestctlInterrupt, TwoOtherSignalsDoNotEndAWriteAtOnce)
{
    StoppedWrite write(*this, {});
    ASSERT_TRUE(deliver(write.program, SIGTERM));
    ASSERT_TRUE(deliver(write.program, SIGTERM));
    ASSERT_TRUE(deliver(write.program, SIGINT));
    write.pages.letGo();
    const RunResult ended = write.program.finish();
    EXPECT_EQ(143, ended.exit);
    EXPECT_THAT(ended.errors, HasSubstr("1024 of 32768 bytes are written and verified"));
}

/// Such is a program that a script runs in the background, or under nohup.
TEST_F(KestctlInterrupt, ASignalThatWasIgnoredStaysIgnored)
{
    const auto before = std::signal(SIGHUP, SIG_IGN);
    StoppedWrite write(*this, {});
    std::signal(SIGHUP, before);
    write.program.sendSignal(SIGHUP);
    write.pages.letGo();
    EXPECT_EQ(0, write.program.finish().exit);
    EXPECT_EQ(content(2), image("system"));
}

TEST_F(KestctlInterrupt, AWatchOfASensorEndsAsEver)
{
    Program watch("kestctl", {"thermal", "read", "inlet-temp", "--watch", "3600"}, configured());
    ASSERT_TRUE(watch.readLine().has_value());
    watch.sendSignal(SIGINT);
    const RunResult ended = watch.finish();
    EXPECT_EQ(0, ended.exit);
    EXPECT_EQ("", ended.errors);
}

TEST_F(KestctlInterrupt, DetectionEndsBehindTheDeviceThatIsUnderWay)
{
    says({"detect", "panel-vpd"});
    HeldMachine held(machine());
    Program detect("kestctl", {"detect", "panel-vpd", "planar-vpd"}, configured());
    ASSERT_TRUE(held.awaitUser());
    ASSERT_TRUE(deliver(detect, SIGINT));
    held.letGo();
    const RunResult ended = detect.finish();
    EXPECT_EQ(130, ended.exit);
    EXPECT_EQ("panel-vpd: 24C02 at A4 = 0x52: present\n", ended.output);
    EXPECT_EQ("kestctl: panel-vpd: detect: interrupted\n", ended.errors);
}

TEST_F(KestctlInterrupt, CommandsOfOneTransferEndWithTheSignalsExitCode)
{
    struct Row {
        std::vector<std::string> command;
        int signal;
        int exit;
        const char* line;
    };
    says({"detect", "panel-vpd"});
    for (const Row& each :
         {Row{{"port", "read", "panel-leds"}, SIGTERM, 143, "panel-leds: port read: ended by SIGTERM"},
          Row{{"thermal", "read", "inlet-temp"}, SIGINT, 130, "inlet-temp: thermal read: interrupted"},
          Row{{"seeprom", "probe", "panel-vpd"}, SIGINT, 130, "panel-vpd: seeprom probe: interrupted"},
          Row{{"port", "write", "panel-leds", "on", "--pins", "0"},
              SIGHUP,
              129,
              "panel-leds: port write: ended by SIGHUP: the terminal was closed; nothing was written"}}) {
        HeldMachine held(machine());
        Program program("kestctl", each.command, configured());
        ASSERT_TRUE(held.awaitUser()) << each.line;
        ASSERT_TRUE(deliver(program, each.signal)) << each.line;
        held.letGo();
        const RunResult ended = program.finish();
        EXPECT_EQ(each.exit, ended.exit) << each.line;
        EXPECT_EQ("", ended.output);
        EXPECT_EQ("kestctl: " + std::string(each.line) + "\n", ended.errors);
    }
}

/// Nobody reads the line any more; the pages that were under way are finished, and the old bytes are saved.
TEST_F(KestctlInterrupt, ATerminalThatIsClosedDuringThePagesEndsTheWrite)
{
    const std::string old = image("system");
    HeldPages pages("sim:planar", 0xA0);
    Program write("kestctl", StoppedWrite::command(*this, {}),
                  configured({.environment = {{"TERM", "dumb"}}, .terminal = true}));
    ASSERT_TRUE(pages.awaitWriter());
    write.closeTerminal();
    ASSERT_TRUE(isTaken(write, SIGHUP));
    pages.letGo();
    const RunResult ended = write.finish();
    EXPECT_EQ(129, ended.exit);
    EXPECT_EQ(0, ended.signal);
    EXPECT_EQ(content(2).substr(0, 1024) + old.substr(1024), image("system"));
    EXPECT_EQ(1U, undoFiles());
    // the device is free at once
    says({"seeprom", "undo", "planar-vpd", "--yes", "--wait", "0"});
    EXPECT_EQ(old, image("system"));
}

} // namespace
} // namespace kest::test
