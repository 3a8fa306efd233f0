/// What the library knows of each device type, in one table. All other units look types up here.
#pragma once

#include <cstdint>

#include "kest/address.h"

namespace kest
{

enum class deviceKind : std::uint8_t {
    unknown, ///< no device text may name it
    hub,
    seeprom,
    registerDevice, ///< driven through its registers
    other,
};

/// Registers that hold one function's bits, lowest pins first. 0x10 in the register byte lets the chip step through
/// them. 0 bytes: the device has no such registers.
struct registerRange {
    std::uint8_t first = 0;
    std::uint8_t bytes = 0;
};

/// Consecutive registers for consecutive raw configurations.
struct rawRange {
    std::uint8_t config = 0; ///< the first one
    std::uint8_t first = 0; ///< its register
    std::uint8_t count = 0;
};

/// What the data port knows of a device.
struct portRegisters {
    bool ledDriver = false; ///< its outputs are selectors of two bits a pin, and it has no pin directions
    bool highByteFirst = false; ///< its inputs
    registerRange outputs{};
    registerRange inputs{};
    registerRange upperInputs{}; ///< read on their own
    registerRange directions{};
    rawRange raw{};
};

/// A device type. The defaults fit most types.
struct deviceType {
    kest_deviceType type{};
    deviceKind kind = deviceKind::unknown;
    std::uint32_t capacity = 0; ///< bytes; not 0 for what the SEEPROM functions serve
    std::uint32_t pageSize = 0; ///< bytes
    std::uint16_t offsetLength = 0; ///< bytes of a position; SEEPROMs alone have one
    bool fixedTimeout = false; ///< of a chain that begins with it; else the time-out is computed
    bool writeCycle = false; ///< the write-cycle attribute applies to such a chain
    std::uint32_t flags = 0xFFFB0000; ///< of such a chain's configuration block
    portRegisters port{};
};

/// @return the type's row; an unknown type gets a row of kind `unknown`.
const deviceType& kest_typeOf(kest_deviceType type);

} // namespace kest
