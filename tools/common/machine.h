/// The configured simulated machine.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "sim/machine.h"
#include "tools/common/failure.h"

namespace kest::tools
{

/// Opens it. Throws a `failure`: exit code 2 when none is configured or its folder is not usable, 3 when the user may
/// not use it, 1 when the disk is full or memory is short.
[[nodiscard]] std::shared_ptr<sim::machine> openConfiguredMachine();

/// The failure for what the system refused a machine, with openConfiguredMachine()'s exit codes.
[[nodiscard]] failure machineFailure(const std::system_error& why);

/// Throws as openConfiguredMachine() does when one is configured.
void checkConfiguredMachine();

/// Why a `sim:` path names no bus. The exit code is 4 unless the machine itself can't be opened. None when the path
/// names a bus, or is not a `sim:` path.
/// @param node  "L", or "0" to "7"
[[nodiscard]] std::optional<failure> simulatedBusTrouble(const std::string& path, const std::string& node);

} // namespace kest::tools
