/// The words of "port write" and "port config", and the devices that take them.
#pragma once

#include <cstdint>
#include <string>

#include "kest/dataport.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{

/// The devices that take a word of the command line.
enum class family : std::uint8_t {
    leds,
    expanders,
    all
};

struct portOperation {
    const char* word;
    kest_dpOperation operation;
    family takenBy;
};

struct portFunction {
    const char* word;
    kest_dpConfig config;
    family takenBy;
    bool perPin; ///< takes pins; else one byte
    unsigned pinsRequired; ///< of a chip that has it
};

/// Finds an operation that the device takes. Throws a `failure` (exit code 2) that lists those words.
[[nodiscard]] const portOperation& findOperation(const std::string& word, const device& which);

/// The same for a function of "port config".
[[nodiscard]] const portFunction& findFunction(const std::string& word, const device& which);

} // namespace kest::tools
