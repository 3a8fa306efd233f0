/// One event of a scenario, as a bus keeps it.
#pragma once

#include "sim/faultrecord.h"
#include "sim/statefields.h"

#include <cstddef>
#include <cstdint>

namespace kest::sim
{

enum class eventKind : std::uint8_t {
    fault,
    remove,
    insert,
    temperature,
    powerCut,
};

/// One event that is still to come, or a change of temperature under way. The bus's state has it until it is over.
struct eventRecord {
    eventKind kind = eventKind::powerCut;
    bool byTime = true;
    /// Bus time from which on it happens, ns; or how many transactions the bus must have seen.
    std::uint64_t at = 0;
    std::uint8_t address = 0, hub = 0, port = 0; ///< of the chip; a hub of 0: on the bus itself
    std::int32_t microCelsius = 0; ///< temperature at the end
    std::uint64_t lastingNs = 0; ///< of the change of temperature
    bool begun = false; ///< the temperature is changing
    std::int32_t fromMicroCelsius = 0;
    faultRecord fault;

    /// Whether it happens to one chip.
    [[nodiscard]] bool isOfChip() const { return kind != eventKind::fault && kind != eventKind::powerCut; }
    /// Loads it from the state file, or stores it there.
    void exchange(stateFields& fields);
};

/// A bus has room for that many.
constexpr std::size_t eventBytes = 48 + faultBytes, mostEvents = 64;
/// The longest change of temperature: a day.
constexpr std::uint64_t longestRampNs = 86'400'000'000'000;

} // namespace kest::sim
