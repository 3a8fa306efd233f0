/// Hashes of trace messages.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/hash.h"

namespace kest::host
{

/// Hash of a message (32-bit FNV-1a), made at compile time: the same text has the same hash wherever it is traced.
consteval std::uint32_t messageHash(std::string_view message) { return fnvHash32(message); }

} // namespace kest::host
