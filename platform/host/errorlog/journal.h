/// Error log entries in the journal of the service manager.
#pragma once

#include <cstdint>
#include <string>

#include "platform/host/errorlog/record.h"

namespace kest::host
{

/// User details of the message service's entries: the text with which it refused a request.
constexpr std::uint8_t detailsRefusal = 8;

/// @return the fields of an entry in the journal's native protocol: NAME=VALUE and a line end. A value with a line end
/// stands behind NAME, a line end and the value's length, eight bytes with the lowest first.
/// @param facts  its `srcs` are ignored
/// @param first  the entry's first SRC
std::string journalFields(const loggedEntry& facts, const loggedSrc& first);

/// Sends an entry to the journal if the process's standard error goes there, as that of a service does. A journal that
/// takes nothing is waited for a fifth of a second at most, and the caller's locks stay held meanwhile. Without memory
/// nothing is sent. Any thread.
void tellJournal(const loggedEntry& facts, const loggedSrc& first) noexcept;

/// Where the journal listens, for tests; null gives the system's place back.
void useJournalSocket(const char* path);

} // namespace kest::host
