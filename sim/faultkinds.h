/// The kinds of faults: their names, whom they strike, and their values.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

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
    powerCut,
};

struct faultKindRow {
    faultKind kind;
    std::string_view name;
    bool ofHub = false; ///< matches transactions to hubs alone, and ends with a hub's resets
    bool countsInChip = false; ///< the n-th time is counted where it may strike, not by transactions
    std::uint32_t lowestValue = 0;
    std::uint32_t highestValue = 0xFFFFFFFF;
    std::uint32_t valueFor0 = 0;
};

/// In the order of their numbers.
inline constexpr std::array faultKinds{
    faultKindRow{.kind = faultKind::nack, .name = "nack"},
    faultKindRow{.kind = faultKind::nackData, .name = "nack-data"},
    faultKindRow{.kind = faultKind::holdSda, .name = "hold-sda"},
    faultKindRow{.kind = faultKind::holdScl, .name = "hold-scl"},
    faultKindRow{.kind = faultKind::shortTransfer, .name = "short"},
    faultKindRow{.kind = faultKind::arbitration, .name = "arbitration"},
    faultKindRow{.kind = faultKind::corrupt, .name = "corrupt", .highestValue = 0xFF, .valueFor0 = 0xFF},
    faultKindRow{.kind = faultKind::stuckWriteCycle,
                 .name = "stuck-write-cycle",
                 .countsInChip = true,
                 .highestValue = 3'600'000},
    faultKindRow{.kind = faultKind::gone, .name = "gone", .highestValue = 1},
    faultKindRow{.kind = faultKind::hubStatus,
                 .name = "hub-status",
                 .ofHub = true,
                 .countsInChip = true,
                 .lowestValue = 1,
                 .highestValue = 0xFF},
    faultKindRow{.kind = faultKind::hubSilent, .name = "hub-silent", .ofHub = true},
    faultKindRow{.kind = faultKind::hubBadFirstByte,
                 .name = "hub-bad-first-byte",
                 .ofHub = true,
                 .countsInChip = true,
                 .highestValue = 0xFF,
                 .valueFor0 = 0xA5},
    faultKindRow{.kind = faultKind::hubHoldSda, .name = "hub-hold-sda", .ofHub = true, .countsInChip = true},
    faultKindRow{.kind = faultKind::hubHoldScl, .name = "hub-hold-scl", .ofHub = true, .countsInChip = true},
    faultKindRow{.kind = faultKind::powerCut, .name = "power-cut", .countsInChip = true},
};
static_assert(
    [] {
        for (std::size_t i = 0; i < faultKinds.size(); ++i) {
            if (static_cast<std::size_t>(faultKinds[i].kind) != i) {
                return false;
            }
        }
        return true;
    }(),
    "rows are found by their place");

constexpr const faultKindRow& rowOf(faultKind kind) { return faultKinds.at(static_cast<std::size_t>(kind)); }

/// Row of a kind's name; null when there is none.
constexpr const faultKindRow* findFaultKind(std::string_view name)
{
    const auto* const found = std::ranges::find(faultKinds, name, &faultKindRow::name);
    return found == faultKinds.end() ? nullptr : found;
}

} // namespace kest::sim
