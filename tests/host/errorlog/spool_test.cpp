/// Where entries go that the store cannot take.
#include <array>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/spool.h"
#include "tests/host/host_support.h"

namespace kest::test
{

namespace
{

using Words = std::vector<std::uint32_t>;

class Spool : public testing::Test
{
protected:
    void SetUp() override { database = hasDatabase(folder); }

    /// Commits an entry that the store can't take, and checks what was written to standard error.
    std::uint32_t commitReported(std::uint32_t word, const std::string& problem)
    {
        testing::internal::CaptureStderr();
        const std::uint32_t id = commitEntry(word);
        const std::string reported = testing::internal::GetCapturedStderr();
        EXPECT_EQ(reported.size() - 1, reported.find('\n')) << "one line";
        const auto entry = host::fromLine(reported);
        EXPECT_TRUE(entry && entry->plid == id && entry->srcs.at(0).words[4] == word) << reported;
        const auto json = nlohmann::json::parse(reported, nullptr, false);
        EXPECT_NE(std::string::npos, json.value("store_error", "").find(problem)) << reported;
        EXPECT_EQ("", json.value("spool_error", ""));
        return id;
    }
    [[nodiscard]] std::string spoolText() const { return folder.read("state/errors.spool"); }
    /// The spool outside the state folder.
    [[nodiscard]] std::string otherSpoolText() const
    {
        std::string text;
        std::error_code none;
        for (const auto& file : std::filesystem::directory_iterator(folder.path() / "spool", none)) {
            if (file.path().extension() == ".spool") {
                text += folder.read("spool/" + file.path().filename().string());
            }
        }
        return text;
    }
    /// Damages the database so that it can't even be opened.
    void damage() const
    {
        for (const char* name : {"errors.db-wal", "errors.db-shm", "errors.db"}) {
            std::filesystem::remove(folder.state(name));
        }
        std::filesystem::create_directories(folder.path() / "state");
        folder.write("state/errors.db", std::string(8192, 'x'));
    }

