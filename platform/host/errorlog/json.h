/// The JSON form of an error log entry: that of the database, the spool file, standard error, and kestctl, which adds
/// fields to it. docs/host-services.md lists the fields; their names stay.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/host/errorlog/record.h"

namespace kest::host
{

/// @return the JSON form as ASCII text of one line, without line end
std::string toLine(const loggedEntry& entry);

/// The same for an entry whose SRCs lie elsewhere, so that nothing is copied. `entry.srcs` is ignored.
std::string toLine(const loggedEntry& entry, std::span<const loggedSrc* const> srcs);

/// Room for a reduced line.
using reducedLine = std::array<char, 1024>;

/// Puts the JSON form of an entry with its numbers and its first SRC alone into `room`. Allocates nothing.
std::string_view toReducedLine(const loggedEntry& entry, const loggedSrc& first, reducedLine& room) noexcept;

/// Reads the form of toLine(), or the one that layouts 1 and 2 of the database had.
/// @return the entry, or nothing when the text is neither. Unknown fields are ignored.
std::optional<loggedEntry> fromLine(std::string_view line);

/// @return the keys of a line that fromLine() reads, or nothing when the text is no such line. It needs less memory than
/// fromLine().
std::optional<entryKeys> keysOfLine(std::string_view line);

} // namespace kest::host
