/// A value as people read it.
#pragma once

#include <cstddef>
#include <string>

#include "contents/reading.h"

namespace kest::contents
{

/// More bytes of one field than these are not written out for people.
constexpr std::size_t mostShownBytes = 256;

/// The value for people, without the unit. Bytes are written as hexadecimal digits, "81 19 00 ... 16777088 more"; these
/// are made here, so that a reading of a long image does not hold them.
[[nodiscard]] std::string shownText(const node& which);

} // namespace kest::contents
