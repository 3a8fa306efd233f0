/// Identifiers of error log entries.
#pragma once

#include <cstdint>

namespace kest::host
{

/// @return an identifier that no other entry has, never 0. Any thread. Seldom touches the disk: identifiers are set
/// aside in blocks.
std::uint32_t nextEntryId() noexcept;

} // namespace kest::host
