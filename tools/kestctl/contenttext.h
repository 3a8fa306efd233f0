/// Readings of contents as text and as JSON.
#pragma once

#include <string>

#include "contents/reading.h"
#include "tools/common/json.h"

namespace kest::tools
{

struct contentTextOptions {
    bool offsets = false; ///< also where each field lies
    bool names = false; ///< the fields' names instead of their labels
};

/// Lines for people: a section for each block, the fields in it with their labels and values in columns, and each
/// checksum with its verdict. Ends with a line for each thing that is damaged, or one that says that nothing is.
[[nodiscard]] std::string contentText(const contents::reading& what, const contentTextOptions& options);

/// "whole", or how many things are damaged.
[[nodiscard]] std::string contentVerdict(const contents::reading& what);

} // namespace kest::tools
