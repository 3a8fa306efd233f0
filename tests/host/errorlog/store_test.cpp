#include <chrono>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

#include "tests/forks.h"
#include "tests/host/host_support.h"
#include "tests/places.h"

namespace kest::test
{

namespace
{

using Words = std::vector<std::uint32_t>;

class ErrorLog : public testing::Test
{
protected:
    HostFolder folder;
};

TEST_F(ErrorLog, IsEmptyAndMakesNothingBeforeTheFirstEntry)
{
    EXPECT_EQ(Words{}, wordsInLog());
    EXPECT_EQ("", host::checkStore());
    EXPECT_EQ("", host::clearEntries());
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "state"));
}

TEST_F(ErrorLog, HoldsWhatIsCommittedTheLatestFirst)
{
    for (std::uint32_t number = 1; number <= 3; ++number) {
        commitEntry(number);
    }
    EXPECT_EQ((Words{3, 2, 1}), wordsInLog());
    EXPECT_EQ((Words{3, 2}), wordsInLog({.limit = 2}));
    EXPECT_EQ("", host::checkStore());
}

TEST_F(ErrorLog, AnEntryIsReadBackWhole)
{
    const std::uint32_t id = commitEntry(7, ERRL_SEV_RECOVERED, std::string("\0\xFF", 2));
    const host::entryList list = host::listEntries({.plid = id});
    ASSERT_EQ(1U, list.entries.size());
    const host::loggedEntry& entry = list.entries[0];
    EXPECT_EQ(id, entry.plid);
    EXPECT_LE(entry.createdMs, entry.committedMs);
    EXPECT_EQ(0x10U, entry.severity);
    EXPECT_EQ(0x1300, entry.creator);
    EXPECT_EQ(0x80001312U, entry.returnCode);
    EXPECT_EQ(0x1300, entry.commitComponent);
    EXPECT_EQ(0x2000, entry.commitAction);
    EXPECT_EQ(getpid(), entry.processId);
    ASSERT_EQ(1U, entry.userDetails.size());
    EXPECT_EQ((std::vector<std::uint8_t>{0, 0xFF}), entry.userDetails[0].bytes);
    ASSERT_EQ(1U, entry.callouts.size());
    EXPECT_EQ(6U, entry.callouts[0].procedure);
    EXPECT_FALSE(entry.incomplete);
}

TEST_F(ErrorLog, Filters)
{
    commitEntry(1, ERRL_SEV_RECOVERED);
    const std::uint32_t second = commitEntry(2);
    commitEntry(3, ERRL_SEV_UNRECOVERED, "", 0x1400);
    EXPECT_EQ((Words{1}), wordsInLog({.severity = 0x10}));
    EXPECT_EQ((Words{3, 2}), wordsInLog({.severity = 0x20}));
    EXPECT_EQ((Words{3}), wordsInLog({.component = 0x1400}));
    EXPECT_EQ((Words{2}), wordsInLog({.severity = 0x20, .component = 0x1300}));
    EXPECT_EQ((Words{2}), wordsInLog({.plid = second}));
    EXPECT_EQ((Words{}), wordsInLog({.plid = second + 1000}));
    const auto time = host::listEntries({.plid = second}).entries.at(0).committedMs;
    EXPECT_EQ(3U, wordsInLog({.sinceMs = time - 60000}).size());
    EXPECT_EQ((Words{}), wordsInLog({.sinceMs = time + 60000}));
}

TEST_F(ErrorLog, AnEntryCommittedTwiceIsThereTwice)
{
    ErrlEntry entry(0x1300, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0, 1, SERVICE_CODE_KEST,
                    1, 5, 0, 0, 0, EPUB_SUBSYSTEM_SOFTWARE, SRCI_TERM_NONE);
    entry.commit(0x1300, ERRL_ACTION_REPORT);
    entry.setRC(0x1301);
    entry.commit(0x1300, ERRL_ACTION_KEEP_FOR_SERVICE);
    EXPECT_EQ((Words{5, 5}), wordsInLog({.plid = entry.plid()}));
}

