#include "sim/power.h"

namespace kest::sim
{

void losePower(busChips& chips, busState& state)
{
    chips.losePower(state.now);
    state.torn = true;
    for (auto& record : state.faults) {
        // no reset of the bus ends a hold of SCL, so this does
        const bool holdsScl = state.sclHeld && record.number == state.heldBy;
        record.ended = record.ended || record.untilReset || holdsScl;
    }
    chips.driveResetLines(state.faults, state.now);
    state.letLinesGo();
    state.driven.letGo();
}

} // namespace kest::sim
