/// Page writes of SEEPROMs, counted over the life of the state folder, by device and group of 16 pages.
#pragma once

#include <string>

#include "tools/common/devicetext.h"
#include "tools/common/json.h"
#include "tools/common/wearfile.h"

namespace kest::tools
{

/// What is known of a device's wear.
struct wearReport {
    wearCounts counts;
    bool known = false; ///< `counts` is all that was counted
    std::string trouble; ///< why counts are missing; empty when none are
};

/// Counts the pages of a write that went out. Never throws: the write has been done, whatever becomes of the count.
/// @param length  bytes that the device took, from `offset` on
/// @return all that has been counted now, and what went wrong
wearReport countWrite(const device& which, std::uint32_t offset, std::uint32_t length) noexcept;

/// The same; says on standard error what went wrong, once in a process. @param which  what kestctl works on
void countWriteOrTell(const device& which, std::uint32_t offset, std::uint32_t length) noexcept;

/// @return what has been counted so far; not known, and no trouble, to a user who may not read it
[[nodiscard]] wearReport wearOf(const device& which);

/// What to say when a group has more page writes than the configuration's limit; empty otherwise.
[[nodiscard]] std::string wearWarning(const wearCounts& counts);

/// "12 page writes so far, at most 3 in 16 pages".
[[nodiscard]] std::string wearText(const wearCounts& counts);

/// Adds "page_writes", "page_writes_in_group" (of the busiest group) and "worn" (above the limit) to an object: null
/// when they are not known.
void addWearFields(jsonValue& object, const wearReport& wear);

} // namespace kest::tools
