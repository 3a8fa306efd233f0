#include "platform/host/errorlog/store.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/host/errorlog/commit.h"
#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/process.h"
#include "platform/host/files/files.h"

namespace kest::host
{

namespace
{

#ifdef KEST_HAVE_SQLITE
constexpr bool hasDatabase = true;
#else
constexpr bool hasDatabase = false; // the spool file is the store
#endif

logLimits limitsOf(const configuration& settings) { return {settings.errorLogMaxEntries, settings.errorLogMaxBytes}; }

/// The log of the current configuration. The caller holds the guard.
processLog& currentLog(const configuration& settings)
{
    processLog& log = theLog();
    if (log.settings != &settings) {
        const logFiles files(settings);
        auto           otherLock = files.otherSpool;
        otherLock.replace_extension(".lock");
        log.writer.reset();
        log.spools   = {spool(files.spool, files.lock), spool(files.otherSpool, otherLock)};
        log.settings = &settings;
    }
    return log;
}

/// Standard error takes what else would be lost. One line, so that a journal keeps it together.
void tellStandardError(const std::string& line)
{
    [[maybe_unused]] const int ignored = writeAll(STDERR_FILENO, line + '\n');
}

/// Opens the database unless it is open and still the one at its path.
bool openWriter(processLog& log, const configuration& settings, std::string& problem)
{
    const logFiles files(settings);
    if (log.writer != nullptr && log.writer->replaced())
        log.writer.reset();
    if (hasDatabase && log.writer == nullptr) {
        int error = makeFolders(files.folder);
        if (error == 0) {
            const fileLock lock(files.lock);
            error = lock.error();
            if (error == 0)
                log.writer = database::open(files.database, problem);
        }
        if (error != 0)
            problem = fmt::format("{}: {}", files.folder.string(), std::strerror(error));
        if (log.writer != nullptr)
            log.spools.front().reserve(); // now, while the disk has room
    }
    return log.writer != nullptr;
}

/// Looks at the other spool's folder, and makes it when asked to. It may be among everybody's, as in /var/tmp: one that is not this user's
/// alone is not used. @return 0 or an `errno` value
int preparePrivateFolder(const std::filesystem::path& folder, bool make)
{
    int         error = make ? makeFolders(folder.parent_path()) : 0;
    struct stat facts {
    };
    if (make && error == 0 && mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        error = errno;
    if (error == 0 && lstat(folder.c_str(), &facts) != 0)
        error = errno;
    if (error == 0 && (!S_ISDIR(facts.st_mode) || facts.st_uid != geteuid() || (facts.st_mode & 022) != 0))
        error = EPERM;
    return error;
}

/// The spools that may hold entries now.
std::vector<spool*> pendingSpools(processLog& log, const configuration& settings)
{
    std::vector<spool*> pending;
    if (hasDatabase && log.spools.front().pending())
        pending.push_back(&log.spools.front());
    if (log.spools.back().pending() && preparePrivateFolder(settings.errorLogSpoolFolder, false) == 0)
        pending.push_back(&log.spools.back());
    return pending;
}

/// Moves what a spool holds into the store. Killed in between, an entry is in both, and is not taken twice.
void takeIn(processLog& log, spool& from, const logLimits& limits)
{
    from.take([&](const std::vector<std::string>& lines) {
        std::vector<storedEntry> entries;
        std::vector<std::string> known;
        bool                     done = hasDatabase || log.spools.front().read(known) == 0;
        for (const std::string& line : lines) {
            auto entry = fromLine(line);
            if (!entry)
                tellStandardError("kest: a damaged line of the error log's spool: " +
                                  nlohmann::json(cleanText(line)).dump());
            else if (hasDatabase)
                entries.push_back({std::move(*entry), line});
            else if (std::ranges::find(known, line) == known.end())
                done = done && log.spools.front().append(line, limits) == 0;
        }
        return done && (!hasDatabase || log.writer->add(entries, true, limits));
    });
}

/// Adds an entry to the database, behind what waits in the spools.
bool addToDatabase(processLog& log, const configuration& settings, const storedEntry& stored, std::string& problem)
{
    bool done = openWriter(log, settings, problem);
    if (done) {
        for (spool* each : pendingSpools(log, settings))
            takeIn(log, *each, limitsOf(settings));
        done = log.writer->add({&stored, 1}, false, limitsOf(settings));
        if (!done) {
            problem = log.writer->problem();
            log.writer.reset();
        }
    }
    return done;
}

/// Adds an entry to the first spool that takes it, and tells standard error unless that spool is the store itself.
void addToSpool(processLog& log, const configuration& settings, const storedEntry& stored, std::string problem)
{
    const logLimits limits = limitsOf(settings);
    int             error  = makeFolders(settings.stateFolder);
    if (error == 0)
        error = log.spools.front().append(stored.line, limits);
    const bool isStored = error == 0 && !hasDatabase;
    if (error != 0) {
        if (problem.empty())
            problem = fmt::format("{}: {}", settings.stateFolder.string(), std::strerror(error));
        error = preparePrivateFolder(settings.errorLogSpoolFolder, true);
        if (error == 0)
            error = log.spools.back().append(stored.line, limits);
    } else if (isStored) {
        for (spool* each : pendingSpools(log, settings))
            takeIn(log, *each, limits);
    }
    if (!isStored) {
        nlohmann::json told = toJson(stored.entry);
        told["storeError"]  = cleanText(problem);
        if (error != 0)
            told["spoolError"] = std::strerror(error);
        tellStandardError(told.dump(-1, ' ', true));
    }
}

bool matches(const loggedEntry& entry, const entryFilter& filter)
{
    return entry.plid == filter.plid.value_or(entry.plid) &&
           entry.committedMs >= filter.sinceMs.value_or(entry.committedMs) &&
           entry.severity == filter.severity.value_or(entry.severity) &&
           entry.creator == filter.component.value_or(entry.creator);
}

/// Lets a damaged database be forgotten by its name, with the files that belong to it. @return 0 or an `errno` value
int moveAside(const std::filesystem::path& database)
{
    int error = 0;
    for (const char* suffix : {"-wal", "-shm", ""}) {
        const std::string from = database.string() + suffix;
        const std::string to   = database.string() + ".damaged" + suffix;
        if (error == 0 && rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT)
            error = errno;
    }
    return error;
}

/// Empties the database, or sets it aside when it is damaged.
std::string clearDatabase(processLog& log, const configuration& settings)
{
    const std::filesystem::path file = logFiles(settings).database;
    std::string                 problem;
    if (access(file.c_str(), F_OK) == 0) {
        bool done = openWriter(log, settings, problem);
        if (done && !log.writer->clear()) {
            problem = log.writer->problem();
            done    = false;
        }
        bool damaged = false;
        if (!done)
            log.writer.reset();
        if (!done && !checkDatabase(file, damaged).empty() && damaged) {
            const fileLock lock(logFiles(settings).lock);
            const int      error = lock.error() == 0 ? moveAside(file) : lock.error();
            problem              = error == 0 ? "" : fmt::format("{}: {}", file.string(), std::strerror(error));
        }
    }
    return problem;
}

} // namespace

void storeEntry(const loggedEntry& entry) noexcept
{
    try {
        const storedEntry      stored{entry, toLine(entry)};
        const configuration&   settings = currentConfiguration();
        const std::scoped_lock lock(theLog().guard);
        processLog&            log = currentLog(settings);
        std::string            problem;
        if (!addToDatabase(log, settings, stored, problem))
            addToSpool(log, settings, stored, problem);
    } catch (const std::exception&) {
        reportLostEntry();
    }
}

void reportLostEntry() noexcept
{
    static constexpr char       message[] = "kest: an error log entry is lost: no memory\n";
    [[maybe_unused]] const auto ignored   = write(STDERR_FILENO, message, sizeof message - 1);
}

entryList listEntries(const entryFilter& filter)
{
    const configuration&   settings = currentConfiguration();
    const std::scoped_lock lock(theLog().guard);
    processLog&            log = currentLog(settings);
    entryList              list;
    std::vector<std::string>
        lines; // read first: an entry that moves into the database meanwhile is then seen twice, not never
    for (const spool& each : log.spools) {
        const bool own = &each == &log.spools.front() || preparePrivateFolder(settings.errorLogSpoolFolder, false) == 0;
        const int  error = own ? each.read(lines) : 0;
        if (error != 0)
            list.error = fmt::format("the error log's spool: {}", std::strerror(error));
    }
    readDatabase(logFiles(settings).database, filter, list.entries, list.error);

    std::set<std::pair<std::uint32_t, std::int64_t>> stored;
    for (const loggedEntry& entry : list.entries)
        stored.emplace(entry.plid, entry.committedMs);
    std::uint64_t damaged = 0;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        auto entry = fromLine(*line);
        if (!entry)
            ++damaged;
        else if (matches(*entry, filter) && !stored.contains({entry->plid, entry->committedMs}))
            list.entries.push_back(std::move(*entry));
    }
    if (damaged > 0)
        list.error = fmt::format("the error log's spool: {} lines are damaged", damaged);
    std::ranges::stable_sort(list.entries, std::ranges::greater(), &loggedEntry::committedMs);
    if (filter.limit > 0 && list.entries.size() > filter.limit)
        list.entries.resize(filter.limit);
    return list;
}

std::string clearEntries()
{
    const configuration&   settings = currentConfiguration();
    const std::scoped_lock lock(theLog().guard);
    processLog&            log     = currentLog(settings);
    std::string            problem = clearDatabase(log, settings);
    for (spool& each : log.spools) {
        const int error = each.pending() ? each.take([](const auto&) { return true; }) : 0;
        if (error != 0 && problem.empty())
            problem = fmt::format("the error log's spool: {}", std::strerror(error));
    }
    return problem;
}

std::string checkStore()
{
    const logFiles         files(currentConfiguration());
    const std::scoped_lock lock(theLog().guard);
    bool                   damaged = false;
    return checkDatabase(files.database, damaged);
}

} // namespace kest::host
