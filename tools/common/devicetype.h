/// The device types of device texts.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "kest/address.h"

namespace kest::tools
{

enum class deviceKind : std::uint8_t {
    hub,
    seeprom,
    registers, ///< LED drivers and I/O expanders
    sensor,
    other
};

/// One device type of the device texts.
struct deviceTypeInfo {
    kest_deviceType type;
    const char* code; ///< as a device text has it
    const char* chip; ///< for people
    deviceKind kind;
    std::uint32_t bytes; ///< capacity; 0 for types that are not read like a SEEPROM
    std::uint32_t pageBytes; ///< of a SEEPROM
    unsigned pins; ///< of a register device or sensor
};
[[nodiscard]] std::span<const deviceTypeInfo> deviceTypes();
/// @return null for an unknown type
[[nodiscard]] const deviceTypeInfo* findType(std::uint32_t type);
/// A part as users name it: the chip's name, or the type's code; "24c256", "LM75", "922", "2C0256". Case does not
/// matter.
/// @return null for an unknown part
[[nodiscard]] const deviceTypeInfo* findPart(std::string_view name);
/// The name of a type's part in texts, one word: "24C256", "922".
[[nodiscard]] std::string partName(const deviceTypeInfo& type);
struct addressRange {
    std::uint8_t first;
    std::uint8_t last;
};
/// The addresses at which devices of a type can be, in the 8-bit form; all addresses when the type does not say.
[[nodiscard]] addressRange usualAddresses(const deviceTypeInfo& type);

/// @return the chip with its article: "an LM75"
[[nodiscard]] std::string aChip(const deviceTypeInfo& type);

} // namespace kest::tools
