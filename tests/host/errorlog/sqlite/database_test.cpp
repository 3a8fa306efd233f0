/// The error log's database in trouble: held, without locks, half made, or with a layout that is not the log's own.
#ifdef KEST_HAVE_SQLITE

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <thread>

#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/places.h"
#include "platform/host/errorlog/sqlite/database.h"
#include "platform/host/errorlog/sqlite/reader.h"
#include "platform/host/errorlog/waiting.h"
#include "tests/forks.h"
#include "tests/host/host_support.h"

namespace kest::test
{

namespace
{

using Words = std::vector<std::uint32_t>;
using std::chrono::milliseconds;

/// The error log's clock while it lives: only pauses move it.
class DrivenClock
{
public:
    DrivenClock()
    {
        passedUs = 0;
        host::useWaitingClock(&clock);
    }
    DrivenClock(const DrivenClock&) = delete;
    DrivenClock& operator=(const DrivenClock&) = delete;
    ~DrivenClock() { host::useWaitingClock(nullptr); }

    static milliseconds passed()
    {
        return std::chrono::duration_cast<milliseconds>(std::chrono::microseconds(passedUs));
    }
    static void pass(milliseconds length) { passedUs += length.count() * 1000; }

private:
    static inline std::atomic<std::int64_t> passedUs{0};
    static constexpr host::waitingClock clock{[] {
                                                  return std::chrono::steady_clock::time_point(
                                                      std::chrono::hours(1) + std::chrono::microseconds(passedUs));
                                              },
                                              [](std::chrono::microseconds length) { passedUs += length.count(); }};
};

/// A further connection to the log's database.
class OtherConnection
{
public:
    explicit OtherConnection(const std::filesystem::path& file)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &m_connection));
    }
    OtherConnection(const OtherConnection&) = delete;
    OtherConnection& operator=(const OtherConnection&) = delete;
    ~OtherConnection() { sqlite3_close(m_connection); }

    /// Takes the database's write lock until a rollback.
    void holdWrites() { run("BEGIN IMMEDIATE"); }
    void run(const std::string& text)
    {
        char* message = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(m_connection, text.c_str(), nullptr, nullptr, &message)) << text << message;
        sqlite3_free(message);
    }
    int number(const std::string& query)
    {
        sqlite3_stmt* statement = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(m_connection, query.c_str(), -1, &statement, nullptr)) << query;
        EXPECT_EQ(SQLITE_ROW, sqlite3_step(statement)) << query;
        const int value = sqlite3_column_int(statement, 0);
        sqlite3_finalize(statement);
        return value;
    }

private:
    sqlite3* m_connection = nullptr;
};

class ErrorLogTrouble : public testing::Test
{
protected:
    [[nodiscard]] std::filesystem::path database() const { return folder.state("errors.db"); }

    /// Leaves an entry in the spool that was committed a minute before the latest one. @param word  its first user data
    void spoolOlderEntry(std::uint32_t word) const
    {
        host::loggedEntry older = host::listEntries().entries.at(0);
        older.plid += 1000;
        older.committedMs -= 60000;
        older.srcs.at(0).words[4] = word;
        folder.write("state/errors.spool", host::toLine(older) + "\n");
    }
    /// Commits while the database can't take the entry. @return what was written to standard error
    static std::string commitReporting(std::uint32_t word)
    {
        testing::internal::CaptureStderr();
        commitEntry(word);
        return testing::internal::GetCapturedStderr();
    }
    /// Whether `work` returns true in a child of its own, which an alarm ends if it hangs.
    static bool comesBack(const std::function<bool()>& work)
    {
        return inChild([&] {
                   alarm(hangSeconds);
                   return work() && !testing::Test::HasFailure() ? 0 : 1;
               }) == 0;
    }

    HostFolder folder;
};

TEST_F(ErrorLogTrouble, AHeldDatabaseCostsOneCommitFiveSecondsAndTheNextOnesNothing)
{
    commitEntry(0);
    spoolOlderEntry(9);
    const DrivenClock clock;
    OtherConnection other(database());
    other.holdWrites();
    EXPECT_NE(std::string::npos, commitReporting(1).find("database is locked"));
    EXPECT_LT(milliseconds(0), DrivenClock::passed()) << "it waited";
    EXPECT_GE(milliseconds(5000), DrivenClock::passed());
    const auto after = DrivenClock::passed();
    commitReporting(2);
    commitReporting(3);
    EXPECT_EQ(after, DrivenClock::passed()) << "the database is known to be busy";
    other.run("ROLLBACK");
    commitEntry(4);
    EXPECT_EQ(after, DrivenClock::passed());
    EXPECT_EQ((Words{4, 3, 2, 1, 0, 9}), wordsInLog());
    EXPECT_EQ("", folder.read("state/errors.spool"));
}

