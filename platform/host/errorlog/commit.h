/// From entries to the store.
#pragma once

#include <span>
#include <string>

#include "platform/host/errorlog/record.h"

namespace kest::host
{

/// Stores an entry durably: in the store, else in a spool and on standard error, and on standard error alone when
/// nothing takes it. Without memory for all of the entry it stores what every entry has. Any thread. Never throws.
/// @param facts  its `srcs` are ignored
/// @param srcs  at least one
void storeEntry(const loggedEntry& facts, std::span<const loggedSrc* const> srcs) noexcept;

/// The same for an entry whose SRCs there is no memory to list: its numbers and its first SRC are stored.
void storeReducedEntry(const loggedEntry& facts, const loggedSrc& first) noexcept;

/// Whenever a spool takes an entry that the store did not, `teller` gets the reason, in place of the entry's JSON on
/// standard error. An entry that neither takes goes to standard error all the same. For programs that speak to people;
/// null, as at first, for all others. The teller makes no entries.
void tellSpooled(void (*teller)(const std::string& problem));

} // namespace kest::host
