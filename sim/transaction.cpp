#include "sim/transaction.h"

namespace kest::sim
{

namespace
{
constexpr unsigned resetPin = 15; ///< of the LED driver
}

void busChips::driveResetLines(std::vector<faultRecord>& faults) const
{
    for (const auto& line : resetLines) {
        const bool low = line.driver->isPulledLow(resetPin);
        if (low && !line.hub->inReset()) {
            endHubFaults(faults, line.hubAddress, true);
        }
        if (low != line.hub->inReset()) {
            line.hub->resetLine(low);
        }
    }
}

transaction::transaction(const busChips& on, busState& of, wire& over, std::span<segment> parts)
    : chips{on}, state{of}, lines{over}, segments{parts}, faults{state.faults, parts, [this](std::uint8_t address) {
                                                                     return chips.findHub(address) != nullptr;
                                                                 }}
{
}

transferResult transaction::run()
{
    const auto gone = [this](const segment& part) { return faults.strikesAddress(faultKind::gone, part) != nullptr; };
    if (std::ranges::any_of(segments, gone)) {
        result.end = outcome::gone;
    } else {
        bool good = true;
        for (std::size_t i = 0; good && i < segments.size(); ++i) {
            good = runSegment(i);
        }
        finish();
    }
    return result;
}

bool transaction::runSegment(std::size_t index)
{
    segment& part = segments[index];
    const bool joins =
        index != 0 && part.joined && part.address == segments[index - 1].address && part.way == segments[index - 1].way;
    result.segment = index;
    result.bytesMoved = 0;
    faults.ask(part.address, part.way);
    return (joins || sendAddress(part)) && moveBytes(part);
}

bool transaction::sendAddress(const segment& part)
{
    chip* const addressed = chips.find(part.address);
    const auto byte = static_cast<std::uint8_t>(part.address | (part.way == direction::read ? 1 : 0));
    bool good = !addressStruck(part);
    if (good) {
        lines.start();
        if (selected != nullptr && selected != addressed) {
            selected->deselect();
        }
        const bool refused = addressRefused(part);
        selected = nullptr;
        // The chip answers in the ninth bit, and may hold SCL after it.
        busClock answering{lines.clock.now + bitsOfByte * lines.clock.bitLasting, lines.clock.bitLasting};
        const std::uint64_t before = answering.now;
        const bool acknowledged = !refused && addressed != nullptr && addressed->start(part.way, answering, faults);
        lines.byte(byte, acknowledged);
        lines.clock.now += answering.now - before;
        if (acknowledged) {
            selected = addressed;
        } else if (addressed != nullptr) {
            addressed->deselect();
        }
        answered[part.address >> 1] = answered[part.address >> 1] || acknowledged;
        byteNumber = 0;
        good = acknowledged || fail(outcome::addressNotAcknowledged, ending::stop);
    }
    return good;
}

bool transaction::addressRefused(const segment& part)
{
    const faultRecord* fault = nullptr;
    if (chips.findHub(part.address) == nullptr) {
        fault = faults.strikesAddress(faultKind::nack, part);
    } else if (!answered[part.address >> 1]) {
        fault = faults.strikesHub(faultKind::hubSilent, part.address);
        if (fault == nullptr) {
            fault = faults.strikesHub(faultKind::nack, part.address);
        }
    }
    return fault != nullptr;
}

// Faults at the address: before its START, lines held; in it, another controller.
bool transaction::addressStruck(const segment& part)
{
    bool struck = holdLine(part, 0);
    if (!struck && faults.strikes(faultKind::arbitration, part, 0) != nullptr) {
        lines.start();
        // the other one's
        lines.byte(0, false);
        struck = !fail(outcome::arbitrationLost, ending::dropped);
    }
    return struck;
}

bool transaction::holdLine(const segment& part, std::uint64_t byte)
{
    const auto* sda = faults.strikes(faultKind::holdSda, part, byte);
    const auto* scl = sda == nullptr ? faults.strikes(faultKind::holdScl, part, byte) : nullptr;
    const auto* hold = sda != nullptr ? sda : scl;
    if (hold != nullptr) {
        state.sdaHeld = sda != nullptr;
        state.sclHeld = scl != nullptr;
        state.heldBy = hold->number;
        state.resetsToGo = hold->value;
        fail(sda != nullptr ? outcome::sdaHeld : outcome::sclHeld, ending::held);
    }
    return hold != nullptr;
}

bool transaction::moveBytes(segment& part)
{
    const std::size_t index = result.segment;
    const bool joined = index + 1 < segments.size() && segments[index + 1].joined &&
                        segments[index + 1].address == part.address && segments[index + 1].way == part.way;
    bool good = true;
    for (std::size_t i = 0; good && i < part.bytes.size(); ++i) {
        good = part.way == direction::write ? sendByte(part, part.bytes[i])
                                            : readByte(part, part.bytes[i], joined || i + 1 < part.bytes.size());
        if (good) {
            ++result.bytesMoved;
            ++byteNumber;
        }
    }
    return good;
}

bool transaction::hubStays(const segment& part) const { return part.way == direction::read && selected->guarded(); }

// Faults ahead of a data byte. A hub that has told status 0 is safe until the end of its read.
bool transaction::struckByByte(const segment& part, std::uint8_t byte)
{
    bool struck = false;
    if (!hubStays(part)) {
        struck = byteNumber != 0 && holdLine(part, byteNumber);
        if (!struck && byteNumber != 0 && faults.strikes(faultKind::arbitration, part, byteNumber) != nullptr) {
            lines.byte(0, false);
            struck = !fail(outcome::arbitrationLost, ending::dropped);
        }
        if (!struck && faults.strikes(faultKind::shortTransfer, part, byteNumber) != nullptr) {
            lines.cutByte(byte, 4);
            struck = !fail(outcome::shortTransfer, part.way == direction::read ? ending::cut : ending::dropped);
        }
    }
    return struck;
}

bool transaction::sendByte(const segment& part, std::uint8_t byte)
{
    bool good = !struckByByte(part, byte);
    if (good) {
        const auto* corrupt = faults.strikes(faultKind::corrupt, part, byteNumber);
        const auto sent = static_cast<std::uint8_t>(corrupt != nullptr ? byte ^ corrupt->value : byte);
        const bool refused = faults.strikes(faultKind::nackData, part, byteNumber) != nullptr;
        busClock answering{lines.clock.now + bitsOfByte * lines.clock.bitLasting, lines.clock.bitLasting};
        const bool acknowledged = !refused && selected->take(sent, answering);
        lines.byte(sent, acknowledged);
        chips.driveResetLines(state.faults);
        good = acknowledged || fail(outcome::dataNotAcknowledged, ending::dropped);
    }
    return good;
}

bool transaction::readByte(const segment& part, std::uint8_t& byte, bool more)
{
    const bool safe = hubStays(part);
    bool good = !struckByByte(part, 0);
    if (good) {
        byte = selected->give(lines.clock, faults);
        const bool hub = chips.findHub(part.address) != nullptr;
        const auto* corrupt = safe ? nullptr : faults.strikes(faultKind::corrupt, part, byteNumber);
        const auto changed = static_cast<std::uint8_t>(corrupt != nullptr ? byte ^ corrupt->value : byte);
        // a hub's trouble is never told as status 0
        if (changed != 0 || !hub || byteNumber != 0) {
            byte = changed;
        }
        lines.byte(byte, more);
    }
    return good;
}

// @return false, for the caller's `good`
bool transaction::fail(outcome how, ending with)
{
    result.end = how;
    end = with;
    return false;
}

void transaction::finish()
{
    const bool drop = end != ending::stop;
    if (end == ending::cut && selected != nullptr) {
        selected->cut();
        end = selected->holdsSda() ? ending::held : ending::stop;
    } else if (drop && selected != nullptr) {
        selected->deselect();
    }
    if (end == ending::held) {
        lines.leave(!state.sclHeld, state.sclHeld);
    } else {
        lines.stop();
        if (!drop && selected != nullptr) {
            selected->stop(lines.clock, faults);
        }
    }
    if (result.end == outcome::done) {
        result.segment = result.bytesMoved = 0;
    }
    chips.driveResetLines(state.faults);
}

} // namespace kest::sim