TEST_F(ErrorLogTrouble, AfterAWhileACommitWaitsForABusyDatabaseAgain)
{
    commitEntry(0);
    const DrivenClock clock;
    OtherConnection other(database());
    other.holdWrites();
    commitReporting(1);
    DrivenClock::pass(milliseconds(5000));
    const auto before = DrivenClock::passed();
    commitReporting(2);
    EXPECT_LT(before, DrivenClock::passed());
    EXPECT_GE(before + milliseconds(5000), DrivenClock::passed());
}

TEST_F(ErrorLogTrouble, ThreadsDoNotWaitForAHeldDatabaseOneAfterTheOther)
{
    commitEntry(0);
    const DrivenClock clock;
    OtherConnection other(database());
    other.holdWrites();
    testing::internal::CaptureStderr();
    std::vector<std::thread> threads;
    for (std::uint32_t number = 1; number <= 6; ++number) {
        threads.emplace_back([number] { commitEntry(number); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    testing::internal::GetCapturedStderr();
    EXPECT_GE(milliseconds(5000), DrivenClock::passed());
    EXPECT_EQ(7U, wordsInLog().size());
}

/// The system's fcntl() when no locks are left.
int fcntlWithoutLocks(int descriptor, int command, ...) // NOLINT(cert-dcl50-cpp): as SQLite calls it
{
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (command == F_SETLK || command == F_SETLKW || command == F_GETLK) {
        errno = ENOLCK;
        return -1;
    }
    return fcntl(descriptor, command, argument);
}

template <typename Call>
void replaceSystemCall(const char* name, Call call)
{
    sqlite3_vfs* const files = sqlite3_vfs_find("unix");
    EXPECT_EQ(SQLITE_OK, files->xSetSystemCall(files, name, reinterpret_cast<sqlite3_syscall_ptr>(call)));
}

TEST_F(ErrorLogTrouble, WithoutLocksACommitTakesFiveSecondsAtMost)
{
    commitEntry(0);
    // as in a new process
    folder.configure("");
    const DrivenClock clock;
    replaceSystemCall("fcntl", fcntlWithoutLocks);
    commitReporting(1);
    replaceSystemCall<int (*)()>("fcntl", nullptr);
    EXPECT_GE(milliseconds(5000), DrivenClock::passed());
    EXPECT_NE("", folder.read("state/errors.spool"));
    commitEntry(2);
    EXPECT_EQ((Words{2, 1, 0}), wordsInLog());
}

/// Ends the process at its n-th write to a file.
int changesBeforeTheEnd = -1;
ssize_t pwriteToTheEnd(int descriptor, const void* bytes, size_t count, off_t offset)
{
    if (changesBeforeTheEnd-- == 0) {
        _exit(9);
    }
    return pwrite(descriptor, bytes, count, offset);
}

TEST_F(ErrorLogTrouble, AProcessThatDiesInItsFirstCommitLeavesALogThatCanBeRead)
{
    int ended = 9;
    int ends = 0;
    for (int number = 0; ended == 9; ++number) {
        std::filesystem::remove_all(folder.path() / "state");
        ended = inChild([number] {
            replaceSystemCall("pwrite64", pwriteToTheEnd);
            replaceSystemCall("pwrite", pwriteToTheEnd);
            changesBeforeTheEnd = number;
            commitEntry(1);
            return 0;
        });
        ends += ended == 9 ? 1 : 0;
        EXPECT_EQ("", host::listEntries().error) << number;
        commitEntry(2);
        EXPECT_EQ(2U, wordsInLog().at(0)) << number;
        EXPECT_EQ("", host::checkStore()) << number;
    }
    EXPECT_EQ(0, ended);
    EXPECT_LT(3, ends) << "it was ended at several places";
}

constexpr const char* endlessTrigger =
    "CREATE TABLE evil(n); CREATE TRIGGER endless AFTER INSERT ON entries BEGIN INSERT INTO evil"
    " WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c) SELECT n FROM c; END;"
    "CREATE TRIGGER endless2 BEFORE DELETE ON entries BEGIN INSERT INTO evil"
    " WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c) SELECT n FROM c; END";

TEST_F(ErrorLogTrouble, AChangedLayoutIsMendedAndNeverRun)
{
    for (const bool isOpen : {false, true}) {
        for (const char* change : {"DROP TABLE totals", "DELETE FROM totals", "UPDATE totals SET entries = 1000000",
                                   "DROP TRIGGER entries_added", "DROP INDEX entries_plid", endlessTrigger}) {
            EXPECT_EQ("", host::clearEntries());
            commitEntry(1);
            OtherConnection(database()).run(change);
            const bool seen = !isOpen || std::string_view(change).find("totals SET") == std::string_view::npos;
            if (!isOpen) {
                folder.configure("");
            }
            EXPECT_TRUE(!seen || comesBack([] {
                commitEntry(2);
                return wordsInLog() == Words{2, 1} && host::checkStore().empty();
            })) << change
                << isOpen;
            EXPECT_TRUE(comesBack([] { return host::clearEntries().empty() && wordsInLog().empty(); })) << change;
        }
    }
}

TEST_F(ErrorLogTrouble, ALayoutChangedUnderAnOpenLogIsNotRun)
{
    commitEntry(1);
    const int result = inChild([&] {
        alarm(hangSeconds);
        // the log is open
        commitEntry(2);
        OtherConnection(database()).run(endlessTrigger);
        commitEntry(3);
        return wordsInLog() == Words{3, 2, 1} ? 0 : 1;
    });
    EXPECT_EQ(0, result);
}

TEST_F(ErrorLogTrouble, ALayoutChangedUnderAnOpenLogIsCleared)
{
    EXPECT_TRUE(comesBack([this] {
        // the log is open
        commitEntry(1);
        OtherConnection(database()).run(endlessTrigger);
        return host::clearEntries().empty() && wordsInLog().empty();
    }));
}

TEST_F(ErrorLogTrouble, AFileThatIsNoErrorLogIsSetAside)
{
    commitEntry(1);
    OtherConnection(database())
        .run("ALTER TABLE entries RENAME TO others; CREATE VIEW entries AS WITH RECURSIVE c(n) AS"
             " (SELECT 1 UNION ALL SELECT n + 1 FROM c) SELECT n AS id, n AS plid, n AS committed_ms, n AS severity,"
             " n AS component, 'x' AS body FROM c");
    folder.configure("");
    EXPECT_TRUE(comesBack([&] {
        return host::listEntries().error == database().string() + ": not an error log" && !host::checkStore().empty();
    }));
    EXPECT_TRUE(comesBack([&] {
        const std::string reported = commitReporting(2);
        return reported ==
                   "kest: " + database().string() + " is not an error log; it was set aside as errors.db.damaged\n" &&
               wordsInLog() == Words{2};
    }));
    EXPECT_TRUE(std::filesystem::exists(folder.state("errors.db.damaged")));
}

TEST_F(ErrorLogTrouble, AnotherUsersFileIsSetAside)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    commitEntry(1);
    ASSERT_EQ(0, chown(database().c_str(), 12345, 12345));
    folder.configure("");
    EXPECT_NE(std::string::npos, commitReporting(2).find("belongs to another user"));
    EXPECT_EQ((Words{2}), wordsInLog());
}

TEST_F(ErrorLogTrouble, ANewerLayoutIsLeftAloneUntilTheLogIsCleared)
{
    commitEntry(1);
    OtherConnection(database()).run("PRAGMA user_version = 99");
    folder.configure("");
    EXPECT_NE(std::string::npos, commitReporting(2).find("made by a newer version"));
    EXPECT_EQ("", host::clearEntries());
    commitEntry(3);
    EXPECT_EQ((Words{3}), wordsInLog());
}

TEST_F(ErrorLogTrouble, EntriesOfTheFormerFormAreKeptAndRead)
{
    constexpr const char* former =
        R"({"callouts":[],"commitAction":8192,"commitComponent":15,"committedMs":12,"createdMs":11,"creator":4864,)"
        R"("eventType":0,"fruCallouts":[],"incomplete":false,"plid":7,"process":"p","processId":14,"returnCode":5,)"
        R"("severity":32,"softwareErrors":[{"component":1,"reserved":2,"returnCode":3,"word1":4,"word2":5}],)"
        R"("srcs":[{"creator":1,"flags":2,"terminatingState":3,"words":[1,2,3,4,77,6,7,8]}],"traces":[],)"
        R"("userDetails":[{"component":1,"data":"00ff","subsection":2,"version":3}]})";
    commitEntry(1);
    OtherConnection(database())
        .run("PRAGMA user_version = 2; INSERT INTO entries(plid, committed_ms, severity, component, body)"
             " VALUES(7, 12, 32, 4864, '" +
             std::string(former) + "')");
    folder.configure("");
    EXPECT_EQ((Words{1, 77}), wordsInLog());
    commitEntry(2);
    EXPECT_EQ((Words{2, 1, 77}), wordsInLog());
    const auto entries = host::listEntries({.plid = 7}).entries;
    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ(4, entries[0].softwareErrors.at(0).word1);
    EXPECT_EQ((std::vector<std::uint8_t>{0, 0xFF}), entries[0].userDetails.at(0).bytes);
    EXPECT_EQ(14, entries[0].processId);
    // so that an older version no longer writes to it
    EXPECT_EQ(4, OtherConnection(database()).number("PRAGMA user_version"));
}

TEST_F(ErrorLogTrouble, WhatAnotherProcessSpooledElsewhereIsTakenInOnceASecond)
{
    const DrivenClock clock;
    commitEntry(1);
    host::loggedEntry other = host::listEntries().entries.at(0);
    other.plid += 1000;
    other.srcs.at(0).words[4] = 2;
    // the first is the state folder's
    auto elsewhere = host::spoolPlaces(host::currentConfiguration()).at(1);
    ASSERT_EQ(0, host::preparePlace(elsewhere));
    ASSERT_EQ(0, elsewhere.lines.append(host::toLine(other), {100, 1 << 20}, host::patience()));
    DrivenClock::pass(milliseconds(999));
    commitEntry(3);
    EXPECT_TRUE(elsewhere.lines.pending());
    DrivenClock::pass(milliseconds(1));
    commitEntry(4);
    EXPECT_FALSE(elsewhere.lines.pending());
    EXPECT_EQ(4, OtherConnection(database()).number("SELECT count(*) FROM entries"));
}

TEST_F(ErrorLogTrouble, TheTotalsCountBytes)
{
    commitEntry(1);
    OtherConnection other(database());
    const int before = other.number("SELECT bytes FROM totals");
    other.run("INSERT INTO entries(plid, committed_ms, severity, component, body) VALUES(7, 8, 32, 1, '\xC3\xA9')");
    EXPECT_EQ(before + 2, other.number("SELECT bytes FROM totals"));
    other.run("DELETE FROM entries WHERE plid = 7");
    EXPECT_EQ(before, other.number("SELECT bytes FROM totals"));
}

TEST_F(ErrorLogTrouble, LoweredLimitsDropSomeEntriesAtATime)
{
    for (std::uint32_t number = 0; number < 200; ++number) {
        commitEntry(number);
    }
    folder.configure("errorlog.max_entries = 10");
    commitEntry(200);
    EXPECT_EQ(137U, wordsInLog().size());
    commitEntry(201);
    EXPECT_EQ(74U, wordsInLog().size());
    commitEntry(202);
    commitEntry(203);
    EXPECT_EQ((Words{203, 202, 201, 200, 199, 198, 197, 196, 195, 194}), wordsInLog());
}

TEST_F(ErrorLogTrouble, AnIdleReaderDoesNotLetTheWorkingFilesGrowWithoutLimit)
{
    commitEntry(0);
    OtherConnection reader(database());
    reader.run("BEGIN; SELECT count(*) FROM entries");
    testing::internal::CaptureStderr();
    // each takes a little more than 120,000 bytes of JSON
    for (std::uint32_t number = 1; number <= 90; ++number) {
        commitEntry(number, ERRL_SEV_UNRECOVERED, std::string(60000, 'x'));
    }
    const std::string reported = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, reported.find("a reader holds up the write-ahead log"));
    EXPECT_GE((9U << 20), std::filesystem::file_size(folder.state("errors.db-wal")));
    reader.run("COMMIT");
    commitEntry(91);
    EXPECT_GE((5U << 20), std::filesystem::file_size(folder.state("errors.db-wal")));
    EXPECT_EQ(92U, wordsInLog().size());
}

TEST_F(ErrorLogTrouble, ALimitShowsTheLatestEntriesAlsoAfterASpoolWasTakenIn)
{
    commitEntry(1);
    spoolOlderEntry(9);
    commitEntry(2);
    EXPECT_EQ((Words{2, 1}), wordsInLog({.limit = 2}));
    EXPECT_EQ((Words{2, 1, 9}), wordsInLog());
}

TEST_F(ErrorLogTrouble, ARolledBackTransactionLeavesRoomForTheNextOne)
{
    std::filesystem::create_directories(folder.path() / "state");
    const auto opened = host::database::open(database(), host::patience());
    ASSERT_NE(nullptr, opened.value) << opened.problem;
    ErrlEntry entry(0x1300, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0, 13,
                    SERVICE_CODE_KEST, 0x1312, 5, 0, 0, 0, EPUB_SUBSYSTEM_IIC_DEVICE, SRCI_TERM_NONE);
    const std::string line = host::toLine(host::describeEntry(entry));
    const host::entryRow row{{entry.plid(), 1, 0x20, 0x1300}, line};
    constexpr host::logLimits wide{1000, 1 << 20};
    OtherConnection other(database());
    other.run("PRAGMA schema_version = 1000");
    EXPECT_FALSE(opened.value->add({&row, 1}, false, wide, host::patience())) << "the layout has been changed";
    // the write lock was given back
    other.run("PRAGMA schema_version = 7");
    EXPECT_TRUE(opened.value->add({&row, 1}, false, wide, host::patience())) << opened.value->problem();
    std::vector<host::loggedEntry> entries;
    std::string problem;
    host::readDatabase(database(), {}, entries, problem);
    EXPECT_EQ("", problem);
    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ(5U, entries[0].srcs.at(0).words[4]);
}

} // namespace

} // namespace kest::test

#endif