TEST_F(ErrorLog, DropsTheOldestInformationalOnesFirst)
{
    const bool exact = hasDatabase(folder);
    folder.configure("errorlog.max_entries = 4");
    commitEntry(1);
    commitEntry(2, ERRL_SEV_RECOVERED);
    commitEntry(3);
    commitEntry(4, ERRL_SEV_RECOVERED);
    EXPECT_EQ((Words{4, 3, 2, 1}), wordsInLog());
    commitEntry(5);
    EXPECT_EQ((Words{5, 4, 3, 1}), wordsInLog());
    commitEntry(6);
    EXPECT_EQ((Words{6, 5, 3, 1}), wordsInLog());
    commitEntry(7);
    EXPECT_EQ((Words{7, 6, 5, 3}), wordsInLog());
    commitEntry(8, ERRL_SEV_RECOVERED);
    EXPECT_EQ((Words{8, 7, 6, 5}), wordsInLog()) << "the entry that exceeds the bound is not dropped";
    folder.configure("errorlog.max_entries = 1");
    commitEntry(9);
    EXPECT_EQ((Words{9}), wordsInLog());
    EXPECT_TRUE(!exact || host::checkStore().empty());
}

TEST_F(ErrorLog, KeepsWithinItsSize)
{
    folder.configure("errorlog.max_size = 1048576");
    // each takes a little more than 120,000 bytes of JSON
    for (std::uint32_t number = 1; number <= 20; ++number) {
        commitEntry(number, number == 18 ? ERRL_SEV_RECOVERED : ERRL_SEV_UNRECOVERED, std::string(60000, 'x'));
    }
    const Words kept = wordsInLog();
    ASSERT_LE(5U, kept.size());
    EXPECT_GE(8U, kept.size());
    EXPECT_EQ(20U, kept[0]);
    EXPECT_EQ(19U, kept[1]);
    EXPECT_EQ(17U, kept[2]) << "the informational one went first";
}

TEST_F(ErrorLog, IsCleared)
{
    commitEntry(1);
    const std::uint32_t before = commitEntry(2);
    EXPECT_EQ("", host::clearEntries());
    EXPECT_EQ(Words{}, wordsInLog());
    EXPECT_LT(before, commitEntry(3)) << "identifiers continue";
    EXPECT_EQ((Words{3}), wordsInLog());
}

TEST_F(ErrorLog, ThreadsOfOneProcessCommitTogether)
{
    std::vector<std::thread> threads;
    for (std::uint32_t thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            for (std::uint32_t number = 0; number < 50; ++number) {
                commitEntry(thread * 100 + number);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto ids = idsInLog();
    const std::set<std::uint32_t> distinct(ids.begin(), ids.end());
    EXPECT_EQ(200U, ids.size());
    EXPECT_EQ(200U, distinct.size());
}

TEST_F(ErrorLog, AForkedChildContinuesByItself)
{
    commitEntry(1);
    EXPECT_EQ(0, inChild([] {
                  commitEntry(2);
                  return inChild([] {
                      commitEntry(3);
                      return 0;
                  });
              }));
    commitEntry(4);
    EXPECT_EQ((Words{4, 3, 2, 1}), wordsInLog());
    EXPECT_EQ("", host::checkStore());
}

TEST_F(ErrorLog, ForksBesideCommitsAndReadsLoseNothing)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    std::thread writer([] {
        for (std::uint32_t number = 0; number < 200; ++number) {
            commitEntry(number);
        }
    });
    for (std::uint32_t number = 0; number < 20; ++number) {
        // The child ends abruptly, like one that executes another program: the thread sanitizer would miss the writer's
        // thread in it.
        EXPECT_EQ(256 + SIGKILL, inChild([number] {
                      alarm(hangSeconds);
                      commitEntry(1000 + number);
                      return raise(SIGKILL);
                  }));
        host::listEntries({.limit = 5});
    }
    writer.join();
    EXPECT_EQ(220U, wordsInLog().size());
    EXPECT_EQ("", host::checkStore());
}

TEST_F(ErrorLog, ARemovedStoreIsMadeAgain)
{
    commitEntry(1);
    std::filesystem::remove_all(folder.path() / "state");
    commitEntry(2);
    EXPECT_EQ((Words{2}), wordsInLog());
}

TEST_F(ErrorLog, IsReadWithoutPermissionToWrite)
{
    commitEntry(1);
    commitEntry(2);
    // as after the last writer: the process has closed the database, whose log files remain
    folder.configure("");
    for (const char* name : {"", "state", "kest.toml"}) {
        chmod((folder.path() / name).c_str(), 0755);
    }
    for (const auto& file : std::filesystem::directory_iterator(folder.path() / "state")) {
        chmod(file.path().c_str(), 0644);
    }
    EXPECT_EQ(0, inChild([&] {
                  if (geteuid() != 0) {
                      chmod((folder.path() / "state").c_str(), 0555);
                  }
                  const host::entryList list = dropRights() ? host::listEntries() : host::entryList();
                  return list.error.empty() && list.entries.size() == 2 ? 0 : 1;
              }));
    chmod((folder.path() / "state").c_str(), 0755);
}

TEST_F(ErrorLog, WhatRootMakesBelongsToTheFoldersOwner)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    std::filesystem::create_directory(folder.path() / "state");
    ASSERT_EQ(0, chown((folder.path() / "state").c_str(), 65534, 65534));
    commitEntry(1);
    int files = 0;
    for (const auto& file : std::filesystem::directory_iterator(folder.path() / "state")) {
        struct stat facts {
        };
        ASSERT_EQ(0, stat(file.path().c_str(), &facts));
        EXPECT_EQ(65534U, facts.st_uid) << file.path();
        EXPECT_EQ(0U, facts.st_mode & 07) << file.path();
        ++files;
    }
    EXPECT_LE(3, files);
}

