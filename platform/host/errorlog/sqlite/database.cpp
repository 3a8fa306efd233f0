#include "platform/host/errorlog/sqlite/database.h"

#include <array>

#include "platform/host/errorlog/sqlite/opening.h"

namespace kest::host
{

namespace
{

/// As many as SQLite waits for by itself.
constexpr int pagesBeforeCheckpoint = 1000;
/// Of a page in the write-ahead log, with its header.
constexpr std::int64_t walPageBytes = 4096 + 24;

} // namespace

openedDatabase database::open(const std::filesystem::path& file, const patience& wait)
{
    openedDatabase result;
    useSqlitePatience(wait);
    std::unique_ptr<database> opened(new database(file));
    session& at = opened->m_session;
    if (openDatabase(at, opened->m_opened, result.note) && opened->prepareAll() &&
        at.number(opened->m_changeNumber, opened->m_layoutNumber)) {
        sqlite3_wal_hook(at.handle(), afterCommit, opened.get());
        result.value = std::move(opened);
        return result;
    }
    result.problem = at.problem();
    result.busy = at.busy();
    result.newer = isNewer(at);
    return result;
}

bool database::prepareAll()
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
        row{m_insert,
            "INSERT OR ROLLBACK INTO entries(plid, committed_ms, severity, component, body) VALUES(?, ?, ?, ?, ?)"},
        row{m_known, "SELECT 1 FROM entries WHERE plid = ? AND body = ?"},
        row{m_totals, "SELECT entries, bytes FROM totals"},
        row{m_trim,
            "DELETE FROM entries WHERE id = ifnull((SELECT min(id) FROM entries WHERE severity = 16 AND id <> ?1),"
            " (SELECT min(id) FROM entries WHERE id <> ?1))"},
    };
    for (const row& each : rows) {
        each.statement = prepare(m_session.handle(), each.text);
        if (each.statement == nullptr) {
            return m_session.failed();
        }
    }
    return true;
}

bool database::replaced() const
{
    struct stat now {
    };
    return m_changed || stat(m_session.file().c_str(), &now) != 0 || now.st_dev != m_opened.st_dev ||
           now.st_ino != m_opened.st_ino;
}

/// Another layout than the one that was looked at is not run. Inside a transaction: it can't change any more.
bool database::checkUnchanged()
{
    std::int64_t now = 0;
    if (!m_session.number(m_changeNumber, now)) {
        m_changed = false;
        return false;
    }
    m_changed = now != m_layoutNumber;
    return !m_changed || m_session.failed("its layout has been changed");
}

/// SQLite calls it after each commit. It then moves the pages into the database itself no longer.
int database::afterCommit(void* self, sqlite3* connection, const char* name, int pages)
{
    static_cast<database*>(self)->m_walPages = pages;
    if (pages >= pagesBeforeCheckpoint) {
        // while others hold it up the next commit tries again
        sqlite3_wal_checkpoint_v2(connection, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    }
    return SQLITE_OK;
}

/// Readers that are stopped keep the write-ahead log from being used again from its start.
bool database::keepWalSmall()
{
    if (m_walPages >= 0 && m_walPages * walPageBytes <= largestWalBytes) {
        return true;
    }
    struct stat facts {
    };
    if (stat(m_walFile.c_str(), &facts) != 0 || facts.st_size <= largestWalBytes) {
        return true;
    }
    const patience before = useSqlitePatience(patience());
    const int result =
        sqlite3_wal_checkpoint_v2(m_session.handle(), "main", SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    useSqlitePatience(before);
    m_walPages = -1;
    m_session.setBusy(result != SQLITE_OK);
    return result == SQLITE_OK || m_session.failed("a reader holds up the write-ahead log");
}

template <typename Body>
bool database::transaction(Body body)
{
    m_session.setBusy(false);
    if (keepWalSmall() && m_session.step(m_begin) && checkUnchanged() && body() && m_session.step(m_commit)) {
        return true;
    }
    m_session.rollBack(m_rollback);
    return false;
}

bool database::insert(const entryRow& row, bool skipKnown)
{
    if (skipKnown) {
        sqlite3_bind_int64(m_known.get(), 1, row.keys.plid);
        bindText(m_known.get(), 2, row.line);
        bool known = false;
        const bool done = m_session.step(m_known, known);
        sqlite3_reset(m_known.get());
        if (!done || known) {
            return done;
        }
    }
    sqlite3_bind_int64(m_insert.get(), 1, row.keys.plid);
    sqlite3_bind_int64(m_insert.get(), 2, row.keys.committedMs);
    sqlite3_bind_int64(m_insert.get(), 3, row.keys.severity);
    sqlite3_bind_int64(m_insert.get(), 4, row.keys.creator);
    bindText(m_insert.get(), 5, row.line);
    return m_session.step(m_insert);
}

/// Drops `dropsAtOnce` entries at most.
bool database::trim(const logLimits& limits)
{
    const std::int64_t latest = sqlite3_last_insert_rowid(m_session.handle());
    for (int dropped = 0; dropped < dropsAtOnce; ++dropped) {
        bool row = false;
        const bool done = m_session.step(m_totals, row);
        const std::int64_t entries = done && row ? sqlite3_column_int64(m_totals.get(), 0) : 0;
        const std::int64_t bytes = done && row ? sqlite3_column_int64(m_totals.get(), 1) : 0;
        sqlite3_reset(m_totals.get());
        const bool over = entries > 1 && (static_cast<std::uint64_t>(entries) > limits.entries ||
                                          static_cast<std::uint64_t>(bytes) > limits.bytes);
        if (!done || !over) {
            return done;
        }
        sqlite3_bind_int64(m_trim.get(), 1, latest);
        if (!m_session.step(m_trim)) {
            return false;
        }
        if (sqlite3_changes(m_session.handle()) == 0) {
            break;
        }
    }
    return true;
}

bool database::add(std::span<const entryRow> rows, bool skipKnown, const logLimits& limits, const patience& wait)
{
    useSqlitePatience(wait);
    return transaction([&] {
        for (const entryRow& row : rows) {
            if (!insert(row, skipKnown)) {
                return false;
            }
        }
        return trim(limits);
    });
}

bool database::clear(const patience& wait)
{
    useSqlitePatience(wait);
    if (!transaction([&] { return m_session.run("DELETE FROM entries"); })) {
        return false;
    }
    // fails while others read; the room is then used again instead
    m_session.run("VACUUM; PRAGMA wal_checkpoint(TRUNCATE)");
    // which VACUUM moves
    m_session.number(m_changeNumber, m_layoutNumber);
    return true;
}

} // namespace kest::host
