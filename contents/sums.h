/// Checksums that formats carry.
#pragma once

#include <cstdint>
#include <span>

#include "contents/table.h"

namespace kest::contents
{

/// @return bytes that a stored sum takes; 0 for sumKind::none
[[nodiscard]] std::size_t bytesOfSum(sumKind which);

/// The sum that must be stored for a range.
/// @param range  for zero8 without the stored byte
[[nodiscard]] std::uint32_t computeSum(sumKind which, std::span<const std::uint8_t> range);

/// @param bytes  bytesOfSum() bytes. @return the sum that they store
[[nodiscard]] std::uint32_t storedSum(sumKind which, std::span<const std::uint8_t> bytes);

/// The bytes in which a sum is stored: storedSum() the other way round. @param bytes  bytesOfSum() bytes
void storeSum(sumKind which, std::uint32_t value, std::span<std::uint8_t> bytes);

/// For people: "sum to zero", "CRC-32".
[[nodiscard]] const char* sumName(sumKind which);

} // namespace kest::contents
