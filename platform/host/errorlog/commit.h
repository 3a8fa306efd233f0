/// From entries to the store: identifiers, and committing.
#pragma once

#include <cstdint>

#include "platform/host/errorlog/store.h"

namespace kest::host
{

/// @return an identifier that no other entry has, never 0. Any thread. Seldom touches the disk: identifiers are set
/// aside in blocks.
std::uint32_t nextEntryId() noexcept;

/// Stores an entry durably: in the database, else in a spool and on standard error, and on standard error alone when
/// nothing takes it. Without memory for all of the entry it stores what every entry has. Any thread. Never throws.
void storeEntry(const ErrlEntry& entry) noexcept;

} // namespace kest::host