TEST_F(ErrorLog, KilledAtAnyMomentItHoldsWhatWasCommitted)
{
    std::size_t expected = 0;
    for (std::uint32_t round = 0; round < 25; ++round) {
        const auto reported = killAfter(1 + round * 7 % 40, [round](std::uint32_t number) {
            return commitEntry(round * 1000 + number, number % 3 == 0 ? ERRL_SEV_RECOVERED : ERRL_SEV_UNRECOVERED,
                               std::string(number * 37 % 5000, 'x'));
        });
        expected += reported.size();
        const auto ids = idsInLog();
        for (const std::uint32_t id : reported) {
            EXPECT_EQ(1U, ids.count(id)) << "round " << round;
        }
        EXPECT_GE(expected + round + 1, ids.size())
            << "at most one more a round: committed, and killed before it reported it";
        EXPECT_EQ("", host::checkStore());
    }
}

/// Entries of each process; fewer under the emulator, unless KEST_LONG_TESTS is set.
std::uint32_t manyEntries()
{
    const bool slow = isEmulated();
    return slow && std::getenv("KEST_LONG_TESTS") == nullptr ? 1000 : 10000;
}

TEST_F(ErrorLog, TwoProcessesLoseNothingAndRepeatNoIdentifier)
{
    const std::uint32_t entries = manyEntries();
    folder.configure("errorlog.max_entries = 100000");
    std::vector<pid_t> children;
    for (std::uint32_t process = 0; process < 2; ++process) {
        children.push_back(fork());
        if (children.back() == 0) {
            for (std::uint32_t number = 0; number < entries; ++number) {
                commitEntry(process * 1000000 + number);
            }
            _exit(0);
        }
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    std::set<std::uint32_t> ids;
    std::set<std::uint32_t> numbers;
    const host::entryList list = host::listEntries();
    EXPECT_EQ("", list.error);
    for (const host::loggedEntry& entry : list.entries) {
        ids.insert(entry.plid);
        numbers.insert(entry.srcs.at(0).words[4]);
    }
    EXPECT_EQ(2 * entries, list.entries.size());
    EXPECT_EQ(2 * entries, ids.size());
    EXPECT_EQ(2 * entries, numbers.size());
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "spool")) << "no entry had to be spooled";
    EXPECT_EQ("", host::checkStore());
}

} // namespace

} // namespace kest::test