    HostFolder folder;
    bool database = false;
};

TEST_F(Spool, TakesWhatADamagedDatabaseCannotAndGivesItBackLater)
{
    if (!database) {
        GTEST_SKIP() << "built without a database";
    }
    damage();
    commitReported(1, "file is not a database");
    commitReported(2, "file is not a database");
    const host::entryList list = host::listEntries();
    EXPECT_NE(std::string::npos, list.error.find("file is not a database")) << list.error;
    ASSERT_EQ(2U, list.entries.size()) << "what is in the spool is listed";
    EXPECT_EQ(2U, list.entries[0].srcs.at(0).words[4]);
    EXPECT_NE("", host::checkStore());

    std::filesystem::remove(folder.state("errors.db"));
    commitEntry(3);
    EXPECT_EQ((Words{3, 2, 1}), wordsInLog());
    EXPECT_EQ("", spoolText());
    EXPECT_EQ("", host::checkStore());
}

TEST_F(Spool, ADamagedDatabaseIsSetAsideWhenTheLogIsCleared)
{
    if (!database) {
        GTEST_SKIP() << "built without a database";
    }
    damage();
    commitReported(1, "file is not a database");
    EXPECT_EQ("", host::clearEntries());
    EXPECT_EQ(std::string(8192, 'x'), folder.read("state/errors.db.damaged"));
    commitEntry(2);
    EXPECT_EQ((Words{2}), wordsInLog());
}

TEST_F(Spool, TakesWhatADatabaseDamagedSinceCannot)
{
    if (!database) {
        GTEST_SKIP() << "built without a database";
    }
    commitEntry(1, ERRL_SEV_UNRECOVERED, std::string(60000, 'x'));
    for (const char* name : {"errors.db", "errors.db-wal"}) {
        const auto size = std::filesystem::file_size(folder.state(name));
        std::fstream file(folder.state(name), std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(100);
        file << std::string(static_cast<std::size_t>(size) - 100, 'y');
    }
    // as in a new process, which has none of its pages in memory
    folder.configure("");
    commitReported(2, "errors.db");
    commitReported(3, "errors.db");
    std::vector<std::uint32_t> listed;
    for (const host::loggedEntry& entry : host::listEntries().entries) {
        listed.push_back(entry.srcs.at(0).words[4]);
    }
    EXPECT_EQ((Words{3, 2}), listed);
    EXPECT_EQ("", host::clearEntries());
    EXPECT_TRUE(std::filesystem::exists(folder.state("errors.db.damaged")));
    commitEntry(4);
    EXPECT_EQ((Words{4}), wordsInLog());
}

TEST_F(Spool, AFullDiskLosesNothing)
{
    if (!database) {
        GTEST_SKIP() << "built without a database";
    }
    const auto reported = [&] {
        std::array<int, 2> ends{};
        EXPECT_EQ(0, pipe(ends.data()));
        EXPECT_EQ(0, inChild([&] {
                      // No file may grow beyond this: a write fails here as it does on a full disk.
                      const rlimit limit{200 << 10, 200 << 10};
                      signal(SIGXFSZ, SIG_IGN);
                      if (setrlimit(RLIMIT_FSIZE, &limit) != 0 || freopen("/dev/null", "w", stderr) == nullptr) {
                          return 1;
                      }
                      for (std::uint32_t number = 0; number < 60; ++number) {
                          const std::uint32_t id = commitEntry(number, ERRL_SEV_UNRECOVERED, std::string(2000, 'x'));
                          if (write(ends[1], &id, sizeof id) != sizeof id) {
                              return 1;
                          }
                      }
                      return 0;
                  }));
        close(ends[1]);
        std::vector<std::uint32_t> ids(100);
        const auto bytes = read(ends[0], ids.data(), 400);
        ids.resize(static_cast<std::size_t>(bytes) / 4);
        close(ends[0]);
        return ids;
    }();
    ASSERT_EQ(60U, reported.size());
    EXPECT_NE("", spoolText()) << "the limit was met";
    const auto before = idsInLog();
    commitEntry(1000);
    const auto after = idsInLog();
    for (const std::uint32_t id : reported) {
        EXPECT_EQ(1U, before.count(id));
        EXPECT_EQ(1U, after.count(id));
    }
    EXPECT_EQ("", spoolText());
    EXPECT_EQ("", host::checkStore());
}

/// Fills a small file system of its own.
TEST_F(Spool, RoomIsSetAsideForAFullDisk)
{
    const int result = inChild([&] {
        const std::string state = (folder.path() / "state").string();
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", state.c_str(), "tmpfs", 0, "size=3m") != 0 || freopen("/dev/null", "w", stderr) == nullptr) {
            return 2;
        }
        const std::uint32_t first = commitEntry(1);
        std::set<std::uint32_t> ids{first};
        std::ofstream filler(state + "/filler", std::ios::binary);
        while (filler << std::string(4096, 'x') << std::flush) {}
        for (std::uint32_t number = 2; number < 50; ++number) {
            ids.insert(commitEntry(number, ERRL_SEV_UNRECOVERED, std::string(3000, 'x')));
        }
        if (host::listEntries().entries.size() != 49 || std::filesystem::file_size(state + "/errors.spool") == 0 ||
            !otherSpoolText().empty()) {
            return 3;
        }
        filler.close();
        std::filesystem::remove(state + "/filler");
        ids.insert(commitEntry(50));
        const auto found = idsInLog();
        return std::filesystem::file_size(state + "/errors.spool") == 0 && found.size() == 50 &&
                       std::set<std::uint32_t>(found.begin(), found.end()) == ids
                   ? 0
                   : 4;
    });
    if (!database || result == 2) {
        GTEST_SKIP() << "no database, or no permission to mount";
    }
    EXPECT_EQ(0, result);
}

TEST_F(Spool, IsElsewhereWhenTheStateFolderIsNone)
{
    std::filesystem::remove_all(folder.path() / "state");
    folder.write("state", "a file");
    folder.configure("");
    const std::uint32_t id = commitReported(1, "Not a directory");
    EXPECT_EQ(
        id, host::fromLine(otherSpoolText().substr(0, otherSpoolText().find('\n'))).value_or(host::loggedEntry()).plid);
    EXPECT_EQ(1U, host::listEntries().entries.size());

    std::filesystem::remove(folder.path() / "state");
    commitEntry(2);
    EXPECT_EQ((Words{2, 1}), wordsInLog());
    EXPECT_EQ("", otherSpoolText());
}

TEST_F(Spool, IsElsewhereWhenTheStateFolderMayNotBeWritten)
{
    chmod(folder.path().c_str(), 0777);
    chmod((folder.path() / "kest.toml").c_str(), 0644);
    chmod((folder.path() / "state").c_str(), 0555);
    for (const auto& file : std::filesystem::directory_iterator(folder.path() / "state")) {
        chmod(file.path().c_str(), 0444);
    }
    EXPECT_EQ(0, inChild([&] {
                  if (!dropRights()) {
                      return 2;
                  }
                  commitReported(1, "");
                  return otherSpoolText().empty() || wordsInLog() != Words{1} || HasFailure() ? 1 : 0;
              }));

    chmod((folder.path() / "state").c_str(), 0777);
    for (const auto& file : std::filesystem::directory_iterator(folder.path() / "state")) {
        chmod(file.path().c_str(), 0666);
    }
    EXPECT_EQ(0, inChild([&] {
                  if (!dropRights()) {
                      return 2;
                  }
                  commitEntry(2);
                  EXPECT_EQ((Words{2, 1}), wordsInLog());
                  EXPECT_EQ("", otherSpoolText()) << "the entry has moved into the store";
                  EXPECT_EQ("", host::checkStore());
                  return HasFailure() ? 1 : 0;
              }));
}

TEST_F(Spool, IsNotTakenFromAFolderThatOthersMayWrite)
{
    std::filesystem::remove_all(folder.path() / "state");
    folder.write("state", "a file");
    folder.configure("");
    commitReported(1, "Not a directory");
    std::filesystem::remove(folder.path() / "state");
    chmod((folder.path() / "spool").c_str(), 0777);
    commitEntry(2);
    EXPECT_EQ((Words{2}), wordsInLog());
    EXPECT_NE("", otherSpoolText());
}

TEST_F(Spool, IsElsewhereWhenTheStateFolderIsACircleOfLinks)
{
    std::filesystem::remove_all(folder.path() / "state");
    std::filesystem::create_symlink("state", folder.path() / "state");
    folder.configure("");
    commitReported(1, "Too many levels of symbolic links");
    EXPECT_NE("", otherSpoolText());
}

TEST_F(Spool, HasAnotherPlaceWhenAnotherUserTookTheFirst)
{
    std::filesystem::remove_all(folder.path() / "state");
    std::filesystem::create_directory(folder.path() / "spool");
    chmod((folder.path() / "spool").c_str(), 0777);
    folder.write("state", "a file");
    folder.configure("");
    testing::internal::CaptureStderr();
    commitEntry(1);
    const std::string reported = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, reported.find(R"("spool_folder":")" + (folder.path() / "spool.1").string() + "\""))
        << reported;
    EXPECT_EQ((Words{1}), wordsInLog());
    std::filesystem::remove(folder.path() / "state");
    commitEntry(2);
    EXPECT_EQ((Words{2, 1}), wordsInLog());
}

