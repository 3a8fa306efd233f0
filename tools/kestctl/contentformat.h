/// Which format the bytes of a SEEPROM have.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "contents/table.h"

namespace kest::tools
{

/// The format of an image. Throws a `failure`: exit code 2 for a name that is no format's, 1 when no format is
/// recognised, or several are.
/// @param chosen  the name of a format; empty: the one that is recognised
[[nodiscard]] const contents::format& formatOf(std::span<const std::uint8_t> image, const std::string& chosen);

/// "edid, fru, tlvinfo".
[[nodiscard]] std::string formatNames();

} // namespace kest::tools
