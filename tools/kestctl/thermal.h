/// Area "thermal": temperature sensors.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kest/address.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

struct thermalReadOptions {
    std::string device;
    std::optional<std::uint64_t> intervalNs; ///< --watch
    std::uint64_t count = 0; ///< of samples with --watch; 0 until stopped
};
/// Prints the sensor's raw word and degrees; with an interval until SIGINT or SIGTERM, one line (of JSON) for each
/// sample.
int runThermalRead(const context& shared, const thermalReadOptions& options);

/// Degrees Celsius of a sensor's raw word: an LM75's has 9 or 11 bits at the top, an LM92's 13 with alarms below.
[[nodiscard]] double celsius(kest_deviceType type, std::uint16_t raw);

} // namespace kest::tools
