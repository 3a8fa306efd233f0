/// What a scenario lets happen on a bus as its time passes: faults, removals and insertions of chips, changes of
/// temperature, power cuts.
#pragma once

#include "sim/buschips.h"
#include "sim/busstate.h"

#include <cstdint>

namespace kest::sim
{

/// Lets happen what is due.
void playEvents(busChips& chips, busState& state);

/// Bus time of the next event that comes by time. @param otherwise  returned when there is none before it
std::uint64_t nextEventTime(const busState& state, std::uint64_t otherwise);

} // namespace kest::sim
