#include "sim/scenario.h"

#include "sim/power.h"
#include "sim/sensor.h"

#include <algorithm>
#include <utility>

namespace kest::sim
{

namespace
{

void moveTemperature(busChips& chips, const busState& state, eventRecord& event)
{
    sensor* const around = chips.findSensor(event.address, event.hub, event.port);
    if (around == nullptr) {
        event.lastingNs = 0;
        return;
    }
    if (!event.begun) {
        event.begun = true;
        event.fromMicroCelsius = around->microCelsius();
    }
    around->follow({.fromMicroCelsius = event.fromMicroCelsius,
                    .toMicroCelsius = event.microCelsius,
                    .begin = event.at,
                    .lastingNs = event.lastingNs},
                   state.now);
}

void addFault(busState& state, const faultRecord& fault)
{
    if (std::cmp_less(std::ranges::count(state.faults, false, &faultRecord::fromFile), mostFaults)) {
        state.faults.push_back(fault);
    }
}

// What it held or drove is let go.
void removeChip(busChips& chips, busState& state, const eventRecord& event)
{
    const bool isHub = event.hub == 0 && chips.findHub(event.address) != nullptr;
    if (!chips.remove(event.address, event.hub, event.port, state.now)) {
        return;
    }
    state.torn = true;
    if (isHub) {
        endHubFaults(state.faults, event.address, true);
    }
    if (chips.find(state.drivenBy) == nullptr) {
        state.driven.letGo();
    }
    chips.driveResetLines(state.faults, state.now);
}

/// @return whether the event is over
bool play(busChips& chips, busState& state, eventRecord& event)
{
    switch (event.kind) {
    case eventKind::fault:
        addFault(state, event.fault);
        break;
    case eventKind::remove:
        removeChip(chips, state, event);
        break;
    case eventKind::insert:
        chips.insert(event.address, event.hub, event.port, state.now);
        chips.driveResetLines(state.faults, state.now);
        break;
    case eventKind::temperature:
        // the change begins where it is met; its length counts from there
        if (!event.begun) {
            event.at = state.now;
            event.byTime = true;
        }
        moveTemperature(chips, state, event);
        return state.now - event.at >= event.lastingNs;
    case eventKind::powerCut:
        losePower(chips, state);
        break;
    }
    return true;
}

// A change of temperature takes the place of the one under way at its sensor.
void endChangeUnderWay(std::vector<eventRecord>& events, const eventRecord& by)
{
    std::erase_if(events, [&by](const eventRecord& other) {
        return other.begun && other.address == by.address && other.hub == by.hub && other.port == by.port;
    });
}

bool isDue(const busState& state, const eventRecord& event)
{
    return (event.byTime ? state.now : state.transactions) >= event.at;
}

} // namespace

void playEvents(busChips& chips, busState& state)
{
    if (state.events.empty()) {
        return;
    }
    std::vector<eventRecord> left;
    for (eventRecord& event : state.events) {
        if (!isDue(state, event)) {
            left.push_back(event);
            continue;
        }
        if (event.kind == eventKind::temperature && !event.begun) {
            endChangeUnderWay(left, event);
        }
        if (!play(chips, state, event)) {
            // in front of what is to come: a change that takes its place begins where it is by then
            left.insert(left.begin(), event);
        }
    }
    state.events = std::move(left);
}

std::uint64_t nextEventTime(const busState& state, std::uint64_t otherwise)
{
    std::uint64_t next = otherwise;
    for (const eventRecord& event : state.events) {
        const std::uint64_t at = event.begun ? event.at + event.lastingNs : event.at;
        if (event.byTime && at > state.now) {
            next = std::min(next, at);
        }
    }
    return next;
}

} // namespace kest::sim
