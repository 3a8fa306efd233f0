#include "platform/host/errorlog/sqlite/opening.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "base/files.h"
#include "base/folders.h"
#include "platform/host/errorlog/sqlite/layout.h"

namespace kest::host
{

namespace
{

constexpr std::string_view newerVersion = "made by a newer version";

/// Drops every object but the table of entries. A trigger doesn't run for that.
bool dropForeign(session& at)
{
    std::string drops;
    for (const char* type : {"trigger", "view", "index", "table"}) {
        const statementOwner found =
            prepare(at.handle(), "SELECT printf('DROP %s IF EXISTS \"%w\";', type, name) FROM sqlite_schema"
                                 " WHERE sql IS NOT NULL AND type = ? AND NOT (type = 'table' AND name = 'entries')");
        sqlite3_bind_text(found.get(), 1, type, -1, SQLITE_STATIC);
        while (sqlite3_step(found.get()) == SQLITE_ROW) {
            drops += columnText(found.get(), 0);
        }
    }
    return at.run(drops.c_str());
}

bool countEntries(session& at)
{
    return at.run("DELETE FROM totals; INSERT INTO totals SELECT count(*), ifnull(sum(length(CAST(body AS BLOB))), 0) "
                  "FROM entries");
}

/// Brings the file to kest's layout, keeping entries that are there: nothing of another layout stays.
bool rebuild(session& at)
{
    if (!at.run("BEGIN IMMEDIATE") || !dropForeign(at)) {
        return false;
    }
    for (const layoutObject& each : layout) {
        const bool isThere = &each == &entriesTable && lookAtLayout(at.handle()) != layoutKind::none;
        if (!isThere && !at.run(each.text)) {
            return false;
        }
    }
    if (lookAtLayout(at.handle()) != layoutKind::own) {
        return at.failed("its layout can't be mended");
    }
    return countEntries(at) && at.run(fmt::format("PRAGMA user_version = {}", layoutVersion).c_str()) &&
           at.run("COMMIT");
}

/// Makes a database, and moves it to its place once it is whole, behind its working files: a name in place is never
/// without them.
bool make(session& at)
{
    const std::filesystem::path fresh = at.file().string() + ".new";
    for (const std::filesystem::path& file : {fresh, at.file()}) {
        for (const char* suffix : {"-wal", "-shm", "-journal"}) {
            unlink((file.string() + suffix).c_str());
        }
    }
    unlink(fresh.c_str());
    if (!openFile(fresh, O_RDWR | O_CREAT | O_EXCL).valid()) {
        return at.failed(std::strerror(errno));
    }
    const bool made = at.open(fresh) && rebuild(at);
    at.close();
    if (!made) {
        return false;
    }
    for (const char* suffix : {"-wal", "-shm", ""}) {
        if (rename((fresh.string() + suffix).c_str(), (at.file().string() + suffix).c_str()) != 0) {
            return at.failed(std::strerror(errno));
        }
    }
    return syncFolder(at.file().parent_path()) == 0 || at.failed(std::strerror(errno));
}

/// Sets the file aside and makes another in its place.
bool setAside(session& at, const char* why, std::string& note)
{
    at.close();
    const int error = setDatabaseAside(at.file());
    note = fmt::format("kest: {} {}; it was set aside as {}.damaged", at.file().string(), why,
                       at.file().filename().string());
    if (error != 0) {
        return at.failed(std::strerror(error));
    }
    return make(at) && at.open(at.file());
}

/// Counts anew when the totals can't be true. Reading all bodies at each opening would take too long.
bool checkTotals(session& at)
{
    const statementOwner statement = prepare(
        at.handle(),
        "SELECT (SELECT count(*) FROM totals) = 1 AND (SELECT entries FROM totals) = (SELECT count(*) FROM entries)"
        " AND (SELECT bytes FROM totals) BETWEEN 0 AND (SELECT page_count FROM pragma_page_count)"
        " * (SELECT page_size FROM pragma_page_size)");
    std::int64_t isTrue = 0;
    if (!at.number(statement, isTrue)) {
        return false;
    }
    return isTrue != 0 || (at.run("BEGIN IMMEDIATE") && countEntries(at) && at.run("COMMIT"));
}

/// Ensures that nothing runs that the file brought along.
bool useOwnLayout(session& at, std::string& note)
{
    const int version = versionOf(at.handle());
    const layoutKind kind = lookAtLayout(at.handle());
    if (version < 0 || kind == layoutKind::unreadable) {
        return at.failed();
    }
    if (version > layoutVersion) {
        return at.failed(newerVersion.data());
    }
    if (kind == layoutKind::foreign) {
        if (!setAside(at, "is not an error log", note)) {
            return false;
        }
    } else if (kind != layoutKind::own || version != layoutVersion) {
        if (!rebuild(at) && (at.busy() || !setAside(at, "has a layout that can't be mended", note))) {
            return false;
        }
    }
    sqlite3_db_config(at.handle(), SQLITE_DBCONFIG_ENABLE_TRIGGER, 1, nullptr);
    return checkTotals(at);
}

/// @return whether only someone owns the file who may have made it: root, this user, or the folder's owner
bool ownerIsTrusted(const std::filesystem::path& file, const struct stat& facts)
{
    struct stat folder {
    };
    return facts.st_uid == 0 || facts.st_uid == geteuid() ||
           (stat(file.parent_path().c_str(), &folder) == 0 && facts.st_uid == folder.st_uid);
}

} // namespace

bool openDatabase(session& to, struct stat& opened, std::string& note)
{
    // Its file is never opened beside SQLite: closing it would drop SQLite's locks.
    const char* const path = to.file().c_str();
    if (access(path, F_OK) != 0 && !make(to)) {
        return false;
    }
    if (stat(path, &opened) != 0) {
        return to.failed(std::strerror(errno));
    }
    const bool isOpen =
        ownerIsTrusted(to.file(), opened) ? to.open(to.file()) : setAside(to, "belongs to another user", note);
    if (!isOpen || !useOwnLayout(to, note)) {
        return false;
    }
    return stat(path, &opened) == 0 || to.failed(std::strerror(errno));
}

bool isNewer(const session& tried) { return tried.problem().ends_with(newerVersion); }

int setDatabaseAside(const std::filesystem::path& file)
{
    int error = 0;
    for (const char* suffix : {"-wal", "-shm", "-journal", ""}) {
        const std::string from = file.string() + suffix;
        const std::string to = file.string() + ".damaged" + suffix;
        if (error == 0 && rename(from.c_str(), to.c_str()) != 0) {
            // an older one's
            error = errno != ENOENT || (unlink(to.c_str()) != 0 && errno != ENOENT) ? errno : 0;
        }
    }
    return error;
}

} // namespace kest::host
