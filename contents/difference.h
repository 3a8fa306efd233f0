/// Where two readings of one format say something else, and what is wrong with one.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "contents/reading.h"

namespace kest::contents
{

/// One field that two images have differently.
struct fieldDifference {
    std::string name;
    std::optional<std::string> old; ///< with its unit; nothing: the old image does not have the field
    std::optional<std::string> now; ///< nothing: the new one does not
    std::size_t offset = 0; ///< in the new image, or in the old one that alone has it
};

/// Fields in the order of the new image, then those that the old one alone has.
[[nodiscard]] std::vector<fieldDifference> differences(const reading& old, const reading& now);

/// The damaged nodes that a write must not bring about: wrong checksums, and structures and entries that pass an end or
/// lack something. A value that breaks a rule is none of them. They live as long as `what`.
[[nodiscard]] std::vector<const node*> brokenParts(const reading& what);

/// What is wrong with a node, with its name: "crc: stored is 0x11223344, computed is 0x55667788".
[[nodiscard]] std::string brokenText(const node& part);

/// The first byte behind everything that the format's table accounts for.
[[nodiscard]] std::size_t endOf(const reading& what);

} // namespace kest::contents
