/// Differences between bytes, as the area "seeprom" shows them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/seeprom.h"

namespace kest::tools
{

/// Two byte strings of one length, and where their first byte lies in the device.
struct comparison {
    byteRange range;
    byteVector present; ///< of the device
    byteVector other;
};

/// Indexes at which the two differ.
[[nodiscard]] std::vector<std::uint32_t> differences(const comparison& both);

/// The lines of 16 bytes that differ: the device's begin with "-", the other's with "+".
[[nodiscard]] std::string diffLines(const comparison& both, const std::vector<std::uint32_t>& offsets);

} // namespace kest::tools
