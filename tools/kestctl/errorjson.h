/// Entries of the error log as JSON: the fields of their stored form (platform/host/errorlog/json.h), with the same names
/// and values, and fields that explain them.
#pragma once

#include "platform/host/errorlog/store.h"
#include "tools/common/json.h"

namespace kest::tools
{

/// The fields of a list's row.
[[nodiscard]] jsonValue headJson(const host::loggedEntry& entry);

/// All of an entry.
[[nodiscard]] jsonValue entryJson(const host::loggedEntry& entry);

} // namespace kest::tools
