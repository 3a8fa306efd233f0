/// Entries of the error log as text for people.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/host/errorlog/store.h"

namespace kest::tools
{

/// Whether bytes of user details can be shown as a text.
[[nodiscard]] bool isText(const std::vector<std::uint8_t>& bytes);

/// Prints a list's row in two lines of at most 80 columns, since one has no room for both reason and device text.
void showRow(const host::loggedEntry& entry);

/// Prints all of an entry.
void showEntry(const host::loggedEntry& entry);

} // namespace kest::tools
