#include "platform/host/errorlog/sqlite/connection.h"

#include <fmt/format.h>
#include <utility>

#include "platform/host/errorlog/limits.h"

namespace kest::host
{

namespace
{

constexpr std::chrono::microseconds busyPause{500};

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

} // namespace

patience useSqlitePatience(const patience& wait) { return std::exchange(currentPatience, wait); }

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
        return nullptr;
    }
    sqlite3_extended_result_codes(connection, 1);
    sqlite3_busy_handler(connection, waitForOthers, nullptr);
    sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
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

/// WAL: one sync a commit, and readers don't hold writers up. FULL: a commit is on the disk when it returns. The WAL
/// files stay after the last connection has closed, because readers who may not write could not make them.
bool session::open(const std::filesystem::path& file)
{
    m_connection = connect(file, SQLITE_OPEN_READWRITE, m_problem);
    if (m_connection == nullptr) {
        return false;
    }
    int keep = 1;
    sqlite3_file_control(handle(), "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
    sqlite3_db_config(handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    // until they are known to be kest's
    sqlite3_db_config(handle(), SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(handle(), SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    return run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL") &&
           run(fmt::format("PRAGMA journal_size_limit = {}", keptWalBytes).c_str());
}

bool session::failed() noexcept
{
    m_busy = isBusy(sqlite3_extended_errcode(handle()));
    return failed(sqlite3_errmsg(handle()));
}

bool session::failed(const char* why) noexcept
{
    try {
        m_problem = fmt::format("{}: {}", m_file.string(), why);
    } catch (const std::exception&) {
        // no memory
        m_problem.clear();
    }
    return false;
}

bool session::run(const char* text)
{
    return sqlite3_exec(handle(), text, nullptr, nullptr, nullptr) == SQLITE_OK || failed();
}

bool session::step(const statementOwner& statement, bool& row)
{
    const int result = sqlite3_step(statement.get());
    row = result == SQLITE_ROW;
    return row || result == SQLITE_DONE || failed();
}

bool session::step(const statementOwner& statement)
{
    bool row = false;
    const bool done = step(statement, row);
    sqlite3_reset(statement.get());
    return done;
}

bool session::number(const statementOwner& statement, std::int64_t& value)
{
    bool row = false;
    const bool done = statement != nullptr ? step(statement, row) : failed();
    value = done && row ? sqlite3_column_int64(statement.get(), 0) : 0;
    sqlite3_reset(statement.get());
    return done;
}

void session::rollBack(const statementOwner& statement)
{
    if (sqlite3_get_autocommit(handle()) != 0) {
        return;
    }
    std::string cause;
    std::swap(cause, m_problem);
    const bool busy = m_busy;
    step(statement);
    std::swap(cause, m_problem);
    m_busy = busy;
}

} // namespace kest::host
