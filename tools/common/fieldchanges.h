/// Differences between two contents, said in fields where both have the same known format.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "contents/difference.h"
#include "tools/common/json.h"

namespace kest::tools
{

/// Fields in which two contents differ.
struct fieldChanges {
    std::string format;
    std::vector<contents::fieldDifference> fields;
};

/// @param old, now  from the first byte of the part on
/// @return nothing when the two have no known format in common
[[nodiscard]] std::optional<fieldChanges> fieldChangesOf(std::span<const unsigned char> old,
                                                         std::span<const unsigned char> now);

/// A line for each field, escaped: "serialNumber: A1 -> A2". @param indent  goes before each
[[nodiscard]] std::string fieldLines(const std::optional<fieldChanges>& changes, const std::string& indent = {});

/// Null when nothing is known of fields; else the format and its fields with "field", "old", "new" and "offset".
[[nodiscard]] jsonValue fieldChangesJson(const std::optional<fieldChanges>& changes);

} // namespace kest::tools
