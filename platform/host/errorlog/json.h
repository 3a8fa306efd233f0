/// The JSON form of an error log entry: that of the database, the spool file, standard error and the tools. Its field names stay.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "platform/host/errorlog/store.h"

namespace kest::host
{

/// @return an object with all items of the entry; user details as two hexadecimal digits a byte
nlohmann::json toJson(const loggedEntry& entry);

/// @return the JSON form as ASCII text of one line, without line end
std::string toLine(const loggedEntry& entry);

/// @return the entry, or nothing when the text is not the JSON form of one. Unknown fields are ignored.
std::optional<loggedEntry> fromLine(std::string_view line);

/// @return `text` as valid UTF-8: bytes that are not, and control characters but line end and tab, become \xHH
std::string cleanText(std::string_view text);

} // namespace kest::host
