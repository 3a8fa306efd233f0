#include "platform/host/errorlog/sqlite/reader.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <unistd.h>

#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/limits.h"
#include "platform/host/errorlog/sqlite/layout.h"

namespace kest::host
{

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
    useSqlitePatience(patience(readersPatience));
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

/// Binds null for what is not asked for.
void bindOptional(sqlite3_stmt* statement, int index, const std::optional<std::int64_t>& value)
{
    if (value) {
        sqlite3_bind_int64(statement, index, *value);
    }
}

/// Finds the bodies of matching entries, the latest first. @return null when the file can't be searched
statementOwner prepareSearch(sqlite3* connection, const entryFilter& filter)
{
    constexpr const char* query =
        "SELECT body FROM entries WHERE (?1 IS NULL OR plid = ?1) AND (?2 IS NULL OR committed_ms >= ?2)"
        " AND (?3 IS NULL OR severity = ?3) AND (?4 IS NULL OR component = ?4)"
        " ORDER BY committed_ms DESC, id DESC LIMIT ?5";
    constexpr std::int64_t anyLimit = -1;
    statementOwner statement = prepare(connection, query);
    if (statement != nullptr) {
        bindOptional(statement.get(), 1, filter.plid);
        bindOptional(statement.get(), 2, filter.sinceMs);
        bindOptional(statement.get(), 3, filter.severity);
        bindOptional(statement.get(), 4, filter.component);
        sqlite3_bind_int64(statement.get(), 5, filter.limit > 0 ? static_cast<std::int64_t>(filter.limit) : anyLimit);
    }
    return statement;
}

} // namespace

void readDatabase(const std::filesystem::path& file, const entryFilter& filter, std::vector<loggedEntry>& entries,
                  std::string& problem)
{
    const readTransaction reading(file, problem);
    if (!reading.good) {
        return;
    }
    const statementOwner statement = prepareSearch(reading.connection.get(), filter);
    std::uint64_t unreadable = 0;
    int result = statement != nullptr ? sqlite3_step(statement.get()) : SQLITE_ERROR;
    for (; result == SQLITE_ROW; result = sqlite3_step(statement.get())) {
        if (auto entry = fromLine(columnText(statement.get(), 0))) {
            entries.push_back(std::move(*entry));
        } else {
            ++unreadable;
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
    highest = 0;
    if (!reading.good) {
        return reading.empty;
    }
    const statementOwner statement =
        prepare(reading.connection.get(), "SELECT ifnull(max(plid), 0) FROM entries WHERE plid <= ?");
    if (statement == nullptr) {
        return false;
    }
    sqlite3_bind_int64(statement.get(), 1, limit);
    if (sqlite3_step(statement.get()) != SQLITE_ROW) {
        return false;
    }
    highest = static_cast<std::uint32_t>(sqlite3_column_int64(statement.get(), 0));
    return true;
}

std::string checkDatabase(const std::filesystem::path& file, bool& damaged)
{
    std::string problem;
    const readTransaction reading(file, problem);
    damaged = reading.damaged;
    if (!reading.good) {
        return problem;
    }
    const statementOwner statement = prepare(reading.connection.get(), "PRAGMA integrity_check(1)");
    if (statement == nullptr || sqlite3_step(statement.get()) != SQLITE_ROW) {
        damaged = isDamage(sqlite3_errcode(reading.connection.get()));
        return fmt::format("{}: {}", file.string(), sqlite3_errmsg(reading.connection.get()));
    }
    const std::string result = columnText(statement.get(), 0);
    damaged = result != "ok";
    return damaged ? fmt::format("{}: {}", file.string(), result) : problem;
}

} // namespace kest::host
