/// Device paths and nodes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/host/configuration/configuration.h"
#include "platform/host/iic/bus.h"
#include "platform/mern.h"

namespace kest::host::iic
{

/// A device path, taken apart.
struct devicePath {
    bool simulated = false;
    std::string busName; ///< of a simulated bus
    unsigned int number = 0; ///< of a Linux bus
    std::uint8_t address = 0; ///< after '@'; 0: none
};

/// Grammar: ("/dev/i2c-" decimal | "sim:" name) ["@" two hexadecimal digits].
/// @return 0; ENOENT for anything else; EINVAL for an odd or zero address
int parseDevicePath(std::string_view text, devicePath& path);

/// Whether `address` is a device's in the 8-bit form: even, not 0, of one byte.
constexpr bool isDeviceAddress(std::uint32_t address) { return address != 0 && address <= 0xFE && address % 2 == 0; }

/// Opens the bus that `path` names on a node.
/// @return 0; ENODEV for a node that is not mapped; else the errno of opening the bus
int openBusOf(const devicePath& path, NodeType node, const configuration& settings, std::shared_ptr<bus>& opened);

} // namespace kest::host::iic
