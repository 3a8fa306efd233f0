/// The JSON form of an error log entry: that of the database, the spool file, standard error and the tools. Its field
/// names stay.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/host/errorlog/store.h"

namespace kest::host
{

/// @return the JSON form as ASCII text of one line, without line end
std::string toLine(const loggedEntry& entry);

/// @param record  first-failure data of the IIC layer, or what passes for it. @return bus and address of the failed
/// transfer: "BUS@HH"; empty when the record is not whole or names none
std::string deviceOfRecord(std::string_view record);

/// Room for a reduced line.
using reducedLine = std::array<char, 1024>;

/// Puts the JSON form of an entry with its numbers and its first SRC alone into `room`. Allocates nothing.
std::string_view toReducedLine(const loggedEntry& entry, const loggedSrc& first, reducedLine& room) noexcept;

/// @return the entry, or nothing when the text is not the JSON form of one. Unknown fields are ignored.
std::optional<loggedEntry> fromLine(std::string_view line);

/// What the store searches for in an entry.
struct lineFacts {
    std::uint32_t plid = 0;
    std::int64_t committedMs = 0;
    std::uint32_t severity = 0;
    std::uint16_t creator = 0;
};

/// @return the facts of a line that toLine() made, or nothing when the text is no such line. Without memory it throws
/// std::bad_alloc, where fromLine() would end the process: values of the JSON library need memory to be destroyed.
std::optional<lineFacts> factsOfLine(std::string_view line);

/// @return `text` as the JSON form has it, with its quotes: ASCII, U+FFFD for what is no UTF-8
std::string quotedText(std::string_view text);

/// @return `text` as valid UTF-8: bytes that are not, and control characters but line end and tab, become \xHH
std::string cleanText(std::string_view text);

} // namespace kest::host
