/// The error log's database: one SQLite file that any number of processes write at once.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <sys/stat.h>

#include "platform/host/errorlog/entrystore.h"
#include "platform/host/errorlog/limits.h"
#include "platform/host/errorlog/sqlite/connection.h"

namespace kest::host
{

/// What came of opening a database.
struct openedDatabase {
    std::unique_ptr<class database> value; ///< null when it can't be used
    std::string problem; ///< why there is none
    bool busy = false; ///< others kept it busy for too long
    bool newer = false; ///< a newer version made it
    std::string note; ///< what people should know: that a foreign file was set aside
};

/// A connection that writes. For one thread at a time, and not to be kept across fork(). Nothing but opening throws.
class database
{
public:
    /// As openDatabase().
    static openedDatabase open(const std::filesystem::path& file, const patience& wait);

    /// Adds entries and drops what passes the limits, some entries at a time, all in one transaction that is durable on
    /// return.
    /// @param skipKnown  leaves out entries that are there already, byte for byte
    bool add(std::span<const entryRow> rows, bool skipKnown, const logLimits& limits, const patience& wait);
    /// Deletes every entry and gives their room back to the disk.
    bool clear(const patience& wait);
    /// @return whether the file at the path is another than the one opened, or its layout was changed since
    [[nodiscard]] bool replaced() const;
    /// @return what failed last
    [[nodiscard]] const std::string& problem() const { return m_session.problem(); }
    /// @return whether it failed because others kept it busy
    [[nodiscard]] bool busy() const { return m_session.busy(); }

private:
    explicit database(const std::filesystem::path& file) : m_session(file), m_walFile(file.string() + "-wal") {}
    bool prepareAll();
    bool checkUnchanged();
    static int afterCommit(void* self, sqlite3* connection, const char* name, int pages);
    bool keepWalSmall();
    bool insert(const entryRow& row, bool skipKnown);
    bool trim(const logLimits& limits);
    template <typename Body>
    bool transaction(Body body);

    // before its statements
    session m_session;
    std::string m_walFile;
    bool m_changed = false; ///< somebody changed the layout
    std::int64_t m_walPages = -1; ///< in the write-ahead log after this process's last commit; below 0: not known
    std::int64_t m_layoutNumber = 0; ///< moves with each change of the layout
    struct stat m_opened {
    };
    statementOwner m_begin, m_commit, m_rollback, m_changeNumber, m_insert, m_known, m_totals, m_trim;
};

} // namespace kest::host
