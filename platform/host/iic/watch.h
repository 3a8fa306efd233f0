/// Lets a tool see what goes over the buses of its process, and do without repeats.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// What a bus was asked to do.
enum class busAct : std::uint8_t {
    transfer,
    probe,
    reset,
};

/// One act of a bus, when it is over. Its views hold during the call alone.
struct busEvent {
    std::string_view bus; ///< path, without a device's address
    busAct act = busAct::transfer;
    std::span<const segment> segments; ///< of a transfer
    std::uint8_t address = 0; ///< of a probe
    outcome end = outcome::done;
    std::uint64_t beganNs = 0; ///< by the bus's clock
    std::uint64_t endedNs = 0;
};

/// Called behind each act, in the thread that made it. It must not use a bus.
using busWatcher = std::function<void(const busEvent& event)>;

/// From now on buses that are opened report to this. To be called once, by a process of one thread, before it uses a
/// bus.
void watchBuses(busWatcher watcher);

/// The bus, or one that reports to the watcher and passes all on.
std::shared_ptr<bus> watched(std::shared_ptr<bus> wires);

/// Turns repeats off: a transaction that fails for a reason that may pass, because its target does not acknowledge at
/// the start, arbitration is lost or the bus is busy, is not sent again. The wait for the end of a page's write cycle
/// stays. To be called before a bus is used.
void repeatNothing();
/// Whether repeats are on.
[[nodiscard]] bool repeats();

} // namespace kest::host::iic
