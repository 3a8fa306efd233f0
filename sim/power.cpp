#include "sim/power.h"

namespace kest::sim
{

void losePower(busChips& chips, busState& state)
{
    chips.losePower(state.now);
    state.torn = true;
    for (auto& record : state.faults) {
        record.ended = record.ended || record.untilReset;
    }
    chips.driveResetLines(state.faults, state.now);
    state.sdaHeld = state.sclHeld = false;
    state.heldBy = state.resetsToGo = 0;
    state.driven.letGo();
}

} // namespace kest::sim
