/// Buses as the tools look at them, beside the library: opening, scanning, probing, resetting.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/iic/tools.h"
#include "tools/common/device.h"

namespace kest::tools
{

/// Opens a bus. Throws a `failure`.
[[nodiscard]] std::unique_ptr<host::iic::toolBus> openBus(const busName& bus);

/// Whether something acknowledges an address right now. Makes no error entry; a bus that can't be opened answers nothing.
[[nodiscard]] bool answersAt(const busName& bus, std::uint8_t address);

/// Refuses to write to a device when a driver of the kernel has its address, or the one of the hub ahead of it: the driver does not hear of
/// the change. A bus that can't be opened is left to the write itself. @param force  write all the same
/// Throws a `failure` (exit code 3).
void refuseDriversAddress(const device& which, bool force);

/// Nine clocks and a STOP, or what the adapter has for it. Throws a `failure`.
void resetBus(const busName& bus);

/// "sim:planar", "sim:planar on node 3".
[[nodiscard]] std::string busText(const busName& bus);

/// "L" is -1, "0" to "7" are themselves.
[[nodiscard]] std::int32_t nodeNumber(const std::string& node);

/// Every bus there is: of the local node and of the mapped ones.
[[nodiscard]] std::vector<busName> allBuses();

} // namespace kest::tools
