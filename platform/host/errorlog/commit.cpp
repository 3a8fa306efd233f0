#include "platform/host/errorlog/commit.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fmt/format.h>

#include "base/quietwrites.h"
#include "platform/host/errorlog/journal.h"
#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/process.h"
#include "platform/host/errorlog/tell.h"
#include "platform/host/errorlog/text.h"
#include "platform/host/json/quoted.h"

namespace kest::host
{

namespace
{

/// An entry on its way into the log.
struct pendingEntry {
    entryRow row;
    patience wait{commitPatience}; ///< for all that is done
    bool isStored = false;
    bool isSpooled = false;
    std::string problem; ///< why the store did not take it
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

/// Adds lines of a spool to the store.
bool takeLines(entryStore& store, std::span<const std::string_view> lines, std::string& notes)
{
    std::vector<entryRow> rows;
    for (const std::string_view line : lines) {
        if (const auto keys = keysOfLine(line)) {
            rows.push_back({*keys, line});
        } else {
            note(notes, "kest: a damaged line of the error log's spool: " + quotedText(cleanText(line)));
        }
    }
    return store.add(rows, true, patience());
}

constexpr auto atOnce = std::chrono::steady_clock::time_point::min();

/// Moves the entries that wait in the spools into the store, without waiting for others. When the process is killed in
/// between, an entry is in both and is not taken twice. Lines that can't be taken now are taken by a later commit.
void takeIn(logStorage& storage, pendingEntry& now) noexcept
{
    const bool looksElsewhere = waitingNow() >= storage.looksElsewhereAt;
    if (looksElsewhere) {
        storage.looksElsewhereAt = waitingNow() + elsewhereInterval;
    }
    try {
        for (spoolPlace& place : storage.spools) {
            const bool isOwn = place.kind == placeKind::stateFolder;
            if ((isOwn || looksElsewhere) && holdsEntries(place)) {
                // some may have to wait for the next commit
                storage.looksElsewhereAt = atOnce;
                place.lines.take(
                    [&](std::span<const std::string_view> lines) {
                        return takeLines(*storage.store, lines, now.notes);
                    },
                    now.wait.less(commitPatience / 2));
            }
        }
    } catch (const std::exception&) {
        // no memory; a transaction may be open
        storage.store->close();
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

/// Adds an entry to the store, behind the entries that wait in the spools.
/// @return whether another try may help: the store was replaced meanwhile
bool addToStore(processLog& log, logStorage& storage, const patience& wait, pendingEntry& now)
{
    entryStore& store = *storage.store;
    storage.looksElsewhereAt = store.isOpen() ? storage.looksElsewhereAt : atOnce;
    const storeOpening opening = store.open(wait);
    note(now.notes, opening.note);
    if (opening.isOpen) {
        takeIn(storage, now);
    }
    if (!opening.isOpen || !store.isOpen()) {
        now.problem = opening.problem;
        backOff(log, opening.busy);
        return false;
    }
    now.isStored = store.add({&now.row, 1}, false, wait);
    if (now.isStored) {
        now.problem.clear();
        backOff(log, false);
        return false;
    }
    const bool busy = store.busy();
    const bool replaced = store.replaced();
    now.problem = store.problem();
    if (!busy) {
        store.close();
    }
    backOff(log, busy);
    return !busy && replaced;
}

/// Adds an entry to the first spool that takes it.
void addToSpool(logStorage& storage, pendingEntry& now)
{
    for (spoolPlace& place : storage.spools) {
        const bool isOwn = place.kind == placeKind::stateFolder;
        int error = preparePlace(place);
        if (error == 0) {
            error = place.lines.append(now.row.line, storage.limits, isOwn ? now.wait.less(spoolShare) : now.wait);
        }
        if (error == 0) {
            now.isSpooled = true;
            storage.looksElsewhereAt = atOnce;
            now.otherFolder = place.kind == placeKind::substitute ? &place.folder : nullptr;
            return;
        }
        if (isOwn && now.problem.empty()) {
            now.problem = fmt::format("{}: {}", place.folder.string(), std::strerror(error));
        } else if (place.kind == placeKind::configured) {
            now.spoolError = error;
        }
    }
}

/// Stores an entry whose line is formed. Where memory ends on the way it goes on with what needs none.
void storeRow(pendingEntry& now) noexcept
{
    const quietWrites quiet;
    processLog& log = theLog();
    const std::scoped_lock lock(log.guard);
    try {
        logStorage& storage = log.storageOf(currentConfiguration());
        try {
            const patience wait = waitingNow() < log.waitsAgainAt ? patience() : now.wait.less(2 * spoolShare);
            if (addToStore(log, storage, wait, now)) {
                addToStore(log, storage, wait, now);
            }
        } catch (const std::exception&) {
            if (!now.isStored) {
                storage.store->close();
            }
        }
        if (!now.isStored) {
            addToSpool(storage, now);
        }
    } catch (const std::exception&) {
        now.problem.clear();
    }
}

std::atomic<void (*)(const std::string& problem)> spoolTeller{nullptr}; ///< see tellSpooled()

/// @return whether people were told of an entry that a spool has
bool tellPeople(const pendingEntry& now) noexcept
{
    const auto teller = spoolTeller.load();
    if (teller == nullptr || !now.isSpooled) {
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
void tellEntry(const pendingEntry& now) noexcept
{
    try {
        // more fields follow
        std::string told(now.row.line.substr(0, now.row.line.size() - 1));
        told += ",\"store_error\":" + quotedText(cleanText(now.problem));
        if (!now.isSpooled) {
            told += ",\"spool_error\":" + quotedText(std::strerror(now.spoolError));
        }
        if (now.otherFolder != nullptr) {
            told += ",\"spool_folder\":" + quotedText(cleanText(now.otherFolder->string()));
        }
        tellStandardError(told + "}\n");
    } catch (const std::exception&) {
        tellStandardError(now.row.line);
        tellStandardError("\n");
    }
}

void storeLine(const loggedEntry& facts, std::string_view line) noexcept
{
    pendingEntry now;
    now.row = {keysOf(facts), line};
    storeRow(now);
    if (!now.isStored && !tellPeople(now)) {
        tellEntry(now);
    }
    if (!now.notes.empty()) {
        tellStandardError(now.notes);
    }
}

} // namespace

void storeEntry(const loggedEntry& facts, std::span<const loggedSrc* const> srcs) noexcept
{
    std::string line;
    try {
        line = toLine(facts, srcs);
    } catch (const std::exception&) {
        storeReducedEntry(facts, *srcs.front());
        return;
    }
    storeLine(facts, line);
    tellJournal(facts, *srcs.front());
}

void storeReducedEntry(const loggedEntry& facts, const loggedSrc& first) noexcept
{
    reducedLine room;
    storeLine(facts, toReducedLine(facts, first, room));
    tellJournal(facts, first);
}

void tellSpooled(void (*teller)(const std::string& problem)) { spoolTeller = teller; }

} // namespace kest::host
