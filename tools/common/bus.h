/// What the tools do with buses without the library: open, scan, probe, reset.
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

/// Whether a device acknowledges an address right now. Makes no error entry. False for a bus that can't be opened.
[[nodiscard]] bool answersAt(const busName& bus, std::uint8_t address);

/// How a transfer to an address would end, as far as one probe shows. @return an errno; 0 when the transfer would
/// succeed, or when the probe does not show it
[[nodiscard]] int errnoAt(const busName& bus, std::uint8_t address);

/// Whether a memory part answers at another address behind the same port of a 922 hub, by a read behind one offset byte.
/// Makes no error entry. @param which  a SEEPROM behind a hub
[[nodiscard]] bool answersBehindHub(const device& which, std::uint8_t address);

/// A hint for an address that looks like one in the wrong form: a device answers at its double or half, on the bus or,
/// when the hub before it answers, behind that. Asks those of the two at which a device of this type can be. Empty when
/// nothing answers there either.
[[nodiscard]] std::string wrongFormHint(const device& which);

/// Refuses a doubtful write, unless forced: when a kernel driver has the device's address, or that of the hub before
/// it, since the driver does not learn of the change. Throws a `failure` (exit code 3). A bus that can't be opened is
/// left to the write itself.
void refuseDoubtfulWrite(const device& which, bool force);

/// Nine clocks and a STOP, or what the adapter has for it. Throws a `failure`.
void resetBus(const busName& bus);

/// "present", "absent", "held-by-driver", "uncertain": what a probe found, as JSON has it.
[[nodiscard]] const char* presenceText(host::iic::presence state);

/// "sim:planar", "sim:planar on node 3".
[[nodiscard]] std::string busText(const busName& bus);

/// Every bus there is: of the local node and of the mapped ones.
[[nodiscard]] std::vector<busName> allBuses();

} // namespace kest::tools
