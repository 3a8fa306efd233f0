/// machine.toml: the buses, chips and faults of a simulated machine.
#pragma once

#include "sim/machinedescription.h"

#include <string>
#include <string_view>

namespace kest::sim
{

/// Reads the text of a machine file. Throws std::runtime_error with "FILE:LINE:COLUMN: what is wrong".
/// @param fileName  appears in error texts only
machineDescription parseMachine(std::string_view text, const std::string& fileName);

} // namespace kest::sim
