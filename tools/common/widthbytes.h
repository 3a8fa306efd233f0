/// What bytes read from a memory part look like: uniform, repeating, alike.
#pragma once

#include <cstdint>
#include <span>

namespace kest::tools
{

/// Whether all bytes are one value.
[[nodiscard]] bool isUniform(std::span<const std::uint8_t> bytes);

/// Whether they repeat at least once.
[[nodiscard]] bool isPeriodic(std::span<const std::uint8_t> bytes);

/// Whether the bytes say something about where they were read: they do not repeat within their half, and have at least
/// four values.
[[nodiscard]] bool isVaried(std::span<const std::uint8_t> bytes);

/// Whether two reads may be of the same bytes with noise: at some shift up to three quarters of their length, at most
/// a quarter of their bits differ. Unrelated bytes differ in half of them.
[[nodiscard]] bool areAlike(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other);

} // namespace kest::tools
