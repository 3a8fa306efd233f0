/// Attribute records for the library's calls.
#pragma once

#include <array>

#include "kest/address.h"
#include "platform/tavo.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{

using attributeRecord = std::array<kest_attributeValue, KEST_ATTR_COUNT>;

/// The library's defaults, with a read mode of hardware.
/// @param speedKhz  0 leaves the library's default
[[nodiscard]] attributeRecord hardwareAttributes(std::uint32_t speedKhz = 0);

constexpr kest_attributeValue readModeHardware = 4;

/// A device as the SEEPROM calls take it.
[[nodiscard]] tavo_deviceaddress tavoAddress(const device& which);

} // namespace kest::tools
