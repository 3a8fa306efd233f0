/// Buses of the simulated machine.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// @param node  node of the simulated machine, "" for the local one
/// @return 0, or ENOENT, ENODEV, EACCES
int openSimulatedBus(const std::filesystem::path& machineFolder, bool realTime, const std::string& name,
                     const std::string& node, std::shared_ptr<bus>& opened);

/// Names of the buses on a node. None when there is no machine to be had; opening one of its buses says why.
std::vector<std::string> simulatedBusNames(const std::filesystem::path& machineFolder, bool realTime,
                                           const std::string& node);

} // namespace kest::host::iic
