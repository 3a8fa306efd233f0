/// Transfers with a device: offsets, pieces, pages, busy devices, time-outs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/host/iic/bus.h"
#include "platform/host/iic/ffdc.h"
#include "platform/mern.h"

namespace kest::host::iic
{

class addressLocks;

/// How a device is spoken to.
struct transferSettings {
    std::uint8_t target = 0; ///< 8-bit form; 0 none, which no transfer accepts
    std::uint32_t position = 0;
    std::uint16_t offsetLength = 0; ///< 0-4; 3 and 4 go through a hub
    std::uint32_t pageSize = 0; ///< a power of two, or 0 for none
    std::uint32_t writeCycleMs = 0;
    std::uint32_t busyWaitMs = 0;
    transferPace pace; ///< its time-out is that of the whole transfer
    addressLocks* locks = nullptr; ///< of the handle; null: other writers are not known
};

struct transferReport {
    std::size_t moved = 0;
    int error = 0; ///< errno; 0 when all was moved
    /// For first-failure data: "busy" after a write, "absent" before one, when nothing answered.
    const char* silence = "";
};

/// Reads from the position: an offset and the data in one transaction, as far as the adapter takes it
/// and 250 ms of wire time allow.
/// @param[in,out] learnt  what the adapter takes at once: the bus's limits at first, less after it refused something as
///     too long
transferReport readDevice(bus& wires, const transferSettings& settings, std::span<std::uint8_t> data,
                          transactionHistory& history, transferLimits& learnt);
/// Writes at the position page by page; each page has been taken in, and its write cycle is
/// over, when it counts as moved.
/// @param[in,out] learnt  as for readDevice()
transferReport writeDevice(bus& wires, const transferSettings& settings, std::span<const std::uint8_t> data,
                           transactionHistory& history, transferLimits& learnt);
/// Asks the target whether it is there, and waits for a busy one.
mern_detect_state detectDevice(bus& wires, const transferSettings& settings, transactionHistory& history);

/// Where the position stands after a whole transfer of `length` bytes.
std::uint32_t positionAfter(const transferSettings& settings, bool read, std::size_t length);

} // namespace kest::host::iic
