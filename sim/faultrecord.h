/// Faults as a bus keeps them.
#pragma once

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
    std::uint64_t seed = chance::defaultSeed; ///< its own, or the machine's
    bool ownSeed = false;
    std::uint64_t count = 0;
    std::uint64_t byte = 0;
    std::uint32_t value = 0;
    std::uint64_t matched = 0;
    std::uint64_t struck = 0;
    std::uint32_t lastsMs = 0;
    std::uint8_t holder = 0; ///< address of the hub that held a line the latest time, 0: no hub
    bool letGo = false; ///< it no longer does: the hub was reset

    bool planned = false; ///< may strike in the transaction under way

    /// Loads it from the state file, or stores it there.
    void exchange(stateFields& fields);
    [[nodiscard]] bool usable() const { return !ended && (count == 0 || struck < count); }
    /// With the machine's seed, every fault has choices of its own. An event is a matching transaction.
    [[nodiscard]] chance choices() const { return ownSeed ? chance{seed} : chance{seed}.of(number); }
    [[nodiscard]] bool matches(std::uint8_t segmentAddress, direction segmentWay) const;
};

/// A bus has room for that many faults of the machine file and as many by program, so that neither push the others out.
constexpr std::size_t faultBytes = 80, mostFaults = 64;

/// @param machineSeed  for a fault without a seed
faultRecord makeFaultRecord(const faultDescription& what, std::uint32_t number, std::uint64_t machineSeed);
/// @param bus   the full name of a bus that has it
/// @param node  that bus's node
faultDescription describeFault(const faultRecord& record, const std::string& bus, const std::string& node);

/// Ends those hub faults that last until a reset. @param ownLine  the hub itself was reset
void endHubFaults(std::vector<faultRecord>& faults, std::uint8_t hub, bool ownLine);

} // namespace kest::sim
