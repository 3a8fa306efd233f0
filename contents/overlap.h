/// Areas whose positions the image gives must not lie on each other.
#pragma once

#include <vector>

#include "contents/reading.h"

namespace kest::contents
{

/// Whether two structures are areas that share bytes.
[[nodiscard]] bool doOverlap(const node& one, const node& other);

/// Marks an area as damaged when it shares bytes with one of those before it. Nothing else is an area.
/// @param siblings  what lies in the same structure and has been read
void checkOverlap(node& area, const std::vector<node>& siblings);

} // namespace kest::contents
