/// From entries to the store: identifiers, and committing.
#pragma once

#include <cstdint>

#include "platform/host/errorlog/store.h"

namespace kest::host
{

/// @return an identifier that no other entry has, never 0. Any thread. Seldom touches the disk: identifiers are set aside in blocks.
std::uint32_t nextEntryId() noexcept;

/// Stores an entry durably: in the database, else in the spool file and on standard error. Any thread. Never throws.
void storeEntry(const loggedEntry& entry) noexcept;

/// Tells standard error that an entry could not even be formed. Allocates nothing.
void reportLostEntry() noexcept;

} // namespace kest::host
