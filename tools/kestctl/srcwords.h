/// The words of an SRC that the tools show.
#pragma once

#include <cstdint>

#include "platform/host/errorlog/store.h"

namespace kest::tools
{

/// Positions in `loggedSrc::words`.
constexpr std::uint32_t wordModule = 1; ///< its component in the upper half
constexpr std::uint32_t wordReason = 2;
constexpr std::uint32_t wordSubsystem = 3;
constexpr std::uint32_t wordUserData = 4; ///< the first of four

/// The component whose module made an SRC.
inline std::uint32_t componentOf(const host::loggedSrc& src) { return src.words[wordModule] >> 16; }
inline std::uint32_t moduleOf(const host::loggedSrc& src) { return src.words[wordModule] & 0xFFFFU; }

/// Why an entry was made, as its first SRC says; 0 when it has none.
inline std::uint32_t reasonOf(const host::loggedEntry& entry)
{
    return entry.srcs.empty() ? 0 : entry.srcs.front().words[wordReason];
}

} // namespace kest::tools
