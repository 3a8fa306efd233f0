#include "platform/host/errorlog/store.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <set>
#include <unistd.h>

#include "base/folders.h"
#include "base/quietwrites.h"
#include "platform/host/errorlog/commit.h"
#include "platform/host/errorlog/entry.h"
#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/process.h"
#include "platform/host/errorlog/tell.h"

namespace kest::host
{

namespace
{

#ifdef KEST_HAVE_SQLITE
constexpr bool hasDatabase = true;
#else
// the spool file is the store
constexpr bool hasDatabase = false;
#endif

logLimits limitsOf(const configuration& settings) { return {settings.errorLogMaxEntries, settings.errorLogMaxBytes}; }

constexpr std::chrono::milliseconds commitPatience{5000};
// of it for each of two spools
constexpr std::chrono::milliseconds spoolShare{500};
constexpr std::chrono::milliseconds firstPause{5000};
constexpr std::chrono::milliseconds longestPause{60000};

/// The log of the current configuration. The caller holds the guard.
processLog& currentLog(const configuration& settings)
{
    processLog& log = theLog();
    if (log.settings != &settings) {
        // until all is there
        log.settings = nullptr;
        log.writer.reset();
        log.waitsAgainAt = {};
        log.lastPause = std::chrono::milliseconds(0);
        log.places = spoolPlaces(settings);
        log.files.emplace(settings);
        log.settings = &settings;
    }
    return log;
}

/// An entry on its way into the log.
struct commit {
    storedEntry stored;
    patience wait{commitPatience}; ///< for all that it does
    bool isDurable = false;
    bool isTold = true; ///< standard error has to take it, too
    std::string problem; ///< why the database did not take it
    std::string notes; ///< further lines for standard error
    int spoolError = 0;
    /// Of the spool that took it, where that is not the one configured.
    const std::filesystem::path* otherFolder = nullptr;
};

void note(std::string& notes, const std::string& line)
{
    if (!line.empty()) {
        notes += line + '\n';
    }
}

/// Opens the database unless it is open and still the one at its path.
bool openWriter(processLog& log, const patience& wait, openedDatabase& opened)
{
    if (log.writer != nullptr && log.writer->replaced()) {
        log.writer.reset();
    }
    if (hasDatabase && log.writer == nullptr) {
        int error = makeFolders(log.files->folder);
        if (error == 0) {
            const patientLock lock(log.files->lock, wait);
            error = lock.error();
            if (error == 0) {
                opened = database::open(log.files->database, wait);
            }
        }
        if (error != 0) {
            opened.problem = fmt::format("{}: {}", log.files->folder.string(), std::strerror(error));
            opened.busy = error == ETIMEDOUT;
        }
        log.writer = std::move(opened.value);
        if (log.writer != nullptr) {
            // now, while the disk has room
            log.places.front().lines.reserve();
        }
    }
    return log.writer != nullptr;
}

/// @return whether a place's spool may hold entries, and may be trusted
bool holdsEntries(const processLog& log, const spoolPlace& place)
{
    return place.lines.pending() && (&place == &log.places.front() || preparePrivateFolder(place.folder, false) == 0);
}

/// Adds lines of a spool to the store.
bool takeLines(processLog& log, std::span<const std::string> lines, const logLimits& limits, std::string& notes)
{
    std::vector<storedEntry> entries;
    std::vector<std::string> known;
    bool done = hasDatabase || log.places.front().lines.read(known) == 0;
    for (const std::string& line : lines) {
        const auto facts = factsOfLine(line);
        if (!facts) {
            note(notes, "kest: a damaged line of the error log's spool: " + quotedText(cleanText(line)));
        } else if (hasDatabase) {
            entries.push_back({facts->plid, facts->committedMs, facts->severity, facts->creator, line});
        } else if (std::ranges::find(known, line) == known.end()) {
            done = done && log.places.front().lines.append(line, limits, patience()) == 0;
        }
    }
    return done && (!hasDatabase || log.writer->add(entries, true, limits, patience()));
}

/// Moves what waits in the spools into the store, without waiting for anybody. Killed in between, an entry is in both,
/// and is not taken twice. What can't be taken now is taken by a later commit.
void takeIn(processLog& log, const logLimits& limits, commit& now) noexcept
{
    try {
        for (spoolPlace& place : log.places) {
            if ((hasDatabase || &place != &log.places.front()) && holdsEntries(log, place)) {
                place.lines.take(
                    [&](std::span<const std::string> lines) { return takeLines(log, lines, limits, now.notes); },
                    now.wait.less(commitPatience / 2));
            }
        }
    } catch (const std::exception&) {
        // no memory; a transaction may be open
        log.writer.reset();
    }
}

/// Remembers how it went, so that commits don't wait one after the other for a database that stays busy.
void backOff(processLog& log, bool busy)
{
    if (!busy) {
        log.lastPause = std::chrono::milliseconds(0);
        log.waitsAgainAt = {};
    } else if (waitingNow() >= log.waitsAgainAt) {
        log.lastPause = std::clamp(2 * log.lastPause, firstPause, longestPause);
        log.waitsAgainAt = waitingNow() + log.lastPause;
    }
}

/// Adds an entry to the database, behind what waits in the spools.
void addToDatabase(processLog& log, const logLimits& limits, commit& now)
{
    const patience wait = waitingNow() < log.waitsAgainAt ? patience() : now.wait.less(2 * spoolShare);
    bool again = true;
    for (int attempt = 0; attempt < 2 && again; ++attempt) {
        openedDatabase opened;
        const bool open = openWriter(log, wait, opened);
        bool busy = opened.busy;
        again = false;
        note(now.notes, opened.note);
        if (open) {
            takeIn(log, limits, now);
        }
        if (open && log.writer != nullptr) {
            now.isDurable = log.writer->add({&now.stored, 1}, false, limits, wait);
            busy = !now.isDurable && log.writer->busy();
            again = !now.isDurable && !busy && log.writer->replaced();
            now.problem = now.isDurable ? "" : log.writer->problem();
            if (!now.isDurable && !busy) {
                log.writer.reset();
            }
        } else {
            now.problem = opened.problem;
        }
        backOff(log, busy);
    }
    now.isTold = !now.isDurable;
}

/// Adds an entry to the first spool that takes it.
void addToSpool(processLog& log, const configuration& settings, const logLimits& limits, commit& now)
{
    int error = makeFolders(settings.stateFolder);
    if (error == 0) {
        error = log.places.front().lines.append(now.stored.line, limits, now.wait.less(spoolShare));
    }
    if (error == 0) {
        now.isDurable = true;
        // else it is the store
        now.isTold = hasDatabase;
        if (!hasDatabase) {
            takeIn(log, limits, now);
        }
    } else if (now.problem.empty()) {
        now.problem = fmt::format("{}: {}", settings.stateFolder.string(), std::strerror(error));
    }
    for (std::size_t index = 1; !now.isDurable && index < log.places.size(); ++index) {
        spoolPlace& place = log.places[index];
        const int trouble = preparePrivateFolder(place.folder, true);
        error = trouble == 0 ? place.lines.append(now.stored.line, limits, now.wait) : trouble;
        now.isDurable = error == 0;
        now.otherFolder = now.isDurable && index > 1 ? &place.folder : nullptr;
        now.spoolError = index == 1 || error == 0 ? error : now.spoolError;
    }
}

std::atomic<void (*)(const std::string& problem)> spoolTeller{nullptr}; ///< see tellSpooled()

/// @return whether somebody was told of an entry that the spool has
bool tellPeople(const commit& now) noexcept
{
    const auto teller = spoolTeller.load();
    if (teller == nullptr || !now.isDurable) {
        return false;
    }
    try {
        teller(cleanText(now.problem));
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// Writes an entry to standard error, and why it had to. Without memory, the entry alone.
void tellEntry(const commit& now) noexcept
{
    try {
        // more fields follow
        std::string told(now.stored.line.substr(0, now.stored.line.size() - 1));
        told += ",\"storeError\":" + quotedText(cleanText(now.problem));
        if (!now.isDurable) {
            told += ",\"spoolError\":" + quotedText(std::strerror(now.spoolError));
        }
        if (now.otherFolder != nullptr) {
            told += ",\"spoolFolder\":" + quotedText(cleanText(now.otherFolder->string()));
        }
        tellStandardError(told + "}\n");
    } catch (const std::exception&) {
        tellStandardError(now.stored.line);
        tellStandardError("\n");
    }
}

/// Stores an entry whose line is formed. Where memory ends on the way it goes on with what needs none.
void storeLine(commit& now) noexcept
{
    const quietWrites quiet;
    const std::scoped_lock lock(theLog().guard);
    try {
        const configuration& settings = currentConfiguration();
        const logLimits limits = limitsOf(settings);
        processLog& log = currentLog(settings);
        try {
            addToDatabase(log, limits, now);
        } catch (const std::exception&) {
            if (!now.isDurable) {
                log.writer.reset();
            }
        }
        if (!now.isDurable) {
            addToSpool(log, settings, limits, now);
        }
    } catch (const std::exception&) {
        now.problem.clear();
    }
}

bool matches(const loggedEntry& entry, const entryFilter& filter)
{
    return entry.plid == filter.plid.value_or(entry.plid) &&
           entry.committedMs >= filter.sinceMs.value_or(entry.committedMs) &&
           entry.severity == filter.severity.value_or(entry.severity) &&
           entry.creator == filter.component.value_or(entry.creator);
}

/// Empties the database, or sets it aside when it is damaged.
std::string clearDatabase(processLog& log)
{
    const std::filesystem::path& file = log.files->database;
    openedDatabase opened;
    // who may not look does not know that there is none
    if (access(file.c_str(), F_OK) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? std::string()
                                                   : fmt::format("{}: {}", file.string(), std::strerror(errno));
    }
    const patience wait(commitPatience);
    bool done = openWriter(log, wait, opened) && log.writer->clear(wait);
    // its layout was changed since it was opened
    if (!done && log.writer != nullptr && log.writer->replaced()) {
        done = openWriter(log, wait, opened) && log.writer->clear(wait);
    }
    if (!done && log.writer != nullptr) {
        opened.problem = log.writer->problem();
    }
    bool damaged = false;
    if (!done) {
        log.writer.reset();
    }
    if (!done && (opened.newer || (!checkDatabase(file, damaged).empty() && damaged))) {
        const patientLock lock(log.files->lock, wait);
        const int error = lock.error() == 0 ? setDatabaseAside(file) : lock.error();
        opened.problem = error == 0 ? "" : fmt::format("{}: {}", file.string(), std::strerror(error));
        done = error == 0;
    }
    return done ? "" : opened.problem;
}

} // namespace

void storeEntry(const ErrlEntry& entry) noexcept
{
    const loggedEntry& facts = entry.state()->facts;
    commit now;
    std::string whole;
    reducedLine reduced;
    now.stored = {facts.plid, facts.committedMs, facts.severity, facts.creator, {}};
    try {
        whole = toLine(describeEntry(entry));
        now.stored.line = whole;
    } catch (const std::exception&) {
        now.stored.line = toReducedLine(facts, entry.state()->first.words.src, reduced);
    }
    storeLine(now);
    if (now.isTold && !tellPeople(now)) {
        tellEntry(now);
    }
    if (!now.notes.empty()) {
        tellStandardError(now.notes);
    }
}

void tellSpooled(void (*teller)(const std::string& problem)) { spoolTeller = teller; }

entryList listEntries(const entryFilter& filter)
{
    const configuration& settings = currentConfiguration();
    const std::scoped_lock lock(theLog().guard);
    processLog& log = currentLog(settings);
    entryList list;
    std::vector<std::string>
        // read first: an entry that moves into the database meanwhile is then seen twice, not never
        lines;
    for (const spoolPlace& place : log.places) {
        const bool reads = &place == &log.places.front() || holdsEntries(log, place);
        const int error = reads ? place.lines.read(lines) : 0;
        if (error != 0) {
            list.error = fmt::format("the error log's spool: {}", std::strerror(error));
        }
    }
    readDatabase(log.files->database, filter, list.entries, list.error);

    std::set<std::pair<std::uint32_t, std::int64_t>> stored;
    for (const loggedEntry& entry : list.entries) {
        stored.emplace(entry.plid, entry.committedMs);
    }
    std::uint64_t damaged = 0;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        auto entry = fromLine(*line);
        if (!entry) {
            ++damaged;
        } else if (matches(*entry, filter) && !stored.contains({entry->plid, entry->committedMs})) {
            list.entries.push_back(std::move(*entry));
        }
    }
    if (damaged > 0) {
        list.error = fmt::format("the error log's spool: {} lines are damaged", damaged);
    }
    std::ranges::stable_sort(list.entries, std::ranges::greater(), &loggedEntry::committedMs);
    if (filter.limit > 0 && list.entries.size() > filter.limit) {
        list.entries.resize(filter.limit);
    }
    return list;
}

std::string clearEntries()
{
    const configuration& settings = currentConfiguration();
    const std::scoped_lock lock(theLog().guard);
    processLog& log = currentLog(settings);
    std::string problem = clearDatabase(log);
    for (spoolPlace& place : log.places) {
        const int error = holdsEntries(log, place) ? place.lines.clear() : 0;
        if (error != 0 && problem.empty()) {
            problem = fmt::format("the error log's spool: {}", std::strerror(error));
        }
    }
    return problem;
}

std::string deviceOf(const loggedEntry& entry)
{
    // library, tools
    constexpr std::array components{std::uint16_t{0x1300}, std::uint16_t{0x1700}};
    constexpr std::uint8_t firstFailureData = 6;
    // device text, device path
    constexpr std::array kinds{std::uint8_t{7}, std::uint8_t{5}, firstFailureData};
    std::string device;
    for (const std::uint8_t kind : kinds) {
        const auto found = std::ranges::find_if(entry.userDetails, [&](const loggedDetails& details) {
            return std::ranges::find(components, details.component) != components.end() && details.subsection == kind;
        });
        if (device.empty() && found != entry.userDetails.end()) {
            const std::string text(found->bytes.begin(), found->bytes.end());
            device = kind == firstFailureData ? deviceOfRecord(text) : text.substr(0, text.find('\0'));
        }
    }
    return cleanText(device);
}

std::string checkStore()
{
    const logFiles files(currentConfiguration());
    const std::scoped_lock lock(theLog().guard);
    bool damaged = false;
    return checkDatabase(files.database, damaged);
}

} // namespace kest::host
