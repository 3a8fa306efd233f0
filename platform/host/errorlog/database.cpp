#include "platform/host/errorlog/database.h"

#ifdef KEST_HAVE_SQLITE

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "base/files.h"
#include "base/folders.h"
#include "platform/host/errorlog/json.h"

namespace kest::host
{

namespace
{

constexpr int layoutVersion = 2;
constexpr std::chrono::microseconds busyPause = std::chrono::microseconds(500);
constexpr std::chrono::milliseconds readersPatience = std::chrono::milliseconds(5000);
constexpr std::int64_t anyLimit = -1;
constexpr int dropsAtOnce = 64; ///< entries that one transaction deletes at most
constexpr std::int64_t keptWalBytes = 4 << 20; ///< of the write-ahead log, once all of it is in the database
constexpr std::int64_t largestWalBytes = 8 << 20; ///< with a reader that holds it up: nothing is added then

/// One object of the layout, word for word as SQLite keeps it.
struct layoutObject {
    const char* type;
    const char* name;
    const char* text;
};

// The totals are kept by the database itself, so that they stay true whoever deletes entries. Only informational
// entries cost an index: the others go in the order of their ids.
constexpr std::array layout{
    layoutObject{"table", "entries",
                 "CREATE TABLE entries(id INTEGER PRIMARY KEY, plid INTEGER NOT NULL, committed_ms INTEGER NOT NULL,\n"
                 "        severity INTEGER NOT NULL, component INTEGER NOT NULL, body TEXT NOT NULL) STRICT"},
    layoutObject{"index", "entries_plid", "CREATE INDEX entries_plid ON entries(plid)"},
    layoutObject{"index", "entries_committed", "CREATE INDEX entries_committed ON entries(committed_ms)"},
    layoutObject{"index", "entries_informational",
                 "CREATE INDEX entries_informational ON entries(id) WHERE severity = 16"},
    layoutObject{"table", "totals", "CREATE TABLE totals(entries INTEGER NOT NULL, bytes INTEGER NOT NULL) STRICT"},
    layoutObject{"trigger", "entries_added",
                 "CREATE TRIGGER entries_added AFTER INSERT ON entries BEGIN"
                 " UPDATE totals SET entries = entries + 1, bytes = bytes + length(new.body); END"},
    layoutObject{"trigger", "entries_deleted",
                 "CREATE TRIGGER entries_deleted AFTER DELETE ON entries BEGIN"
                 " UPDATE totals SET entries = entries - 1, bytes = bytes - length(old.body); END"},
};
constexpr const layoutObject& entriesTable = layout.front();

constexpr const char* newerVersion = "made by a newer version";

struct closeConnection {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
};
struct finalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using connectionOwner = std::unique_ptr<sqlite3, closeConnection>;
using statementOwner = std::unique_ptr<sqlite3_stmt, finalizeStatement>;

/// How long the present user of SQLite waits for others. One at a time does: the log's guard sees to it.
patience currentPatience;

int waitForOthers(void*, int) { return currentPatience.pause(busyPause) ? 1 : 0; }

/// SQLite pauses by itself, too, up to ten seconds in all, where the locks of the write-ahead log can't be had.
int sleepWithinPatience(sqlite3_vfs*, int microseconds)
{
    currentPatience.pause(std::chrono::microseconds(microseconds));
    return microseconds;
}

/// @return the name of SQLite's own file functions with sleepWithinPatience(); null, which is SQLite's own, without
/// memory
const char* patientFiles()
{
    constexpr const char* name = "kest";
    static sqlite3_vfs files;
    sqlite3_vfs* const own = sqlite3_vfs_find(nullptr);
    if (sqlite3_vfs_find(name) == nullptr && own != nullptr) {
        files = *own;
        files.pNext = nullptr;
        files.zName = name;
        files.xSleep = sleepWithinPatience;
        sqlite3_vfs_register(&files, 0);
    }
    return sqlite3_vfs_find(name) != nullptr ? name : nullptr;
}

bool isBusy(int result)
{
    const int kind = result & 0xFF;
    return kind == SQLITE_BUSY || kind == SQLITE_LOCKED || kind == SQLITE_PROTOCOL;
}

bool isDamage(int result) { return (result & 0xFF) == SQLITE_CORRUPT || (result & 0xFF) == SQLITE_NOTADB; }

connectionOwner connect(const std::filesystem::path& file, int flags, std::string& problem)
{
    sqlite3* connection = nullptr;
    const int result = sqlite3_open_v2(file.c_str(), &connection, flags | SQLITE_OPEN_NOMUTEX, patientFiles());
    connectionOwner owner(connection);
    if (result != SQLITE_OK) {
        problem = fmt::format("{}: {}", file.string(), sqlite3_errstr(result));
        owner.reset();
    } else {
        sqlite3_extended_result_codes(connection, 1);
        sqlite3_busy_handler(connection, waitForOthers, nullptr);
        sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    }
    return owner;
}

statementOwner prepare(sqlite3* connection, const char* text)
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v3(connection, text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    return statementOwner(statement);
}

void bindText(sqlite3_stmt* statement, int index, std::string_view text)
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

/// What the objects of a file are.
enum class layoutKind {
    unreadable,
    none, ///< the file is empty
    own,
    mixed, ///< the table of entries is kest's, and something else isn't
    foreign,
};

/// Compares a file's objects with kest's own. Runs nothing of what it finds.
layoutKind lookAtLayout(sqlite3* connection)
{
    const statementOwner statement =
        prepare(connection, "SELECT type, name, sql FROM sqlite_schema WHERE sql IS NOT NULL");
    std::size_t own = 0, others = 0;
    bool entries = false;
    int result = statement != nullptr ? SQLITE_ROW : SQLITE_ERROR;
    while (result == SQLITE_ROW) {
        result = sqlite3_step(statement.get());
        if (result == SQLITE_ROW) {
            const std::string type = columnText(statement.get(), 0), name = columnText(statement.get(), 1),
                              text = columnText(statement.get(), 2);
            const bool isOwn = std::ranges::any_of(layout, [&](const layoutObject& each) {
                return type == each.type && name == each.name && text == each.text;
            });
            own += isOwn ? 1 : 0;
            others += isOwn ? 0 : 1;
            entries = entries || (isOwn && name == entriesTable.name);
        }
    }
    layoutKind kind = layoutKind::foreign;
    if (result != SQLITE_DONE) {
        kind = layoutKind::unreadable;
    } else if (own + others == 0) {
        kind = layoutKind::none;
    } else if (entries) {
        kind = own == layout.size() && others == 0 ? layoutKind::own : layoutKind::mixed;
    }
    return kind;
}

class sqliteDatabase : public database
{
public:
    explicit sqliteDatabase(std::filesystem::path file) : m_file(std::move(file)) {}

