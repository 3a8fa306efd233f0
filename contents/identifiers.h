/// Identifiers and dates of fixed forms.
#pragma once

#include <cstdint>
#include <span>

#include "contents/decodedvalue.h"

namespace kest::contents
{

/// Reads a row of one of the kinds macAddress, eisaId, jedecId, uuid, minutesSince1996 and yearWeekBcd.
/// @param bytes  as many as the kind has
[[nodiscard]] decodedValue decodeIdentifier(const row& field, std::span<const std::uint8_t> bytes);

/// @return how many bytes a kind has, 0 when it can have any number
[[nodiscard]] std::size_t bytesOfKind(kind which);

} // namespace kest::contents
