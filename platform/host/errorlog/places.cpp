#include "platform/host/errorlog/places.h"

#include <cerrno>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/folders.h"
#include "base/hash.h"

namespace kest::host
{

namespace
{

// Others can make a folder of that name first: then the next is tried.
constexpr int privatePlaces = 8;

/// @return 0 when a folder is there, this user's, and nobody else may write to it
int checkPrivate(const std::filesystem::path& folder)
{
    struct stat facts {
    };
    if (lstat(folder.c_str(), &facts) != 0) {
        return errno;
    }
    const bool isPrivate = S_ISDIR(facts.st_mode) && facts.st_uid == geteuid() && (facts.st_mode & 022) == 0;
    return isPrivate ? 0 : EPERM;
}

int makePrivate(const std::filesystem::path& folder)
{
    if (const int error = makeFolders(folder.parent_path()); error != 0) {
        return error;
    }
    int error = 0;
    if (mkdir(folder.c_str(), 0700) == 0) {
        error = syncFolder(folder.parent_path());
    } else if (errno != EEXIST) {
        error = errno;
    }
    // the folder around it can't be read
    if (error == EACCES && access(folder.c_str(), F_OK) == 0) {
        error = 0;
    }
    return error != 0 ? error : checkPrivate(folder);
}

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
    places.push_back({placeKind::stateFolder, files.folder, spool(files.spool, files.lock)});
    for (int number = 0; number < privatePlaces; ++number) {
        std::filesystem::path folder = settings.errorLogSpoolFolder;
        if (number > 0) {
            folder += fmt::format(".{}", number);
        }
        places.push_back(
            {number == 0 ? placeKind::configured : placeKind::substitute, folder,
             spool(folder / (files.otherName.string() + ".spool"), folder / (files.otherName.string() + ".lock"))});
    }
    return places;
}

int preparePlace(const spoolPlace& place)
{
    return place.kind == placeKind::stateFolder ? makeFolders(place.folder) : makePrivate(place.folder);
}

bool isTrustedPlace(const spoolPlace& place)
{
    return place.kind == placeKind::stateFolder || checkPrivate(place.folder) == 0;
}

bool holdsEntries(const spoolPlace& place) { return place.lines.pending() && isTrustedPlace(place); }

} // namespace kest::host