    bool begin(std::string& note);

    bool add(std::span<const storedEntry> entries, bool skipKnown, const logLimits& limits,
             const patience& wait) override;
    bool clear(const patience& wait) override;
    [[nodiscard]] bool replaced() const override;
    [[nodiscard]] const std::string& problem() const override { return m_problem; }
    [[nodiscard]] bool busy() const override { return m_busy; }

private:
    bool failed() noexcept;
    bool failed(const char* why) noexcept;
    bool run(const char* text);
    bool step(const statementOwner& statement, bool& row);
    bool step(const statementOwner& statement);
    bool number(const statementOwner& statement, std::int64_t& value);
    bool connectTo(const std::filesystem::path& file);
    bool make();
    bool useOwnLayout(std::string& note);
    bool setAside(const char* why, std::string& note);
    bool rebuild();
    bool dropForeign();
    bool checkTotals();
    bool countEntries();
    bool prepareAll();
    bool checkUnchanged();
    bool keepWalSmall();
    bool insert(const storedEntry& stored, bool skipKnown);
    bool trim(const logLimits& limits);
    template <typename body_t>
    bool transaction(body_t body);

    std::filesystem::path m_file;
    std::string m_walFile;
    std::string m_problem;
    bool m_busy = false;
    bool m_changed = false; ///< somebody changed the layout
    std::int64_t m_layoutNumber = 0; ///< moves with each change of the layout
    struct stat m_opened {
    };
    // ahead of its statements
    connectionOwner m_connection;
    statementOwner m_begin, m_commit, m_rollback, m_changeNumber, m_insert, m_known, m_totals, m_trim;
};

/// Keeps SQLite's own words of what failed. @return false
bool sqliteDatabase::failed() noexcept
{
    m_busy = isBusy(sqlite3_extended_errcode(m_connection.get()));
    return failed(sqlite3_errmsg(m_connection.get()));
}

bool sqliteDatabase::failed(const char* why) noexcept
{
    try {
        m_problem = fmt::format("{}: {}", m_file.string(), why);
    } catch (const std::exception&) {
        // no memory
        m_problem.clear();
    }
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
    row = result == SQLITE_ROW;
    return row || result == SQLITE_DONE || failed();
}

bool sqliteDatabase::step(const statementOwner& statement)
{
    bool row = false;
    const bool done = step(statement, row);
    sqlite3_reset(statement.get());
    return done;
}

/// Reads one number. @param[out] value  0 when there is no row
bool sqliteDatabase::number(const statementOwner& statement, std::int64_t& value)
{
    bool row = false;
    const bool done = statement != nullptr ? step(statement, row) : failed();
    value = done && row ? sqlite3_column_int64(statement.get(), 0) : 0;
    sqlite3_reset(statement.get());
    return done;
}

bool sqliteDatabase::prepareAll()
{
    struct row {
        statementOwner& statement;
        const char* text;
    };
    const std::array rows{
        row{m_begin, "BEGIN IMMEDIATE"},
        row{m_commit, "COMMIT"},
        row{m_rollback, "ROLLBACK"},
        row{m_changeNumber, "PRAGMA schema_version"},
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
        done = done && (each.statement != nullptr || failed());
    }
    return done;
}

/// Connects to a file. WAL: one sync a commit, and readers don't hold writers up. FULL: a commit is on the disk when it
/// returns. The WAL files stay after the last connection has closed, because readers who may not write could not make
/// them.
bool sqliteDatabase::connectTo(const std::filesystem::path& file)
{
    m_connection = connect(file, SQLITE_OPEN_READWRITE, m_problem);
    if (m_connection == nullptr) {
        return false;
    }
    int keep = 1;
    sqlite3_file_control(m_connection.get(), "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
    sqlite3_db_config(m_connection.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    sqlite3_db_config(m_connection.get(), SQLITE_DBCONFIG_ENABLE_TRIGGER, 0,
                      // until they are known to be kest's
                      nullptr);
    sqlite3_db_config(m_connection.get(), SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    return run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL") &&
           run(fmt::format("PRAGMA journal_size_limit = {}", keptWalBytes).c_str());
}

/// Makes a database, and moves it to its place once it is whole, behind its working files: a name in place is never
/// without them.
bool sqliteDatabase::make()
{
    const std::filesystem::path fresh = m_file.string() + ".new";
    for (const std::filesystem::path& file : {fresh, m_file}) {
        for (const char* suffix : {"-wal", "-shm", "-journal"}) {
            unlink((file.string() + suffix).c_str());
        }
    }
    unlink(fresh.c_str());
    bool done = openFile(fresh, O_RDWR | O_CREAT | O_EXCL).valid() || failed(std::strerror(errno));
    done = done && connectTo(fresh) && rebuild();
    m_connection.reset();
    for (const char* suffix : {"-wal", "-shm", ""}) {
        done = done && (rename((fresh.string() + suffix).c_str(), (m_file.string() + suffix).c_str()) == 0 ||
                        failed(std::strerror(errno)));
    }
    if (done) {
        done = syncFolder(m_file.parent_path()) == 0 || failed(std::strerror(errno));
    }
    return done;
}

/// Brings the file to kest's layout, keeping entries that are there: nothing of another layout stays.
bool sqliteDatabase::rebuild()
{
    bool done = run("BEGIN IMMEDIATE") && dropForeign();
    for (const layoutObject& each : layout) {
        const bool there = &each == &entriesTable && lookAtLayout(m_connection.get()) != layoutKind::none;
        done = done && (there || run(each.text));
    }
    return done && (lookAtLayout(m_connection.get()) == layoutKind::own || failed("its layout can't be mended")) &&
           countEntries() && run(fmt::format("PRAGMA user_version = {}", layoutVersion).c_str()) && run("COMMIT");
}

/// Drops every object but the table of entries. A trigger doesn't run for that.
bool sqliteDatabase::dropForeign()
{
    std::string drops;
    for (const char* type : {"trigger", "view", "index", "table"}) {
        const statementOwner found = prepare(
            m_connection.get(), "SELECT printf('DROP %s IF EXISTS \"%w\";', type, name) FROM sqlite_schema"
                                " WHERE sql IS NOT NULL AND type = ? AND NOT (type = 'table' AND name = 'entries')");
        sqlite3_bind_text(found.get(), 1, type, -1, SQLITE_STATIC);
        while (sqlite3_step(found.get()) == SQLITE_ROW) {
            drops += columnText(found.get(), 0);
        }
    }
    return run(drops.c_str());
}

bool sqliteDatabase::countEntries()
{
    return run("DELETE FROM totals; INSERT INTO totals SELECT count(*), ifnull(sum(length(body)), 0) FROM entries");
}

/// Counts anew when the totals can't be true. Reading all bodies at each opening would take too long.
bool sqliteDatabase::checkTotals()
{
    const statementOwner statement = prepare(
        m_connection.get(),
        "SELECT (SELECT count(*) FROM totals) = 1 AND (SELECT entries FROM totals) = (SELECT count(*) FROM entries)"
        " AND (SELECT bytes FROM totals) BETWEEN 0 AND (SELECT page_count FROM pragma_page_count)"
        " * (SELECT page_size FROM pragma_page_size)");
    std::int64_t isTrue = 0;
    return number(statement, isTrue) && (isTrue != 0 || (run("BEGIN IMMEDIATE") && countEntries() && run("COMMIT")));
}

/// Sets the file aside and makes another in its place.
bool sqliteDatabase::setAside(const char* why, std::string& note)
{
    m_connection.reset();
    const int error = setDatabaseAside(m_file);
    note = fmt::format("kest: {} {}; it was set aside as {}.damaged", m_file.string(), why, m_file.filename().string());
    return (error == 0 || failed(std::strerror(error))) && make() && connectTo(m_file);
}

/// Sees to it that nothing runs that the file brought along.
bool sqliteDatabase::useOwnLayout(std::string& note)
{
    const int version = layoutOf(m_connection.get());
    const layoutKind kind = lookAtLayout(m_connection.get());
    bool done = true;
    if (version < 0 || kind == layoutKind::unreadable) {
        done = failed();
    } else if (version > layoutVersion) {
        done = failed(newerVersion);
    } else if (kind == layoutKind::foreign) {
        done = setAside("is not an error log", note);
    } else if (kind != layoutKind::own || version != layoutVersion) {
        done = rebuild() || (!m_busy && setAside("has a layout that can't be mended", note));
    }
    if (done) {
        sqlite3_db_config(m_connection.get(), SQLITE_DBCONFIG_ENABLE_TRIGGER, 1, nullptr);
    }
    return done && checkTotals();
}

/// @return whether nobody but those who may have made it owns the file: root, this user, or the folder's owner
bool ownerIsTrusted(const std::filesystem::path& file, const struct stat& facts)
{
    struct stat folder {
    };
    return facts.st_uid == 0 || facts.st_uid == geteuid() ||
           (stat(file.parent_path().c_str(), &folder) == 0 && facts.st_uid == folder.st_uid);
}

bool sqliteDatabase::begin(std::string& note)
{
    // Never opened beside SQLite: closing it would drop SQLite's locks.
    bool done = access(m_file.c_str(), F_OK) == 0 || make();
    done = done && (stat(m_file.c_str(), &m_opened) == 0 || failed(std::strerror(errno)));
    if (done && !ownerIsTrusted(m_file, m_opened)) {
        done = setAside("belongs to another user", note);
    } else {
        done = done && connectTo(m_file);
    }
    done = done && useOwnLayout(note) && prepareAll() && number(m_changeNumber, m_layoutNumber) &&
           (stat(m_file.c_str(), &m_opened) == 0 || failed(std::strerror(errno)));
    m_walFile = m_file.string() + "-wal";
    return done;
}

bool sqliteDatabase::replaced() const
{
    struct stat now {
    };
    return m_changed || stat(m_file.c_str(), &now) != 0 || now.st_dev != m_opened.st_dev ||
           now.st_ino != m_opened.st_ino;
}

/// Another layout than the one that was looked at is not run. Inside a transaction: it can't change any more.
bool sqliteDatabase::checkUnchanged()
{
    std::int64_t now = 0;
    const bool done = number(m_changeNumber, now);
    m_changed = done && now != m_layoutNumber;
    return done && (!m_changed || failed("its layout has been changed"));
}

/// Readers that are stopped keep the write-ahead log from being used again from its start.
bool sqliteDatabase::keepWalSmall()
{
    struct stat facts {
    };
    bool done = true;
    if (stat(m_walFile.c_str(), &facts) == 0 && facts.st_size > largestWalBytes) {
        const patience before = std::exchange(currentPatience, patience());
        const int result =
            sqlite3_wal_checkpoint_v2(m_connection.get(), "main", SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
        currentPatience = before;
        done = result == SQLITE_OK || failed("a reader holds up the write-ahead log");
        m_busy = !done;
    }
    return done;
}

template <typename body_t>
bool sqliteDatabase::transaction(body_t body)
{
    m_busy = false;
    const bool done = keepWalSmall() && step(m_begin) && checkUnchanged() && body() && step(m_commit);
    if (!done && sqlite3_get_autocommit(m_connection.get()) == 0) {
        std::string cause;
        std::swap(cause, m_problem);
        const bool busy = m_busy;
        step(m_rollback);
        std::swap(cause, m_problem);
        m_busy = busy;
    }
    return done;
}

bool sqliteDatabase::insert(const storedEntry& stored, bool skipKnown)
{
    bool known = false;
    bool done = true;
    if (skipKnown) {
        sqlite3_bind_int64(m_known.get(), 1, stored.plid);
        bindText(m_known.get(), 2, stored.line);
        done = step(m_known, known);
        sqlite3_reset(m_known.get());
    }
    if (done && !known) {
        sqlite3_bind_int64(m_insert.get(), 1, stored.plid);
        sqlite3_bind_int64(m_insert.get(), 2, stored.committedMs);
        sqlite3_bind_int64(m_insert.get(), 3, stored.severity);
        sqlite3_bind_int64(m_insert.get(), 4, stored.creator);
        bindText(m_insert.get(), 5, stored.line);
        done = step(m_insert);
    }
    return done;
}

/// Drops so many entries at most: after limits were lowered much, the commits that follow do the rest.
bool sqliteDatabase::trim(const logLimits& limits)
{
    const std::int64_t latest = sqlite3_last_insert_rowid(m_connection.get());
    bool done = true;
    bool over = true;
    for (int dropped = 0; done && over && dropped < dropsAtOnce; ++dropped) {
        bool row = false;
        done = step(m_totals, row);
        over = done && row && sqlite3_column_int64(m_totals.get(), 0) > 1 &&
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

bool sqliteDatabase::add(std::span<const storedEntry> entries, bool skipKnown, const logLimits& limits,
                         const patience& wait)
{
    currentPatience = wait;
    return transaction([&] {
        bool done = true;
        for (const storedEntry& stored : entries) {
            done = done && insert(stored, skipKnown);
        }
        return done && trim(limits);
    });
}

bool sqliteDatabase::clear(const patience& wait)
{
    currentPatience = wait;
    const bool done = transaction([&] { return run("DELETE FROM entries"); });
    if (done) {
        // fails while others read; the room is then used again instead
        run("VACUUM; PRAGMA wal_checkpoint(TRUNCATE)");
        // which VACUUM moves
        number(m_changeNumber, m_layoutNumber);
    }
    return done;
}

/// Binds null for what is not asked for.
void bindOptional(sqlite3_stmt* statement, int index, const std::optional<std::int64_t>& value)
{
    if (value) {
        sqlite3_bind_int64(statement, index, *value);
    }
}

} // namespace

openedDatabase database::open(const std::filesystem::path& file, const patience& wait)
{
    openedDatabase result;
    currentPatience = wait;
    auto opened = std::make_unique<sqliteDatabase>(file);
    if (opened->begin(result.note)) {
        result.value = std::move(opened);
    } else {
        result.problem = opened->problem();
        result.busy = opened->busy();
        result.newer = result.problem.ends_with(newerVersion);
    }
    return result;
}

namespace
{

/// A transaction that reads a file of kest's layout.
struct readTransaction {
    readTransaction(const std::filesystem::path& file, std::string& problem);

    connectionOwner connection;
    bool empty = false; ///< there is no file, or nothing in it: nothing failed
    bool good = false; ///< the table of entries can be read
    bool damaged = false; ///< waiting or permission would not help
};

readTransaction::readTransaction(const std::filesystem::path& file, std::string& problem)
{
    currentPatience = patience(readersPatience);
    if (access(file.c_str(), F_OK) != 0) {
        empty = errno == ENOENT || errno == ENOTDIR;
        // SQLite would not say why
        if (!empty) {
            problem = fmt::format("{}: {}", file.string(), std::strerror(errno));
        }
        return;
    }
    connection = connect(file, SQLITE_OPEN_READONLY, problem);
    if (connection == nullptr) {
        return;
    }
    sqlite3_db_config(connection.get(), SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    const bool begun = sqlite3_exec(connection.get(), "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK;
    const layoutKind kind = begun ? lookAtLayout(connection.get()) : layoutKind::unreadable;
    empty = kind == layoutKind::none;
    good = kind == layoutKind::own || kind == layoutKind::mixed;
    damaged =
        kind == layoutKind::foreign || (kind == layoutKind::unreadable && isDamage(sqlite3_errcode(connection.get())));
    if (kind == layoutKind::unreadable) {
        problem = fmt::format("{}: {}", file.string(), sqlite3_errmsg(connection.get()));
    } else if (kind == layoutKind::foreign) {
        problem = fmt::format("{}: not an error log", file.string());
    }
}

} // namespace

void readDatabase(const std::filesystem::path& file, const entryFilter& filter, std::vector<loggedEntry>& entries,
                  std::string& problem)
{
    constexpr const char* query =
        "SELECT body FROM entries WHERE (?1 IS NULL OR plid = ?1) AND (?2 IS NULL OR committed_ms >= ?2)"
        " AND (?3 IS NULL OR severity = ?3) AND (?4 IS NULL OR component = ?4)"
        " ORDER BY committed_ms DESC, id DESC LIMIT ?5";
    const readTransaction reading(file, problem);
    if (!reading.good) {
        return;
    }
    const statementOwner statement = prepare(reading.connection.get(), query);
    int result = sqlite3_errcode(reading.connection.get());
    std::uint64_t unreadable = 0;
    if (statement != nullptr) {
        bindOptional(statement.get(), 1, filter.plid);
        bindOptional(statement.get(), 2, filter.sinceMs);
        bindOptional(statement.get(), 3, filter.severity);
        bindOptional(statement.get(), 4, filter.component);
        sqlite3_bind_int64(statement.get(), 5, filter.limit > 0 ? static_cast<std::int64_t>(filter.limit) : anyLimit);
        for (result = sqlite3_step(statement.get()); result == SQLITE_ROW; result = sqlite3_step(statement.get())) {
            if (auto entry = fromLine(columnText(statement.get(), 0))) {
                entries.push_back(std::move(*entry));
            } else {
                ++unreadable;
            }
        }
    }
    if (result != SQLITE_DONE) {
        problem = fmt::format("{}: {}", file.string(), sqlite3_errmsg(reading.connection.get()));
    } else if (unreadable > 0) {
        problem = fmt::format("{}: {} entries are damaged", file.string(), unreadable);
    }
}

bool highestStoredId(const std::filesystem::path& file, std::uint32_t limit, std::uint32_t& highest)
{
    std::string ignored;
    const readTransaction reading(file, ignored);
    bool done = reading.empty;
    highest = 0;
    if (reading.good) {
        const statementOwner statement =
            prepare(reading.connection.get(), "SELECT ifnull(max(plid), 0) FROM entries WHERE plid <= ?");
        if (statement != nullptr) {
            sqlite3_bind_int64(statement.get(), 1, limit);
            done = sqlite3_step(statement.get()) == SQLITE_ROW;
            highest = done ? static_cast<std::uint32_t>(sqlite3_column_int64(statement.get(), 0)) : 0;
        }
    }
    return done;
}

std::string checkDatabase(const std::filesystem::path& file, bool& damaged)
{
    std::string problem;
    const readTransaction reading(file, problem);
    damaged = reading.damaged;
    if (reading.good) {
        const statementOwner statement = prepare(reading.connection.get(), "PRAGMA integrity_check(1)");
        const bool answered = statement != nullptr && sqlite3_step(statement.get()) == SQLITE_ROW;
        const std::string answer =
            answered ? columnText(statement.get(), 0) : std::string(sqlite3_errmsg(reading.connection.get()));
        damaged = answered ? answer != "ok" : isDamage(sqlite3_errcode(reading.connection.get()));
        if (!answered || damaged) {
            problem = fmt::format("{}: {}", file.string(), answer);
        }
    }
    return problem;
}

int setDatabaseAside(const std::filesystem::path& file)
{
    int error = 0;
    for (const char* suffix : {"-wal", "-shm", "-journal", ""}) {
        const std::string from = file.string() + suffix;
        const std::string to = file.string() + ".damaged" + suffix;
        if (error == 0 && rename(from.c_str(), to.c_str()) != 0) {
            // an older one's
            error = errno != ENOENT || (unlink(to.c_str()) != 0 && errno != ENOENT) ? errno : 0;
        }
    }
    return error;
}

} // namespace kest::host

#else

namespace kest::host
{

openedDatabase database::open(const std::filesystem::path&, const patience&) { return {}; }

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

int setDatabaseAside(const std::filesystem::path&) { return 0; }

} // namespace kest::host

#endif
