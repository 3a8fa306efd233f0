#include "platform/host/errorlog/record.h"

namespace kest::host
{

entryKeys keysOf(const loggedEntry& entry)
{
    return {.plid = entry.plid, .committedMs = entry.committedMs, .severity = entry.severity, .creator = entry.creator};
}

bool matches(const loggedEntry& entry, const entryFilter& filter)
{
    return entry.plid == filter.plid.value_or(entry.plid) &&
           entry.committedMs >= filter.sinceMs.value_or(entry.committedMs) &&
           entry.severity == filter.severity.value_or(entry.severity) &&
           entry.creator == filter.component.value_or(entry.creator);
}

} // namespace kest::host
