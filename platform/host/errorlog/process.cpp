#include "platform/host/errorlog/process.h"

#include <fmt/format.h>

#include "platform/host/files/fork.h"

namespace kest::host
{

namespace
{

/// FNV-1a of 64 bits: names the spool of a state folder elsewhere.
std::uint64_t hashOf(const std::string& text)
{
    std::uint64_t hash = 0xCBF29CE484222325ULL;
    for (const char character : text)
        hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001B3ULL;
    return hash;
}

[[maybe_unused]] const processLog& madeAtLoad = processLog::instance();

} // namespace

logFiles::logFiles(const configuration& settings)
    : folder(settings.stateFolder), database(folder / "errors.db"), lock(folder / "errors.lock"),
      nextId(folder / "errors.next"), spool(folder / "errors.spool"),
      otherSpool(settings.errorLogSpoolFolder / fmt::format("errors-{:016x}.spool", hashOf(folder.string())))
{
}

processLog& processLog::instance()
{
    static auto* const log = new processLog;
    return *log;
}

processLog::processLog() { watchForks<processLog>(); }

void processLog::beforeFork()
{
    idGuard.lock();
    guard.lock();
    writer.reset();
}

void processLog::afterFork(bool inChild)
{
    if (inChild)
        nextId = endId = blockSize = guessedId = 0;
    guard.unlock();
    idGuard.unlock();
}

} // namespace kest::host
