/// Faults as a bus keeps them.
#pragma once

#include "sim/bus.h"
#include "sim/chance.h"
#include "sim/fault.h"
#include "sim/faultkinds.h"
#include "sim/signals.h"
#include "sim/statefields.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kest::sim
{

/// What is wrong with a fault apart from its bus; empty: nothing.
std::string faultTrouble(const faultDescription& what);

enum class faultWay : std::uint8_t {
    any,
    read,
    write
};

/// One fault as a bus keeps it.
struct faultRecord {
    std::uint32_t number = 0;
    faultKind kind = faultKind::nack;
    faultWay way = faultWay::any;
    std::uint8_t address = 0;
    bool fromFile = false; ///< of machine.toml
    bool ofEveryBus = false; ///< was asked for without a bus
    bool ofNode = false; ///< was asked for with a node alone
    bool untilReset = false;
    bool ended = false; ///< by a reset
    std::uint64_t nth = 0;
    double probability = 1.0;
    std::uint64_t seed = 0; ///< without effect unless it is the fault's own
    bool ownSeed = false;
    std::uint64_t count = 0;
    std::uint64_t byte = 0;
    std::uint32_t value = 0;
    std::uint64_t matched = 0;
    std::uint64_t struck = 0;
    std::uint32_t lastsMs = 0;
    std::uint8_t holder = 0; ///< address of the hub that holds a line, 0: no hub does
    bool letGo = false; ///< it no longer does: the hub was reset

    bool planned = false; ///< may strike in the transaction under way

    /// Loads it from the state file, or stores it there.
    void exchange(stateFields& fields);
    [[nodiscard]] bool usable() const { return !ended && (count == 0 || struck < count); }
    /// Without a seed of its own, every fault has choices of its own on each bus. An event is a matching transaction.
    /// @param ofBus  the choices of the bus, by the machine's seed
    [[nodiscard]] chance choices(const chance& ofBus) const { return ownSeed ? chance{seed} : ofBus.of(number); }
    [[nodiscard]] bool matches(std::uint8_t segmentAddress, direction segmentWay) const;
};

/// What an adapter that is gone reports. A driver may find out, or wait for interrupts that never come.
/// @param gone  the fault
constexpr outcome endWithoutAdapter(const faultRecord& gone)
{
    return gone.value == 0 ? outcome::gone : outcome::timedOut;
}

/// The longest time that a fault asks for.
constexpr std::uint64_t longestHoldMs = 3'600'000;
/// A bus has room for that many faults of the machine file and as many by program, so that neither push the others out.
constexpr std::size_t faultBytes = 80, mostFaults = 64;

faultRecord makeFaultRecord(const faultDescription& what, std::uint32_t number);
/// @param bus          the full name of a bus that has it
/// @param node         that bus's node
/// @param machineSeed  described for a fault without a seed
faultDescription describeFault(const faultRecord& record, const std::string& bus, const std::string& node,
                               std::uint64_t machineSeed);

/// Ends those hub faults that last until a reset. @param ownLine  the hub itself was reset
void endHubFaults(std::vector<faultRecord>& faults, std::uint8_t hub, bool ownLine);

} // namespace kest::sim
