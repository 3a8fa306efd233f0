#include "sim/busstate.h"

namespace kest::sim
{

void busState::state(stateFields& fields)
{
    fields.flag(page.pending);
    fields.numbers(page.chip, page.offset, page.length);
    fields.bytes(page.bytes);
    fields.numbers(now, clockStamp);
    fields.flag(sdaHeld);
    fields.flag(sclHeld);
    fields.numbers(heldBy, resetsToGo);
    fields.flag(recording);
    fields.numbers(waveOrigin, waveBytes);
    auto count = static_cast<std::uint32_t>(faults.size());
    fields.number(count);
    faults.resize(std::min<std::size_t>(count, mostFaults));
    for (auto& record : faults)
        record.state(fields);
    now        = std::min(now, latestTime);
    waveOrigin = std::min(waveOrigin, now);
}

} // namespace kest::sim
