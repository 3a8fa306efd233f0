/// Reads from a device: an offset, pieces, a hub's status.
#pragma once

#include <cstdint>
#include <span>

#include "platform/host/iic/bus.h"
#include "platform/host/iic/ffdc.h"
#include "platform/host/iic/transfer.h"

namespace kest::host::iic
{

/// Reads from the position: an offset and the data in one transaction, as far as the adapter takes it and 250 ms of
/// wire time allow.
/// @param[in,out] learnt  what the adapter takes at once: the bus's limits at first, less after it refused something as
///     too long
transferReport readDevice(bus& wires, const transferSettings& settings, std::span<std::uint8_t> data,
                          transactionHistory& history, transferLimits& learnt);

} // namespace kest::host::iic
