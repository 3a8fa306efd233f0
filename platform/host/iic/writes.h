/// Writes to a device: an offset, pages, their write cycles, and other writers of the same device.
#pragma once

#include <cstdint>
#include <span>

#include "platform/host/iic/bus.h"
#include "platform/host/iic/ffdc.h"
#include "platform/host/iic/transfer.h"

namespace kest::host::iic
{

/// Writes at the position page by page. A page counts as moved when the device has taken it in and its write cycle is
/// over.
/// @param[in,out] learnt  what the adapter takes at once: the bus's limits at first, less after it refused something as
///     too long
transferReport writeDevice(bus& wires, const transferSettings& settings, std::span<const std::uint8_t> data,
                           transactionHistory& history, transferLimits& learnt);

} // namespace kest::host::iic
