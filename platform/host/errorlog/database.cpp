#include "platform/host/errorlog/database.h"

#ifdef KEST_HAVE_SQLITE

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <functional>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/host/errorlog/json.h"
#include "platform/host/files/files.h"

namespace kest::host
{

namespace
{

constexpr int          layoutVersion = 1;
constexpr int          busyPauseUs   = 500;
constexpr int          busyPauses    = 10000; // 5 s in all
constexpr std::int64_t anyLimit      = -1;

// The totals are kept by the database itself, so that they stay true whoever deletes entries. Only informational entries cost an index:
// the others go in the order of their ids.
constexpr const char* layout = R"(
    CREATE TABLE IF NOT EXISTS entries(id INTEGER PRIMARY KEY, plid INTEGER NOT NULL, committed_ms INTEGER NOT NULL,
        severity INTEGER NOT NULL, component INTEGER NOT NULL, body TEXT NOT NULL) STRICT;
    CREATE INDEX IF NOT EXISTS entries_plid ON entries(plid);
    CREATE INDEX IF NOT EXISTS entries_informational ON entries(id) WHERE severity = 16;
    CREATE TABLE IF NOT EXISTS totals(entries INTEGER NOT NULL, bytes INTEGER NOT NULL) STRICT;
    INSERT INTO totals SELECT 0, 0 WHERE NOT EXISTS(SELECT 1 FROM totals);
    CREATE TRIGGER IF NOT EXISTS entries_added AFTER INSERT ON entries BEGIN
        UPDATE totals SET entries = entries + 1, bytes = bytes + length(new.body); END;
    CREATE TRIGGER IF NOT EXISTS entries_deleted AFTER DELETE ON entries BEGIN
        UPDATE totals SET entries = entries - 1, bytes = bytes - length(old.body); END;
)";

struct closeConnection {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
};
struct finalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using connectionOwner = std::unique_ptr<sqlite3, closeConnection>;
using statementOwner  = std::unique_ptr<sqlite3_stmt, finalizeStatement>;

int waitForOthers(void*, int times)
{
    usleep(busyPauseUs);
    return times < busyPauses ? 1 : 0;
}

connectionOwner connect(const std::filesystem::path& file, int flags, std::string& problem)
{
    sqlite3*        connection = nullptr;
    const int       result     = sqlite3_open_v2(file.c_str(), &connection, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    connectionOwner owner(connection);
    if (result != SQLITE_OK) {
        problem = fmt::format("{}: {}", file.string(), sqlite3_errstr(result));
        owner.reset();
    } else {
        sqlite3_extended_result_codes(connection, 1);
        sqlite3_busy_handler(connection, waitForOthers, nullptr);
    }
    return owner;
}

statementOwner prepare(sqlite3* connection, const char* text)
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v3(connection, text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    return statementOwner(statement);
}

void bindText(sqlite3_stmt* statement, int index, const std::string& text)
{
    sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

std::string columnText(sqlite3_stmt* statement, int index)
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, index));
    return text != nullptr ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, index)))
                           : std::string();
}

/// @return the version of the file's layout, 0 when it has none yet, -1 when it can't be read
int layoutOf(sqlite3* connection)
{
    const statementOwner statement = prepare(connection, "PRAGMA user_version");
    return statement != nullptr && sqlite3_step(statement.get()) == SQLITE_ROW ? sqlite3_column_int(statement.get(), 0)
                                                                               : -1;
}

class sqliteDatabase : public database
{
public:
    explicit sqliteDatabase(std::filesystem::path file) : m_file(std::move(file)) {}

    bool begin();

    bool               add(std::span<const storedEntry> entries, bool skipKnown, const logLimits& limits) override;
    bool               clear() override;
    [[nodiscard]] bool replaced() const override;
    [[nodiscard]] const std::string& problem() const override { return m_problem; }

private:
    bool failed();
    bool run(const char* text);
    bool step(const statementOwner& statement, bool& row);
    bool step(const statementOwner& statement);
    bool makeLayout();
    bool prepareAll();
    bool insert(const storedEntry& stored, bool skipKnown);
    bool trim(const logLimits& limits);
    bool transaction(const std::function<bool()>& body);

