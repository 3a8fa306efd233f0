/// The error log's database: one SQLite file that any number of processes write at once.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/errorlog/limits.h"
#include "platform/host/errorlog/store.h"
#include "platform/host/errorlog/waiting.h"

namespace kest::host
{

/// One entry as the database takes it.
struct storedEntry {
    std::uint32_t plid = 0;
    std::int64_t committedMs = 0;
    std::uint32_t severity = 0;
    std::uint16_t creator = 0;
    std::string_view line; ///< its JSON form
};

/// What came of opening a database.
struct openedDatabase {
    std::unique_ptr<class database> value; ///< null when it can't be used, also when this build has no database at all
    std::string problem; ///< why there is none
    bool busy = false; ///< others kept it busy for too long
    bool newer = false; ///< a newer version made it
    std::string note; ///< what people should know: that a foreign file was set aside
};

/// A connection that writes. For one thread at a time, and not to be kept across fork(). Nothing but opening throws.
class database
{
public:
    /// Opens the database and makes it when there is none. It is made beside its place and moved there whole: one that
    /// is killed leaves nothing that readers would trip over. A layout that is not kest's is never run: its entries are
    /// kept where their table is kest's, else the file is set aside. Others that open one at the same time are kept
    /// away by the caller.
    static openedDatabase open(const std::filesystem::path& file, const patience& wait);

    database() = default;
    database(const database&) = delete;
    database& operator=(const database&) = delete;
    virtual ~database() = default;

    /// Adds entries and drops what passes the limits, some entries at a time, all in one transaction that is durable on
    /// return.
    /// @param skipKnown  leaves out entries that are there already, byte for byte
    virtual bool add(std::span<const storedEntry> entries, bool skipKnown, const logLimits& limits,
                     const patience& wait) = 0;
    /// Deletes every entry and gives their room back to the disk.
    virtual bool clear(const patience& wait) = 0;
    /// @return whether the file at the path is another than the one opened, or its layout was changed since
    [[nodiscard]] virtual bool replaced() const = 0;
    /// @return what failed last
    [[nodiscard]] virtual const std::string& problem() const = 0;
    /// @return whether it failed because others kept it busy
    [[nodiscard]] virtual bool busy() const = 0;
};

/// Reads entries, the latest first, without writing anything. No file is no entries.
/// @param[out] problem  why entries may be missing
void readDatabase(const std::filesystem::path& file, const entryFilter& filter, std::vector<loggedEntry>& entries,
                  std::string& problem);

/// @param[out] highest  the highest entry identifier not above `limit`, 0 when there is none. @return whether the file
/// could be read
bool highestStoredId(const std::filesystem::path& file, std::uint32_t limit, std::uint32_t& highest);

/// Reads the whole file. @return what is wrong, empty when nothing is. @param[out] damaged  its contents are, and not just the way to them
std::string checkDatabase(const std::filesystem::path& file, bool& damaged);

/// Lets a database be forgotten by its name, with the files that belong to it. @return 0 or an `errno` value
int setDatabaseAside(const std::filesystem::path& file);

} // namespace kest::host
