/// FRU information that has everything.
#pragma once

#include "tests/contents/images.h"

namespace kest::contents::test
{

/// FRU information with every area. Its sums were computed by hand from the document.
[[nodiscard]] Bytes fullFru();

/// The same with another byte.
[[nodiscard]] Bytes changedFru(std::size_t at, std::uint8_t value);

constexpr std::size_t fruChassisAt = 16;
constexpr std::size_t fruBoardAt = 32;
constexpr std::size_t fruProductAt = 64;
constexpr std::size_t fruRecordsAt = 96;
constexpr std::size_t fruBytes = 209;

} // namespace kest::contents::test