TEST_F(Spool, IsNotClearedInAFolderThatOthersMayWrite)
{
    std::filesystem::remove_all(folder.path() / "state");
    folder.write("state", "a file");
    folder.configure("");
    commitReported(1, "Not a directory");
    chmod((folder.path() / "spool").c_str(), 0777);
    EXPECT_EQ("", host::clearEntries());
    EXPECT_NE("", otherSpoolText());
    chmod((folder.path() / "spool").c_str(), 0700);
    EXPECT_EQ("", host::clearEntries());
    EXPECT_EQ("", otherSpoolText());
}

TEST(SpoolFile, TakenLinesStayTakenWhenTheRestHasToWait)
{
    const HostFolder folder;
    std::string text;
    for (int number = 1; number <= 600; ++number) {
        text += std::to_string(number) + "\n";
    }
    const auto file = folder.write("lines", text);
    host::spool spool(file, folder.path() / "lock");
    std::size_t taken = 0;
    const auto take = [&](std::span<const std::string_view> lines) {
        taken += lines.size();
        return true;
    };
    EXPECT_EQ(0, spool.take(take, host::patience()));
    EXPECT_EQ(256U, taken);
    std::vector<std::string> left;
    EXPECT_EQ(0, spool.read(left));
    ASSERT_EQ(344U, left.size());
    EXPECT_EQ("257", left.front());
    EXPECT_EQ(0, spool.take(take, host::patience(std::chrono::hours(1))));
    EXPECT_EQ(600U, taken);
    EXPECT_EQ("", folder.read("lines"));
}

TEST_F(Spool, StandardErrorTakesWhatNoSpoolCan)
{
    std::filesystem::remove_all(folder.path() / "state");
    folder.write("state", "a file");
    for (const char* place : {"spool", "spool.1", "spool.2", "spool.3", "spool.4", "spool.5", "spool.6", "spool.7"}) {
        folder.write(place, "a file");
    }
    testing::internal::CaptureStderr();
    const std::uint32_t id = commitEntry(1);
    const std::string reported = testing::internal::GetCapturedStderr();
    const auto entry = host::fromLine(reported);
    EXPECT_TRUE(entry && entry->plid == id) << reported;
    EXPECT_NE(std::string::npos, reported.find(R"("spool_error":"Operation not permitted")")) << reported;
}

TEST_F(Spool, AnEntryInStoreAndSpoolIsListedOnce)
{
    if (!database) {
        GTEST_SKIP() << "built without a database";
    }
    commitEntry(1);
    const std::string line = host::toLine(host::listEntries().entries.at(0));
    folder.write("state/errors.spool", line + "\n" + line + "\n");
    EXPECT_EQ((Words{1}), wordsInLog());
    commitEntry(2);
    EXPECT_EQ((Words{2, 1}), wordsInLog());
    EXPECT_EQ("", spoolText());
}

