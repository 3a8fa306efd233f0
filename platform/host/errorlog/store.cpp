#include "platform/host/errorlog/store.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/host/errorlog/process.h"

namespace kest::host
{

entryList listEntries(const entryFilter& filter)
{
    const configuration& settings = currentConfiguration();
    const std::scoped_lock lock(theLog().guard);
    const logStorage& storage = theLog().storageOf(settings);
    entryList list;
    // Read first: an entry that moves into the store meanwhile is then seen twice, not never.
    std::vector<std::string> lines;
    for (const spoolPlace& place : storage.spools) {
        const bool reads = place.kind == placeKind::stateFolder || holdsEntries(place);
        if (const int error = reads ? place.lines.read(lines) : 0; error != 0) {
            list.error = spoolProblem(error);
        }
    }
    storage.store->read(filter, list.entries, list.error);

    std::set<std::pair<std::uint32_t, std::int64_t>> stored;
    for (const loggedEntry& entry : list.entries) {
        stored.emplace(entry.plid, entry.committedMs);
    }
    std::vector<loggedEntry> spooled;
    if (const std::uint64_t damaged = entriesOf(lines, filter, spooled); damaged > 0) {
        list.error = damagedLines(damaged);
    }
    for (loggedEntry& entry : spooled) {
        if (!stored.contains({entry.plid, entry.committedMs})) {
            list.entries.push_back(std::move(entry));
        }
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
    logStorage& storage = theLog().storageOf(settings);
    std::string problem = storage.store->clear(patience(commitPatience));
    for (spoolPlace& place : storage.spools) {
        const int error = holdsEntries(place) ? place.lines.clear() : 0;
        if (error != 0 && problem.empty()) {
            problem = spoolProblem(error);
        }
    }
    return problem;
}

std::string checkStore()
{
    const configuration& settings = currentConfiguration();
    const std::scoped_lock lock(theLog().guard);
    return theLog().storageOf(settings).store->check();
}

} // namespace kest::host
