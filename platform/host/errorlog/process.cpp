#include "platform/host/errorlog/process.h"

#include "base/fork.h"

namespace kest::host
{

namespace
{
[[maybe_unused]] const processLog& madeAtLoad = processLog::instance();
}

processLog& processLog::instance()
{
    static auto* const log = new processLog;
    return *log;
}

processLog::processLog() { watchForks<processLog>(); }

logStorage& processLog::storageOf(const configuration& settings)
{
    if (m_settings != &settings) {
        // until all is there
        m_settings = nullptr;
        waitsAgainAt = {};
        lastPause = std::chrono::milliseconds(0);
        m_storage = {};
        m_storage = openStore(settings);
        m_settings = &settings;
    }
    return m_storage;
}

void processLog::beforeFork()
{
    idGuard.lock();
    guard.lock();
    if (m_storage.store != nullptr) {
        m_storage.store->close();
    }
    // a store that needs no opening looks at the other spools again, too
    m_storage.looksElsewhereAt = std::chrono::steady_clock::time_point::min();
}

void processLog::afterFork(bool inChild)
{
    if (inChild) {
        nextId = endId = blockSize = guessedId = 0;
    }
    guard.unlock();
    idGuard.unlock();
}

} // namespace kest::host
