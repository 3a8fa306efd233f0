/// How much the error log keeps.
#pragma once

#include <cstdint>

namespace kest::host
{

/// Bounds of a store; when one is passed the oldest informational entries go first, then the oldest of the others. The
/// latest entry stays.
struct logLimits {
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0; ///< of the entries' JSON form
};

/// What counts as informational.
constexpr std::uint32_t informationalSeverity = 0x10;

} // namespace kest::host