    std::filesystem::path m_file;
    std::string           m_problem;
    struct stat           m_opened {
    };
    connectionOwner m_connection; // ahead of its statements
    statementOwner  m_begin, m_commit, m_rollback, m_insert, m_known, m_totals, m_trim;
};

/// Keeps SQLite's own words of what failed. @return false
bool sqliteDatabase::failed()
{
    m_problem = fmt::format("{}: {}", m_file.string(), sqlite3_errmsg(m_connection.get()));
    return false;
}

bool sqliteDatabase::run(const char* text)
{
    return sqlite3_exec(m_connection.get(), text, nullptr, nullptr, nullptr) == SQLITE_OK || failed();
}

/// Runs a statement to its end or to its first row, and makes it ready for the next time. @param[out] row  whether there was one
bool sqliteDatabase::step(const statementOwner& statement, bool& row)
{
    const int result = sqlite3_step(statement.get());
    row              = result == SQLITE_ROW;
    return row || result == SQLITE_DONE || failed();
}

bool sqliteDatabase::step(const statementOwner& statement)
{
    bool       row  = false;
    const bool done = step(statement, row);
    sqlite3_reset(statement.get());
    return done;
}

bool sqliteDatabase::makeLayout()
{
    const int found = layoutOf(m_connection.get());
    bool      done  = found == layoutVersion;
    if (found < 0) {
        failed();
    } else if (found > layoutVersion) {
        m_problem = fmt::format("{}: made by a newer version", m_file.string());
    } else if (found < layoutVersion) {
        done = run("BEGIN IMMEDIATE") && run(layout) &&
               run(fmt::format("PRAGMA user_version = {}", layoutVersion).c_str()) && run("COMMIT");
    }
    return done;
}

bool sqliteDatabase::prepareAll()
{
    struct row {
        statementOwner& statement;
        const char*     text;
    };
    const std::array rows{
        row{m_begin, "BEGIN IMMEDIATE"},
        row{m_commit, "COMMIT"},
        row{m_rollback, "ROLLBACK"},
        row{m_insert, "INSERT INTO entries(plid, committed_ms, severity, component, body) VALUES(?, ?, ?, ?, ?)"},
        row{m_known, "SELECT 1 FROM entries WHERE plid = ? AND body = ?"},
        row{m_totals, "SELECT entries, bytes FROM totals"},
        row{m_trim,
            "DELETE FROM entries WHERE id = ifnull((SELECT min(id) FROM entries WHERE severity = 16 AND id <> ?1),"
            " (SELECT min(id) FROM entries WHERE id <> ?1))"},
    };
    bool done = true;
    for (const row& each : rows) {
        each.statement = prepare(m_connection.get(), each.text);
        done           = done && (each.statement != nullptr || failed());
    }
    return done;
}

