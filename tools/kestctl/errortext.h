/// Entries of the error log as text for people.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/host/errorlog/store.h"

namespace kest::tools
{

/// Whether bytes of user details are a text that can be shown.
[[nodiscard]] bool isText(const std::vector<std::uint8_t>& bytes);

/// Prints a list's row: two lines of at most 80 columns, since reasons and device texts do not fit into one.
void showRow(const host::loggedEntry& entry);

/// Prints all of an entry.
void showEntry(const host::loggedEntry& entry);

} // namespace kest::tools
