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

/// Whether something acknowledges an address right now. Makes no error entry; a bus that can't be opened answers
/// nothing.
[[nodiscard]] bool answersAt(const busName& bus, std::uint8_t address);

/// What a transfer to an address would end with, as far as one probe of it can tell. @return an errno; 0 when it ends
/// well, or can't be told
[[nodiscard]] int errnoAt(const busName& bus, std::uint8_t address);

/// When the address looks like one given in the wrong form, because a device answers at its double or half: what to
/// write instead. Probes those of the two where a device of this type can be. Empty when nothing answers there, too.
[[nodiscard]] std::string wrongFormHint(const device& which);

/// Refuses to write to a device of which something is not as it should be, unless forced. Throws a `failure`: 2 when
/// the device table has a device of another type there; 3 when a driver of the kernel has its address, or the one of
/// the hub ahead of it, since the driver does not hear of the change. A bus that can't be opened is left to the write
/// itself.
void refuseDoubtfulWrite(const device& which, bool force);

/// Nine clocks and a STOP, or what the adapter has for it. Throws a `failure`.
void resetBus(const busName& bus);

/// "sim:planar", "sim:planar on node 3".
[[nodiscard]] std::string busText(const busName& bus);

/// Every bus there is: of the local node and of the mapped ones.
[[nodiscard]] std::vector<busName> allBuses();

} // namespace kest::tools
