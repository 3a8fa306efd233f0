#include "sim/busstate.h"

#include "base/clock.h"

#include <algorithm>

namespace kest::sim
{

void busState::letLinesGo()
{
    const auto fault = std::ranges::find(faults, heldBy, &faultRecord::number);
    if (fault != faults.end()) {
        fault->holder = 0;
    }
    sdaHeld = sclHeld = false;
    heldBy = resetsToGo = 0;
    heldUntil = 0;
}

// Every hold is that of a fault, and ends with it.
void busState::checkHold(stateFields& fields) const
{
    const bool known = std::ranges::find(faults, heldBy, &faultRecord::number) != faults.end();
    fields.check(held() == (heldBy != 0) && (known || heldBy == 0) && !(sdaHeld && sclHeld) &&
                     heldUntil <= std::min(now, latestTime) + longestHoldMs * nsPerMs,
                 "the hold of a line");
}

void busState::exchange(stateFields& fields)
{
    fields.flag(page.pending);
    fields.numbers(page.chip, page.offset, page.length);
    fields.bytes(page.bytes);
    fields.numbers(now, clockStamp);
    fields.flag(sdaHeld);
    fields.flag(sclHeld);
    fields.numbers(heldBy, resetsToGo);
    driven.exchange(fields);
    fields.flag(torn);
    fields.flag(recording);
    fields.numbers(waveOrigin, waveBytes);
    fields.flag(waveAt.scl);
    fields.flag(waveAt.sda);
    fields.number(waveAt.tick);
    auto count = static_cast<std::uint32_t>(faults.size());
    fields.number(count);
    fields.check(page.length <= page.bytes.size(), "the page on its way into an image");
    fields.check(now < latestTime, "bus time");
    fields.check(waveOrigin <= now && waveAt.tick <= (now - waveOrigin) / waveText::tickNs && waveBytes < latestTime,
                 "the waveform");
    fields.check(count <= 2 * mostFaults, "the number of faults");
    faults.resize(std::min<std::size_t>(count, 2 * mostFaults));
    for (auto& record : faults) {
        record.exchange(fields);
    }
    fields.numbers(heldUntil, drivenBy);
    checkHold(fields);
    fields.check((drivenBy & 1) == 0, "the address of a read that was cut off");
    auto eventCount = static_cast<std::uint32_t>(events.size());
    fields.numbers(transactions, eventCount);
    fields.check(transactions <= latestTime, "the number of transactions");
    fields.check(eventCount <= mostEvents, "the number of events");
    events.resize(std::min<std::size_t>(eventCount, mostEvents));
    for (auto& event : events) {
        event.exchange(fields);
    }
}

} // namespace kest::sim
