/// Where the bytes of a SEEPROM are read from and written to.
#pragma once

#include <string>

#include "tools/common/attributes.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{

enum class accessMode : kest_attributeValue {
    hardware = readModeHardware,
    file = 3, ///< the persisted copy
    mixed = 5, ///< the persisted copy when there is one, else the hardware
    registry = 1, ///< what the registry says
};

/// Throws a `failure` (exit code 2) for a word that is no mode.
[[nodiscard]] accessMode parseMode(const std::string& word);

/// The word that parseMode() reads as this mode.
[[nodiscard]] const char* modeWord(accessMode mode);

/// Who serves a device in a mode: hardware, or file for its persisted copy. If the registry holds no known mode, the
/// result is registry: the library reports that and takes the hardware. Throws a `failure` (exit code 2) when the copy
/// that would serve belongs to another device.
[[nodiscard]] accessMode settledMode(const device& which, accessMode mode);

} // namespace kest::tools
