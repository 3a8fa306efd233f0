/// What a process keeps of the error log while it runs.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/host/errorlog/database.h"
#include "platform/host/errorlog/spool.h"
#include "platform/host/registry/configuration.h"

namespace kest::host
{

/// The error log's files in a state folder.
struct logFiles {
    explicit logFiles(const configuration& settings);

    std::filesystem::path folder;
    std::filesystem::path database;
    std::filesystem::path lock;   ///< held while a database is opened, the spool changed, identifiers set aside
    std::filesystem::path nextId; ///< the first identifier that is not set aside yet
    std::filesystem::path spool;
    std::filesystem::path otherSpool; ///< for when the state folder can't be written; one for each state folder
};

/// Never destroyed, so that entries can be committed as late as static destructors run. A child of fork() begins without open files and
/// identifiers of its own; the connection is closed ahead of a fork, since SQLite's must not reach a child.
struct processLog {
    static processLog& instance();

    void beforeFork();
    void afterFork(bool inChild);

    std::mutex           idGuard; ///< taken ahead of `guard` where both are
    const configuration* idSettings = nullptr;
    std::uint32_t        nextId     = 0;
    std::uint32_t        endId      = 0;
    std::uint32_t        blockSize  = 0;
    std::uint32_t        guessedId  = 0; ///< latest identifier given without a state folder; 0 none yet

    std::mutex                guard; ///< also held by readers: no connection is open during a fork
    const configuration*      settings = nullptr;
    std::unique_ptr<database> writer;
    std::vector<spool>        spools; ///< in the order in which they are tried

private:
    processLog();
};

inline processLog& theLog() { return processLog::instance(); }

} // namespace kest::host
