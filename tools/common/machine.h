/// The configured simulated machine.
#pragma once

#include <memory>
#include <string>

#include "sim/machine.h"

namespace kest::tools
{

/// Opens it. Throws a `failure` (exit code 2) when none is configured or its folder is not usable.
[[nodiscard]] std::shared_ptr<sim::machine> openConfiguredMachine();

/// Why a `sim:` path names no bus; empty when it does, or is no such path.
/// @param node  "L", or "0" to "7"
[[nodiscard]] std::string simulatedBusTrouble(const std::string& path, const std::string& node);

} // namespace kest::tools
