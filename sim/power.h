/// The loss of a bus's power, with its return.
#pragma once

#include "sim/buschips.h"
#include "sim/busstate.h"

namespace kest::sim
{

/// Chips start anew, pages in a write cycle are torn, lines are let go, and faults that last until a reset end. What
/// was torn reaches the images once the state has been committed.
void losePower(busChips& chips, busState& state);

} // namespace kest::sim
