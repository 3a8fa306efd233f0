/// The controller of a bus: it refuses transactions that its kind of adapter does not take, and runs the others in its
/// own way.
#pragma once

#include "sim/adapter.h"
#include "sim/bus.h"
#include "sim/buschips.h"
#include "sim/busstate.h"
#include "sim/wire.h"

#include <span>

namespace kest::sim
{

/// Whether an adapter takes the segments as one transaction. What it does not take it refuses before its START.
bool takes(const adapterKind& kind, std::span<const segment> segments);

/// Runs the segments on a bus whose lines are free, as the adapter does.
/// @param segments  which the adapter takes
transferResult runTransaction(const adapterKind& kind, busChips& chips, busState& state, wire& lines,
                              std::span<segment> segments);

} // namespace kest::sim
