/// What a stored number is in its unit.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "contents/fraction.h"
#include "contents/knownfields.h"

namespace kest::contents
{

/// @param block  the fine correction is read from it
/// @return nothing when a base that the row names has not been read, a divisor is 0, or the result does not fit
[[nodiscard]] std::optional<fraction> scaledValue(const row& field, std::int64_t stored,
                                                  std::span<const std::uint8_t> block, const knownFields& known);

/// The value of a product: its `by` times all of its factors.
/// @return nothing when a factor has no value, a divisor is 0, or the result does not fit
[[nodiscard]] std::optional<fraction> productOf(const row& field, const knownFields& known);

} // namespace kest::contents
