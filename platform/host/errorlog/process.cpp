#include "platform/host/errorlog/process.h"

#include <fmt/format.h>
#include <pthread.h>

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

void beforeFork()
{
    theLog().idGuard.lock();
    theLog().guard.lock();
    theLog().writer.reset();
}

void afterForkInParent()
{
    theLog().guard.unlock();
    theLog().idGuard.unlock();
}

void afterForkInChild()
{
    theLog().nextId    = 0;
    theLog().endId     = 0;
    theLog().blockSize = 0;
    theLog().guessedId = 0;
    afterForkInParent();
}

} // namespace

logFiles::logFiles(const configuration& settings)
    : folder(settings.stateFolder), database(folder / "errors.db"), lock(folder / "errors.lock"),
      nextId(folder / "errors.next"), spool(folder / "errors.spool"),
      otherSpool(settings.errorLogSpoolFolder / fmt::format("errors-{:016x}.spool", hashOf(folder.string())))
{
}

processLog& theLog()
{
    static processLog* const log = [] {
        auto* made = new processLog;
        pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
        return made;
    }();
    return *log;
}

} // namespace kest::host
