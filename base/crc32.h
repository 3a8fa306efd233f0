/// Check sums of bytes.
#pragma once

#include <cstdint>
#include <span>

namespace kest
{

/// @return the CRC-32 of the bytes (polynomial 0x04C11DB7, reflected, as in zip files). It finds every change of up to
/// 32 bits in a row.
[[nodiscard]] std::uint32_t crc32(std::span<const std::uint8_t> bytes) noexcept;

} // namespace kest
