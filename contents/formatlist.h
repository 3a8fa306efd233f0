/// The formats that are known: one for each file of contents/formats, in the order of their names.
#pragma once

#include <span>

#include "contents/table.h"

namespace kest::contents
{

[[nodiscard]] std::span<const format* const> formats();

} // namespace kest::contents
