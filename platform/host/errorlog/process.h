/// What a process keeps of the error log while it runs.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>

#include "platform/host/errorlog/openstore.h"

namespace kest::host
{

/// Never destroyed, so that entries can be committed as late as static destructors run. A child of fork() begins
/// without open files and without identifiers; the store is closed before a fork, since SQLite's connection must not
/// reach a child.
struct processLog {
    static processLog& instance();

    void beforeFork();
    void afterFork(bool inChild);

    /// @return the storage of a configuration. The caller holds `guard`.
    logStorage& storageOf(const configuration& settings);

    std::mutex idGuard; ///< locked before `guard` where both are
    const configuration* idSettings = nullptr;
    std::uint32_t nextId = 0;
    std::uint32_t endId = 0;
    std::uint32_t blockSize = 0;
    std::uint32_t guessedId = 0; ///< latest identifier given without a state folder; 0 none yet

    std::mutex guard; ///< also held by readers: no connection is open during a fork
    /// After a database that was busy for as long as a commit waits, commits go to the spool at once unless the
    /// database is free.
    std::chrono::steady_clock::time_point waitsAgainAt{};
    std::chrono::milliseconds lastPause{0}; ///< 0: the database was not busy the last time

private:
    processLog();

    const configuration* m_settings = nullptr; ///< of `m_storage`; null: there is none
    logStorage m_storage;
};

inline processLog& theLog() { return processLog::instance(); }

} // namespace kest::host