/// Opens the file. WAL: one sync a commit, and readers don't hold writers up. FULL: a commit is on the disk when it returns. The WAL
/// files stay after the last connection has closed, because readers who may not write could not make them.
bool sqliteDatabase::begin()
{
    bool done = true;
    if (access(m_file.c_str(), F_OK) != 0) { // never opened beside SQLite: closing it would drop SQLite's locks
        const fileDescriptor made = openFile(m_file, O_RDWR | O_CREAT);
        if (!made.valid()) {
            m_problem = fmt::format("{}: {}", m_file.string(), std::strerror(errno));
            done      = false;
        }
    }
    if (done && stat(m_file.c_str(), &m_opened) != 0) {
        m_problem = fmt::format("{}: {}", m_file.string(), std::strerror(errno));
        done      = false;
    }
    if (done) {
        m_connection = connect(m_file, SQLITE_OPEN_READWRITE, m_problem);
        done         = m_connection != nullptr;
    }
    if (done) {
        int keep = 1;
        sqlite3_file_control(m_connection.get(), "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
        sqlite3_db_config(m_connection.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
        done = run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL") && makeLayout() && prepareAll();
    }
    return done;
}

bool sqliteDatabase::replaced() const
{
    struct stat now {
    };
    return stat(m_file.c_str(), &now) != 0 || now.st_dev != m_opened.st_dev || now.st_ino != m_opened.st_ino;
}

bool sqliteDatabase::transaction(const std::function<bool()>& body)
{
    const bool done = step(m_begin) && body() && step(m_commit);
    if (!done && sqlite3_get_autocommit(m_connection.get()) == 0) {
        const std::string cause = m_problem;
        step(m_rollback);
        m_problem = cause;
    }
    return done;
}

bool sqliteDatabase::insert(const storedEntry& stored, bool skipKnown)
{
    bool known = false;
    bool done  = true;
    if (skipKnown) {
        sqlite3_bind_int64(m_known.get(), 1, stored.entry.plid);
        bindText(m_known.get(), 2, stored.line);
        done = step(m_known, known);
        sqlite3_reset(m_known.get());
    }
    if (done && !known) {
        sqlite3_bind_int64(m_insert.get(), 1, stored.entry.plid);
        sqlite3_bind_int64(m_insert.get(), 2, stored.entry.committedMs);
        sqlite3_bind_int64(m_insert.get(), 3, stored.entry.severity);
        sqlite3_bind_int64(m_insert.get(), 4, stored.entry.creator);
        bindText(m_insert.get(), 5, stored.line);
        done = step(m_insert);
    }
    return done;
}

bool sqliteDatabase::trim(const logLimits& limits)
{
    const std::int64_t latest = sqlite3_last_insert_rowid(m_connection.get());
    bool               done   = true;
    bool               over   = true;
    while (done && over) {
        bool row = false;
        done     = step(m_totals, row);
        over     = done && row && sqlite3_column_int64(m_totals.get(), 0) > 1 &&
               (static_cast<std::uint64_t>(sqlite3_column_int64(m_totals.get(), 0)) > limits.entries ||
                static_cast<std::uint64_t>(sqlite3_column_int64(m_totals.get(), 1)) > limits.bytes);
        sqlite3_reset(m_totals.get());
        if (over) {
            sqlite3_bind_int64(m_trim.get(), 1, latest);
            done = step(m_trim);
            over = sqlite3_changes(m_connection.get()) > 0;
        }
    }
    return done;
}

bool sqliteDatabase::add(std::span<const storedEntry> entries, bool skipKnown, const logLimits& limits)
{
    return transaction([&] {
        bool done = true;
        for (const storedEntry& stored : entries)
            done = done && insert(stored, skipKnown);
        return done && trim(limits);
    });
}

bool sqliteDatabase::clear()
{
    const bool done = run("DELETE FROM entries");
    if (done)
        run("VACUUM; PRAGMA wal_checkpoint(TRUNCATE)"); // fails while others read; the room is then used again instead
    return done;
}

/// Binds null for what is not asked for.
void bindOptional(sqlite3_stmt* statement, int index, const std::optional<std::int64_t>& value)
{
    if (value)
        sqlite3_bind_int64(statement, index, *value);
}

} // namespace

std::unique_ptr<database> database::open(const std::filesystem::path& file, std::string& problem)
{
    auto opened = std::make_unique<sqliteDatabase>(file);
    if (!opened->begin()) {
        problem = opened->problem();
        opened.reset();
    }
    return opened;
}

void readDatabase(const std::filesystem::path& file, const entryFilter& filter, std::vector<loggedEntry>& entries,
                  std::string& problem)
{
    constexpr const char* query =
        "SELECT body FROM entries WHERE (?1 IS NULL OR plid = ?1) AND (?2 IS NULL OR committed_ms >= ?2)"
        " AND (?3 IS NULL OR severity = ?3) AND (?4 IS NULL OR component = ?4) ORDER BY id DESC LIMIT ?5";
    const bool      there      = access(file.c_str(), F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR);
    connectionOwner connection = there ? connect(file, SQLITE_OPEN_READONLY, problem) : nullptr;
    // A file without a layout is one that another process is just making.
    const bool     made       = connection != nullptr && layoutOf(connection.get()) != 0;
    statementOwner statement  = made ? prepare(connection.get(), query) : nullptr;
    int            result     = made ? sqlite3_errcode(connection.get()) : SQLITE_DONE;
    std::uint64_t  unreadable = 0;
    if (statement != nullptr) {
        bindOptional(statement.get(), 1, filter.plid);
        bindOptional(statement.get(), 2, filter.sinceMs);
        bindOptional(statement.get(), 3, filter.severity);
        bindOptional(statement.get(), 4, filter.component);
        sqlite3_bind_int64(statement.get(), 5, filter.limit > 0 ? static_cast<std::int64_t>(filter.limit) : anyLimit);
        for (result = sqlite3_step(statement.get()); result == SQLITE_ROW; result = sqlite3_step(statement.get())) {
            if (auto entry = fromLine(columnText(statement.get(), 0)))
                entries.push_back(std::move(*entry));
            else
                ++unreadable;
        }
    }
    if (result != SQLITE_DONE)
        problem = fmt::format("{}: {}", file.string(), sqlite3_errmsg(connection.get()));
    else if (unreadable > 0)
        problem = fmt::format("{}: {} entries are damaged", file.string(), unreadable);
}

bool highestStoredId(const std::filesystem::path& file, std::uint32_t limit, std::uint32_t& highest)
{
    bool done = access(file.c_str(), F_OK) != 0 && errno == ENOENT;
    highest   = 0;
    if (!done) {
        std::string           ignored;
        const connectionOwner connection = connect(file, SQLITE_OPEN_READONLY, ignored);
        const bool            made       = connection != nullptr && layoutOf(connection.get()) != 0;
        const statementOwner  statement =
            made ? prepare(connection.get(), "SELECT ifnull(max(plid), 0) FROM entries WHERE plid <= ?") : nullptr;
        done = connection != nullptr && !made;
        if (statement != nullptr) {
            sqlite3_bind_int64(statement.get(), 1, limit);
            done    = sqlite3_step(statement.get()) == SQLITE_ROW;
            highest = done ? static_cast<std::uint32_t>(sqlite3_column_int64(statement.get(), 0)) : 0;
        }
    }
    return done;
}

std::string checkDatabase(const std::filesystem::path& file, bool& damaged)
{
    std::string problem;
    damaged = false;
    if (access(file.c_str(), F_OK) == 0) {
        const connectionOwner connection = connect(file, SQLITE_OPEN_READONLY, problem);
        const statementOwner  statement =
            connection != nullptr ? prepare(connection.get(), "PRAGMA integrity_check(1)") : nullptr;
        if (statement != nullptr && sqlite3_step(statement.get()) == SQLITE_ROW) {
            problem = columnText(statement.get(), 0);
            damaged = problem != "ok";
        } else if (connection != nullptr) {
            problem = sqlite3_errmsg(connection.get());
            damaged = (sqlite3_errcode(connection.get()) & 0xFF) == SQLITE_CORRUPT ||
                      (sqlite3_errcode(connection.get()) & 0xFF) == SQLITE_NOTADB;
        }
        problem = problem == "ok" ? "" : fmt::format("{}: {}", file.string(), problem);
    }
    return problem;
}

} // namespace kest::host

#else

namespace kest::host
{

std::unique_ptr<database> database::open(const std::filesystem::path&, std::string&) { return nullptr; }

void readDatabase(const std::filesystem::path&, const entryFilter&, std::vector<loggedEntry>&, std::string&) {}

bool highestStoredId(const std::filesystem::path&, std::uint32_t, std::uint32_t& highest)
{
    highest = 0;
    return true;
}

std::string checkDatabase(const std::filesystem::path&, bool& damaged)
{
    damaged = false;
    return {};
}

} // namespace kest::host

#endif
