#include "platform/host/errorlog/process.h"

#include <cerrno>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/folders.h"
#include "base/fork.h"
#include "base/hash.h"

namespace kest::host
{

namespace
{

// others can make a folder of that name first: then the next is tried
constexpr int privatePlaces = 8;

[[maybe_unused]] const processLog& madeAtLoad = processLog::instance();

} // namespace

logFiles::logFiles(const configuration& settings)
    : folder(settings.stateFolder), database(folder / "errors.db"), lock(folder / "errors.lock"),
      nextId(folder / "errors.next"), spool(folder / "errors.spool"),
      otherName(fmt::format("errors-{:016x}", fnvHash64(folder.string())))
{
}

std::vector<spoolPlace> spoolPlaces(const configuration& settings)
{
    const logFiles files(settings);
    std::vector<spoolPlace> places;
    places.push_back({files.folder, spool(files.spool, files.lock)});
    for (int number = 0; number < privatePlaces; ++number) {
        std::filesystem::path folder = settings.errorLogSpoolFolder;
        if (number > 0) {
            folder += fmt::format(".{}", number);
        }
        places.push_back({folder, spool(folder / (files.otherName.string() + ".spool"),
                                        folder / (files.otherName.string() + ".lock"))});
    }
    return places;
}

int preparePrivateFolder(const std::filesystem::path& folder, bool make)
{
    int error = make ? makeFolders(folder.parent_path()) : 0;
    struct stat facts {
    };
    if (make && error == 0) {
        if (mkdir(folder.c_str(), 0700) == 0) {
            error = syncFolder(folder.parent_path());
        } else if (errno != EEXIST) {
            error = errno;
        }
        // around it nobody may read
        error = error == EACCES && access(folder.c_str(), F_OK) == 0 ? 0 : error;
    }
    if (error == 0 && lstat(folder.c_str(), &facts) != 0) {
        error = errno;
    }
    if (error == 0 && (!S_ISDIR(facts.st_mode) || facts.st_uid != geteuid() || (facts.st_mode & 022) != 0)) {
        error = EPERM;
    }
    return error;
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
    if (inChild) {
        nextId = endId = blockSize = guessedId = 0;
    }
    guard.unlock();
    idGuard.unlock();
}

} // namespace kest::host
