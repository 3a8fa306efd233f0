/// The transactions that an SMBus call makes byte for byte, for adapters without plain messages.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include <linux/i2c.h>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

struct smbusCall {
    std::uint8_t address = 0;
    direction way = direction::write;
    std::uint8_t command = 0;
    std::uint32_t kind = I2C_SMBUS_QUICK; ///< I2C_SMBUS_...
    bool hasData = false;
    i2c_smbus_data data{};
};

/// @param functions  of the adapter, I2C_FUNC_...
/// @return the call that makes these segments; nothing when there is none
std::optional<smbusCall> smbusCallFor(std::span<const segment> segments, unsigned long functions);

/// Moves what a call has read into its segment. @return false when it is less than the segment takes
bool takeData(const smbusCall& call, const segment& into);

/// What an adapter of these functions takes at once.
transferLimits smbusLimits(unsigned long functions);

} // namespace kest::host::iic
