/// The error log's database: one SQLite file that any number of processes write at once.
#pragma once

#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/host/errorlog/limits.h"
#include "platform/host/errorlog/store.h"

namespace kest::host
{

/// One entry as the database takes it.
struct storedEntry {
    loggedEntry entry;
    std::string line; ///< its JSON form
};

/// A connection that writes. For one thread at a time, and not to be kept across fork().
class database
{
public:
    /// Opens the database and makes it when there is none. Others that open one at the same time are kept away by the caller.
    /// @param[out] problem  why there is none
    /// @return null when it can't be used, also when this build has no database at all
    static std::unique_ptr<database> open(const std::filesystem::path& file, std::string& problem);

    database()                           = default;
    database(const database&)            = delete;
    database& operator=(const database&) = delete;
    virtual ~database()                  = default;

    /// Adds entries and drops what passes the limits, all in one transaction that is durable on return.
    /// @param skipKnown  leaves out entries that are there already, byte for byte
    virtual bool add(std::span<const storedEntry> entries, bool skipKnown, const logLimits& limits) = 0;
    /// Deletes every entry and gives their room back to the disk.
    virtual bool clear() = 0;
    /// @return whether the file at the path is another than the one opened
    [[nodiscard]] virtual bool replaced() const = 0;
    /// @return what failed last
    [[nodiscard]] virtual const std::string& problem() const = 0;
};

/// Reads entries, the latest first, without writing anything. No file is no entries.
/// @param[out] problem  why entries may be missing
void readDatabase(const std::filesystem::path& file, const entryFilter& filter, std::vector<loggedEntry>& entries,
                  std::string& problem);

/// @param[out] highest  the highest entry identifier not above `limit`, 0 when there is none. @return whether the file could be read
bool highestStoredId(const std::filesystem::path& file, std::uint32_t limit, std::uint32_t& highest);

/// Reads the whole file. @return what is wrong, empty when nothing is. @param[out] damaged  its contents are, and not just the way to them
std::string checkDatabase(const std::filesystem::path& file, bool& damaged);

} // namespace kest::host