TEST_F(Spool, DamagedLinesAreReported)
{
    commitEntry(1);
    const std::string line = host::toLine(host::listEntries().entries.at(0));
    folder.write("state/errors.spool", "\x1b[2J{\n" + line + "\n");
    const host::entryList list = host::listEntries();
    EXPECT_EQ("the error log's spool: 1 lines are damaged", list.error);
    EXPECT_EQ(1U, list.entries.size());
    if (database) {
        testing::internal::CaptureStderr();
        commitEntry(2);
        EXPECT_EQ("kest: a damaged line of the error log's spool: \"\\\\x1B[2J{\"\n",
                  testing::internal::GetCapturedStderr());
        EXPECT_EQ((Words{2, 1}), wordsInLog());
    }
}

constexpr host::logLimits wide{1000, 1 << 20};

TEST(SpoolFile, DropsWhatAKilledWriterLeftOfALine)
{
    const HostFolder folder;
    const auto file = folder.write("spool", "one\ntwo\nthr");
    host::spool spool(file, folder.path() / "lock");
    std::vector<std::string> lines;
    EXPECT_EQ(0, spool.read(lines));
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), lines);
    EXPECT_EQ(0, spool.append("four", wide));
    EXPECT_EQ("one\ntwo\nfour\n", folder.read("spool"));
    folder.write("spool", std::string(200000, 'x'));
    EXPECT_EQ(0, spool.append("five", wide));
    EXPECT_EQ("five\n", folder.read("spool"));
    folder.write("spool", "one\n" + std::string(200000, 'x'));
    EXPECT_EQ(0, spool.append("six", wide));
    EXPECT_EQ("one\nsix\n", folder.read("spool"));
}

TEST(SpoolFile, KeepsWithinItsLimits)
{
    const HostFolder folder;
    host::spool spool(folder.path() / "lines", folder.path() / "lock");
    host::loggedEntry entry;
    for (std::uint32_t number = 1; number <= 17; ++number) {
        entry.plid = number;
        entry.severity = number % 2 == 0 ? 0x10 : 0x20;
        EXPECT_EQ(0, spool.append(host::toLine(entry), {16, 1 << 20}));
    }
    std::vector<std::string> lines;
    std::vector<std::uint32_t> kept;
    EXPECT_EQ(0, spool.read(lines));
    for (const std::string& line : lines) {
        kept.push_back(host::fromLine(line)->plid);
    }
    EXPECT_EQ((std::vector<std::uint32_t>{1, 3, 5, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}), kept)
        << "an eighth below";
}

TEST(SpoolFile, AFailedLineLeavesTheOthersWhole)
{
    const HostFolder folder;
    EXPECT_EQ(0, inChild([&] {
                  const rlimit limit{20, 20};
                  signal(SIGXFSZ, SIG_IGN);
                  host::spool spool(folder.path() / "lines", folder.path() / "lock");
                  const bool first = spool.append("0123456789", wide) == 0;
                  setrlimit(RLIMIT_FSIZE, &limit);
                  const int second = spool.append("0123456789", wide);
                  return first && second == EFBIG ? 0 : 1;
              }));
    EXPECT_EQ("0123456789\n", folder.read("lines"));
}

TEST_F(Spool, KilledAtAnyMomentItHoldsWhatWasCommitted)
{
    if (!database) {
        GTEST_SKIP() << "built without a database";
    }
    damage();
    std::multiset<std::uint32_t> expected;
    for (std::uint32_t round = 0; round < 15; ++round) {
        testing::internal::CaptureStderr();
        const auto reported = killAfter(1 + round * 5 % 20, [](std::uint32_t number) { return commitEntry(number); });
        testing::internal::GetCapturedStderr();
        expected.insert(reported.begin(), reported.end());
        const auto list = host::listEntries();
        std::multiset<std::uint32_t> found;
        for (const host::loggedEntry& entry : list.entries) {
            found.insert(entry.plid);
        }
        for (const std::uint32_t id : expected) {
            EXPECT_EQ(1U, found.count(id));
        }
    }
    std::filesystem::remove(folder.state("errors.db"));
    // Killed while the spooled entries are taken in.
    for (std::uint32_t round = 0; round < 5; ++round) {
        const std::string before = spoolText();
        const auto reported = killAfter(1, [&](std::uint32_t number) { return commitEntry(number); });
        expected.insert(reported.begin(), reported.end());
        // as if killed just before the removal
        folder.write("state/errors.spool", before);
    }
    commitEntry(0);
    const auto found = idsInLog();
    for (const std::uint32_t id : expected) {
        EXPECT_EQ(1U, found.count(id));
    }
    EXPECT_EQ("", spoolText());
    EXPECT_EQ("", host::checkStore());
}

} // namespace

} // namespace kest::test
