/// What a process keeps of the error log while it runs.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/database.h"
#include "platform/host/errorlog/spool.h"

namespace kest::host
{

/// The error log's files in a state folder.
struct logFiles {
    explicit logFiles(const configuration& settings);

    std::filesystem::path folder;
    std::filesystem::path database;
    std::filesystem::path lock; ///< held while a database is opened, the spool changed, identifiers set aside
    std::filesystem::path nextId; ///< the first identifier that is not set aside yet
    std::filesystem::path spool;
    /// Of the spool for when the state folder can't be written; one for each state folder.
    std::filesystem::path otherName;
};

/// A folder and the spool in it.
struct spoolPlace {
    std::filesystem::path folder;
    spool lines;
};

/// @return the state folder's place, then those for when it can't be written, in the order in which they are tried
std::vector<spoolPlace> spoolPlaces(const configuration& settings);

/// Looks at a place outside the state folder, and makes its folder when asked to. It may be among everybody's, as in
/// /var/tmp: one that is not this user's alone is not used. @return 0 or an `errno` value
int preparePrivateFolder(const std::filesystem::path& folder, bool make);

/// Never destroyed, so that entries can be committed as late as static destructors run. A child of fork() begins
/// without open files and identifiers of its own; the connection is closed ahead of a fork, since SQLite's must not
/// reach a child.
struct processLog {
    static processLog& instance();

    void beforeFork();
    void afterFork(bool inChild);

    std::mutex idGuard; ///< taken ahead of `guard` where both are
    const configuration* idSettings = nullptr;
    std::uint32_t nextId = 0;
    std::uint32_t endId = 0;
    std::uint32_t blockSize = 0;
    std::uint32_t guessedId = 0; ///< latest identifier given without a state folder; 0 none yet

    std::mutex guard; ///< also held by readers: no connection is open during a fork
    const configuration* settings = nullptr;
    std::optional<logFiles> files;
    std::unique_ptr<database> writer;
    std::vector<spoolPlace> places;

    /// After a database that was busy for as long as a commit waits, commits go to the spool at once unless the
    /// database is free.
    std::chrono::steady_clock::time_point waitsAgainAt{};
    std::chrono::milliseconds lastPause{0}; ///< 0: the database was not busy the last time

private:
    processLog();
};

inline processLog& theLog() { return processLog::instance(); }

} // namespace kest::host
