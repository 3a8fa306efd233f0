/// Faults of one bus: which strikes when. The same seed and the same transactions give the same faults.
#pragma once

#include "sim/chip.h"

#include <array>
#include <functional>
#include <string_view>
#include <vector>

namespace kest::sim
{

enum class faultKind : std::uint8_t {
    nack,
    nackData,
    holdSda,
    holdScl,
    shortTransfer,
    arbitration,
    corrupt,
    stuckWriteCycle,
    gone,
    hubStatus,
    hubSilent,
    hubBadFirstByte,
    hubHoldSda,
    hubHoldScl,
};

struct faultKindRow {
    faultKind kind;
    std::string_view name;
    bool ofHub; ///< matches transactions to hubs alone, and ends with a hub's resets
    bool countsInChip; ///< the n-th time is counted where the chip asks, not by transactions
    std::uint32_t lowestValue, highestValue, valueFor0;
};

constexpr std::uint32_t anyValue = 0xFFFFFFFF;
inline constexpr std::array faultKinds{
    faultKindRow{faultKind::nack, "nack", false, false, 0, anyValue, 0},
    faultKindRow{faultKind::nackData, "nack-data", false, false, 0, anyValue, 0},
    faultKindRow{faultKind::holdSda, "hold-sda", false, false, 0, anyValue, 0},
    faultKindRow{faultKind::holdScl, "hold-scl", false, false, 0, anyValue, 0},
    faultKindRow{faultKind::shortTransfer, "short", false, false, 0, anyValue, 0},
    faultKindRow{faultKind::arbitration, "arbitration", false, false, 0, anyValue, 0},
    faultKindRow{faultKind::corrupt, "corrupt", false, false, 0, 0xFF, 0xFF},
    faultKindRow{faultKind::stuckWriteCycle, "stuck-write-cycle", false, true, 0, 3'600'000, 0},
    faultKindRow{faultKind::gone, "gone", false, false, 0, anyValue, 0},
    faultKindRow{faultKind::hubStatus, "hub-status", true, true, 1, 0xFF, 0},
    faultKindRow{faultKind::hubSilent, "hub-silent", true, false, 0, anyValue, 0},
    faultKindRow{faultKind::hubBadFirstByte, "hub-bad-first-byte", true, true, 0, 0xFF, 0xA5},
    faultKindRow{faultKind::hubHoldSda, "hub-hold-sda", true, true, 0, anyValue, 0},
    faultKindRow{faultKind::hubHoldScl, "hub-hold-scl", true, true, 0, anyValue, 0},
};

/// Row of a kind's name; null when there is none.
const faultKindRow* findFaultKind(std::string_view name);

/// What is wrong with a fault apart from its bus; empty: nothing.
std::string faultTrouble(const machine::fault& what);

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
    std::uint64_t seed = 1;
    std::uint64_t count = 0;
    std::uint64_t byte = 0;
    std::uint32_t value = 0;
    std::uint64_t matched = 0;
    std::uint64_t struck = 0;

    bool planned = false; ///< may strike in the transaction under way

    void state(stateFields& fields);
    [[nodiscard]] bool usable() const { return !ended && (count == 0 || struck < count); }
    [[nodiscard]] bool matches(std::uint8_t segmentAddress, direction segmentWay) const;
};

/// Faults of a bus: so many from the machine file and so many by program, so that neither push the others out.
constexpr std::size_t faultBytes = 80, mostFaults = 64;

faultRecord makeFaultRecord(const machine::fault& what, std::uint32_t number);
/// @param bus   the full name of a bus that has it
/// @param node  that bus's node
machine::fault describeFault(const faultRecord& record, const std::string& bus, const std::string& node);

/// Ends those hub faults that last until a reset. @param ownLine  the hub itself was reset
void endHubFaults(std::vector<faultRecord>& faults, std::uint8_t hub, bool ownLine);

/// The faults of one transaction.
class faultPlan final : public chipFaults
{
public:
    /// @param isHub  whether a hub sits at an address
    faultPlan(std::vector<faultRecord>& all, std::span<const segment> segments,
              const std::function<bool(std::uint8_t)>& isHub);

    /// Whether a fault of that kind strikes now; it counts as struck then.
    const faultRecord* strikes(faultKind kind, const segment& part, std::uint64_t byte);
    /// The same at an address, whatever the fault's byte.
    const faultRecord* strikesAddress(faultKind kind, const segment& part);
    /// The same at a hub's first address in the transaction, whatever the direction: a hub is silent
    /// for all of it or not at all.
    const faultRecord* strikesHub(faultKind kind, std::uint8_t address);

    /// The chip that asks from now on.
    void ask(std::uint8_t address, direction way) { askedBy = address, askedBehind = 0, askedWay = way; }

    std::optional<chipFaults::strike> hubStatus() override { return meets(faultKind::hubStatus); }
    std::optional<chipFaults::strike> hubHoldsSda() override { return meets(faultKind::hubHoldSda); }
    std::optional<chipFaults::strike> hubHoldsScl() override { return meets(faultKind::hubHoldScl); }
    std::optional<chipFaults::strike> hubBadFirstByte() override { return meets(faultKind::hubBadFirstByte); }
    std::optional<chipFaults::strike> writeCycleStuck() override { return meets(faultKind::stuckWriteCycle); }
    void subBusWasReset() override { endHubFaults(faults, askedBy, false); }
    void behindHub(std::uint8_t address) override { askedBehind = address; }

private:
    template <typename Matches>
    const faultRecord* strike(faultKind kind, const Matches& matches);
    std::optional<chipFaults::strike> meets(faultKind kind);
    void count(faultRecord& record);

    std::vector<faultRecord>& faults;
    std::uint8_t askedBy = 0;
    std::uint8_t askedBehind = 0; ///< address on a sub-bus; 0: not behind a hub
    direction askedWay = direction::write;
};

} // namespace kest::sim
