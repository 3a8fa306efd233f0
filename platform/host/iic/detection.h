/// Whether a device is there.
#pragma once

#include "platform/host/iic/bus.h"
#include "platform/host/iic/ffdc.h"
#include "platform/host/iic/transfer.h"
#include "platform/mern.h"

namespace kest::host::iic
{

/// Asks the target whether it is there, and waits for a busy one.
mern_detect_state detectDevice(bus& wires, const transferSettings& settings, transactionHistory& history);

} // namespace kest::host::iic
