/// SQLite as the error log uses it: connections and statements with owners, and waits that have an end.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <string_view>

#include "platform/host/errorlog/waiting.h"

namespace kest::host
{

struct closeConnection {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
};
struct finalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using connectionOwner = std::unique_ptr<sqlite3, closeConnection>;
using statementOwner = std::unique_ptr<sqlite3_stmt, finalizeStatement>;

/// Limits how long SQLite waits for others from now on. One user of SQLite at a time: the log's guard ensures that.
/// @return the patience before
patience useSqlitePatience(const patience& wait);

/// Opens a file. It runs nothing of what the file brings along unless that is allowed later.
/// @return null, with the reason in `problem`, when it can't be opened
connectionOwner connect(const std::filesystem::path& file, int flags, std::string& problem);

/// @return null when the text is no statement for this file, or without memory
statementOwner prepare(sqlite3* connection, const char* text);

/// The text must outlive the statement's run.
void bindText(sqlite3_stmt* statement, int index, std::string_view text);
std::string columnText(sqlite3_stmt* statement, int index);

bool isBusy(int result);
bool isDamage(int result);

/// A connection that writes, and what failed on it last. Its functions return whether they did it.
class session
{
public:
    /// @param file  is named where something fails
    explicit session(std::filesystem::path file) : m_file(std::move(file)) {}

    /// Connects to a file that is there.
    bool open(const std::filesystem::path& file);
    void close() { m_connection.reset(); }
    [[nodiscard]] sqlite3* handle() const { return m_connection.get(); }
    [[nodiscard]] const std::filesystem::path& file() const { return m_file; }

    /// Runs a text of statements.
    bool run(const char* text);
    /// Runs a statement to its end or to its first row. @param[out] row  whether there was one
    bool step(const statementOwner& statement, bool& row);
    /// Runs a statement to its end, and makes it ready for the next time.
    bool step(const statementOwner& statement);
    /// Reads one number. @param[out] value  0 when there is no row
    bool number(const statementOwner& statement, std::int64_t& value);

    /// Keeps SQLite's own words of what failed. @return false
    bool failed() noexcept;
    /// Keeps why something failed. @return false
    bool failed(const char* why) noexcept;
    void setBusy(bool busy) { m_busy = busy; }
    [[nodiscard]] const std::string& problem() const { return m_problem; }
    [[nodiscard]] bool busy() const { return m_busy; }
    /// Takes a transaction back, if one is open; what failed stays as it is.
    void rollBack(const statementOwner& statement);

private:
    std::filesystem::path m_file;
    connectionOwner m_connection;
    std::string m_problem;
    bool m_busy = false;
};

} // namespace kest::host
