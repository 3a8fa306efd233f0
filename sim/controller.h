/// The controller of a bus: it refuses transactions that its kind of adapter does not take, and runs the others in its
/// own way.
#pragma once

#include "sim/adapter.h"
#include "sim/bus.h"
#include "sim/buschips.h"
#include "sim/busstate.h"
#include "sim/wire.h"

#include <functional>
#include <span>

namespace kest::sim
{

/// Whether an adapter takes the segments as one transaction. What it does not take it refuses before its START.
bool takes(const adapterKind& kind, std::span<const segment> segments);

/// Commits what has happened on the bus so far. @return false when an image would not take its page, or was lost
using partKept = std::function<bool()>;

/// Runs the segments on a bus whose lines are free, as the adapter does.
/// @param segments  which the adapter takes
/// @param keep  called behind each STOP between them that made a chip write a page: the state has room for one page
transferResult runTransaction(const adapterKind& kind, busChips& chips, busState& state, wire& lines,
                              std::span<segment> segments, const partKept& keep);

} // namespace kest::sim
