#include "sim/transaction.h"

#include "base/clock.h"
#include "sim/pacedchip.h"
#include "sim/power.h"

#include <algorithm>

namespace kest::sim
{

namespace
{
// where a short transfer ends
constexpr unsigned bitsOfCutByte = 4;
// what a released SDA reads as
constexpr std::uint8_t nothingDriven = 0xFF;
} // namespace

bool joins(std::span<const segment> segments, std::size_t index)
{
    return index != 0 && index < segments.size() && segments[index].joined &&
           segments[index].address == segments[index - 1].address && segments[index].way == segments[index - 1].way;
}

transaction::transaction(busChips& chips, busState& state, wire& lines, std::span<segment> segments,
                         const adapterKind& kind, std::uint64_t deadline)
    : m_chips{chips}, m_state{state}, m_lines{lines}, m_deadline{deadline}, m_segments{segments}, m_adapter{kind},
      m_faults{state.faults, state.choices, segments,
               [this](std::uint8_t address) { return m_chips.findHub(address) != nullptr; }},
      m_powerMayGo{std::ranges::find(state.faults, faultKind::powerCut, &faultRecord::kind) != state.faults.end()}
{
}

transferResult transaction::run()
{
    for (const segment& part : m_segments) {
        if (const auto* const gone = m_faults.strikesAddress(faultKind::gone, part)) {
            return endWithout(*gone);
        }
    }
    // a chip whose read was cut off sees the START
    m_state.driven.letGo();
    for (std::size_t i = 0; i < m_segments.size(); ++i) {
        if (!runSegment(i)) {
            break;
        }
    }
    finish();
    return m_result;
}

// A driver that reports a time-out has waited for it.
transferResult transaction::endWithout(const faultRecord& gone)
{
    m_result.end = endWithoutAdapter(gone);
    if (m_result.end == outcome::timedOut) {
        const std::uint64_t begin = m_lines.clock.now;
        m_lines.clock.now = std::max(begin, std::min(begin + vainWaitNs(m_adapter), m_deadline));
    }
    return m_result;
}

bool transaction::runSegment(std::size_t index)
{
    segment& part = m_segments[index];
    m_result.segment = index;
    m_result.bytesMoved = 0;
    m_faults.ask(part.address, part.way);
    return (joins(m_segments, index) || sendAddress(part)) && moveBytes(part);
}

// The chip answers in the ninth bit of a byte, and may hold SCL after it.
busClock transaction::clockOfAcknowledge() const
{
    return {m_lines.clock.now + bitsOfByte * m_lines.clock.bitLasting, m_lines.clock.bitLasting};
}

// A chip that has missed the end of a read drives on. One that never got that far drives already.
void transaction::noteWhatIsDriven()
{
    if (m_selected != nullptr && !m_state.driven.holdsSda()) {
        m_state.driven = m_selected->drivesOn();
        m_state.drivenBy = m_selectedAt;
    }
}

// A chip that has not seen the end of a read keeps SDA low: no repeated START is possible.
bool transaction::isStillDriven()
{
    noteWhatIsDriven();
    return m_state.driven.holdsSda() && !fail(outcome::sdaHeld, ending::held);
}

bool transaction::sendAddress(const segment& part)
{
    if (isStillDriven() || isStruckAtAddress(part)) {
        return false;
    }
    chip* const addressed = isPowerLost(part) ? nullptr : m_chips.find(part.address);
    const auto byte = static_cast<std::uint8_t>(part.address | (part.way == direction::read ? 1 : 0));
    m_lines.start();
    if (m_selected != nullptr && m_selected != addressed) {
        m_selected->deselect();
    }
    const bool refused = isRefused(part);
    m_selected = nullptr;
    if (addressed != nullptr) {
        addressed->addressedAs(part.address);
    }
    busClock answering = clockOfAcknowledge();
    const std::uint64_t before = answering.now;
    const bool acknowledged = !refused && addressed != nullptr && startPaced(*addressed, part.way, answering, m_faults);
    m_lines.byte(byte, acknowledged);
    m_lines.clock.now += answering.now - before;
    if (!acknowledged) {
        if (addressed != nullptr) {
            addressed->deselect();
        }
        return fail(outcome::addressNotAcknowledged, ending::stop);
    }
    select(*addressed, part.address);
    const bool goesOn = endStretch(part, answering.now - before) && !isTimeOver();
    if (!goesOn && part.way == direction::read) {
        leaveNextByte();
    }
    return goesOn;
}

void transaction::select(chip& addressed, std::uint8_t address)
{
    m_selected = &addressed;
    m_selectedAt = address;
    m_answered[address >> 1] = true;
    m_byteNumber = 0;
    m_bitLost = false;
}

// The controller looks at its time behind each byte, addresses included.
bool transaction::isTimeOver() { return m_lines.clock.now > m_deadline && !fail(outcome::timedOut, ending::stop); }

// SCL rises at the end of it, whether the adapter waits for that or not.
// @return whether the transaction goes on
bool transaction::endStretch(const segment& part, std::uint64_t stretchedNs)
{
    if (stretchedNs > m_adapter.stretchLimitUs * std::uint64_t{1000}) {
        return fail(outcome::sclHeld, ending::dropped);
    }
    // a hub is a controller itself, and gives SCL back between two of its clocks
    m_bitLost =
        m_adapter.losesBits && stretchedNs != 0 && m_chips.findHub(part.address) == nullptr && losesBit(*m_selected);
    return true;
}

bool transaction::isRefused(const segment& part)
{
    if (m_chips.findHub(part.address) == nullptr) {
        return m_faults.strikesAddress(faultKind::nack, part) != nullptr;
    }
    if (m_answered[part.address >> 1]) {
        return false;
    }
    return m_faults.strikesHub(faultKind::hubSilent, part.address) != nullptr ||
           m_faults.strikesHub(faultKind::nack, part.address) != nullptr;
}

// Faults at the address: before its START, lines held; in it, another controller.
bool transaction::isStruckAtAddress(const segment& part)
{
    if (isHeldAt(part, 0)) {
        return true;
    }
    if (m_faults.strikes(faultKind::arbitration, part, 0) == nullptr) {
        return false;
    }
    m_lines.start();
    // the other controller's
    m_lines.byte(0, false);
    fail(outcome::arbitrationLost, ending::dropped);
    return true;
}

// Asked for each byte. The power comes back after the transaction, so that all of it meets dead chips. A byte at which
// no fault may strike counts, too.
bool transaction::isPowerLost(const segment& part)
{
    if (!m_powerMayGo || m_powerLost) {
        return m_powerLost;
    }
    if (m_selected != nullptr && isGuarded(part)) {
        m_faults.passes(faultKind::powerCut);
    } else if (m_faults.meets(faultKind::powerCut)) {
        m_state.now = m_lines.clock.now;
        losePower(m_chips, m_state);
        m_powerLost = true;
        m_selected = nullptr;
    }
    return m_powerLost;
}

bool transaction::isHeldAt(const segment& part, std::uint64_t byte)
{
    const hub922* const hub = m_chips.findHub(part.address);
    // a hub in reset holds nothing
    if (hub != nullptr && hub->inReset()) {
        return false;
    }
    auto* by = m_faults.strikes(faultKind::holdSda, part, byte);
    const bool sda = by != nullptr;
    by = sda ? by : m_faults.strikes(faultKind::holdScl, part, byte);
    if (by == nullptr) {
        return false;
    }
    by->holder = hub != nullptr ? part.address : std::uint8_t{0};
    by->letGo = false;
    hold(*by, sda);
    return true;
}

void transaction::hold(const faultRecord& by, bool sda)
{
    m_state.sdaHeld = sda;
    m_state.sclHeld = !sda;
    m_state.heldBy = by.number;
    m_state.resetsToGo = sda ? by.value : 0;
    m_state.heldUntil = by.lastsMs == 0 ? 0 : std::min(m_lines.clock.now + by.lastsMs * nsPerMs, latestTime);
    fail(sda ? outcome::sdaHeld : outcome::sclHeld, ending::held);
}

bool transaction::moveBytes(segment& part)
{
    const bool goesOn = joins(m_segments, m_result.segment + 1);
    for (std::size_t i = 0; i < part.bytes.size(); ++i) {
        const bool more = goesOn || i + 1 < part.bytes.size();
        const bool moved =
            part.way == direction::write ? sendByte(part, part.bytes[i]) : readByte(part, part.bytes[i], more);
        if (!moved) {
            return false;
        }
        ++m_result.bytesMoved;
        ++m_byteNumber;
        if (isTimeOver()) {
            return false;
        }
    }
    if (part.way == direction::read && part.bytes.empty() && !goesOn && m_selected != nullptr) {
        // the chip sends, whether a byte was wanted or not
        leaveNextByte();
    }
    return true;
}

// Whether the controller's time is over when the byte that comes now is.
bool transaction::isLastInTime() const
{
    return m_lines.clock.now + bitsOfByte * m_lines.clock.bitLasting > m_deadline;
}

// A hub that has given status 0 is safe from faults until the end of its read.
bool transaction::isGuarded(const segment& part) const { return part.way == direction::read && m_selected->guarded(); }

// Faults before a data byte.
bool transaction::isStruckAtByte(const segment& part, std::uint8_t byte)
{
    if (isGuarded(part)) {
        return false;
    }
    // at byte 0 these two struck before the address
    if (m_byteNumber != 0) {
        if (isHeldAt(part, m_byteNumber)) {
            if (part.way == direction::read) {
                leaveNextByte();
            }
            return true;
        }
        if (isArbitrationLostAtByte(part)) {
            return true;
        }
    }
    if (m_faults.strikes(faultKind::shortTransfer, part, m_byteNumber) == nullptr) {
        return false;
    }
    cutShort(part, byte);
    return true;
}

// The winner's byte. In a read the winner reads it to its end: the chip sees the NACK behind it.
bool transaction::isArbitrationLostAtByte(const segment& part)
{
    if (m_faults.strikes(faultKind::arbitration, part, m_byteNumber) == nullptr) {
        return false;
    }
    const bool reads = part.way == direction::read;
    m_lines.byte(reads ? givePaced(*m_selected, m_lines.clock, m_faults) : std::uint8_t{0}, false);
    if (reads) {
        noteWhatIsDriven();
    }
    fail(outcome::arbitrationLost, ending::dropped);
    return true;
}

// The controller is gone while the chip sends a byte, which does not count then.
// @param bitsSent  how many of its bits the controller has clocked
void transaction::leaveDriven(std::uint8_t byte, unsigned bitsSent)
{
    m_selected->cut();
    m_state.driven = {byte, bitsSent};
    m_state.drivenBy = m_selectedAt;
}

// The same before the first bit of the byte that comes next. Nobody waits for the time that the chip needs for it.
void transaction::leaveNextByte()
{
    busClock aside = m_lines.clock;
    leaveDriven(givePaced(*m_selected, aside, m_faults), 0);
}

// The controller goes away in the middle of a byte.
void transaction::cutShort(const segment& part, std::uint8_t byte)
{
    if (part.way == direction::read) {
        byte = givePaced(*m_selected, m_lines.clock, m_faults);
        leaveDriven(byte, bitsOfCutByte);
    }
    m_lines.cutByte(byte, bitsOfCutByte);
    fail(outcome::shortTransfer, ending::dropped);
}

bool transaction::sendByte(const segment& part, std::uint8_t byte)
{
    if (isPowerLost(part)) {
        m_lines.byte(byte, false);
        return fail(outcome::dataNotAcknowledged, ending::dropped);
    }
    if (isStruckAtByte(part, byte)) {
        return false;
    }
    if (m_bitLost) {
        // the chip has seen eight clocks only, and does not acknowledge in the ninth
        m_lines.byte(byte, false);
        return fail(outcome::dataNotAcknowledged, ending::dropped);
    }
    const auto* const corrupt = m_faults.strikes(faultKind::corrupt, part, m_byteNumber);
    const auto sent = static_cast<std::uint8_t>(corrupt != nullptr ? byte ^ corrupt->value : byte);
    const bool refused = m_faults.strikes(faultKind::nackData, part, m_byteNumber) != nullptr;
    busClock answering = clockOfAcknowledge();
    const std::uint64_t before = answering.now;
    const bool acknowledged = !refused && takePaced(*m_selected, sent, answering);
    m_lines.byte(sent, acknowledged);
    m_lines.clock.now += answering.now - before;
    m_chips.driveResetLines(m_state.faults, m_state.now);
    return acknowledged ? endStretch(part, answering.now - before)
                        : fail(outcome::dataNotAcknowledged, ending::dropped);
}

bool transaction::readByte(const segment& part, std::uint8_t& byte, bool more)
{
    if (isPowerLost(part)) {
        byte = nothingDriven;
        m_lines.byte(byte, more);
        return true;
    }
    const bool safe = isGuarded(part);
    if (isStruckAtByte(part, 0)) {
        return false;
    }
    const std::uint64_t before = m_lines.clock.now;
    byte = givePaced(*m_selected, m_lines.clock, m_faults);
    if (!endStretch(part, m_lines.clock.now - before)) {
        leaveDriven(byte, 0);
        return false;
    }
    byte = m_bitLost ? withFirstBitTwice(byte) : byte;
    const auto* const corrupt = safe ? nullptr : m_faults.strikes(faultKind::corrupt, part, m_byteNumber);
    const auto changed = static_cast<std::uint8_t>(corrupt != nullptr ? byte ^ corrupt->value : byte);
    // a hub's trouble never reads as status 0
    const bool isStatus = m_chips.findHub(part.address) != nullptr && m_byteNumber == 0;
    if (changed != 0 || !isStatus) {
        byte = changed;
    }
    m_lines.byte(byte, more && !isLastInTime());
    return true;
}

// @return false, for the caller to return
bool transaction::fail(outcome how, ending with)
{
    m_result.end = how;
    m_end = with;
    return false;
}

void transaction::finish()
{
    const bool drop = m_end != ending::stop;
    if (drop && m_selected != nullptr) {
        m_selected->deselect();
    } else if (!m_segments.empty() && m_segments.back().way == direction::read) {
        noteWhatIsDriven();
    }
    if (m_end == ending::held && m_state.sclHeld) {
        m_lines.leaveSclHeld(patienceNs(m_adapter), !m_state.driven.holdsSda());
    } else if (m_end == ending::held || m_state.driven.holdsSda()) {
        m_lines.leaveSdaHeld();
    } else {
        m_state.driven.letGo();
        m_lines.stop();
        if (!drop && m_selected != nullptr) {
            m_selected->stop(m_lines.clock, m_faults);
        }
    }
    if (m_result.end == outcome::done) {
        m_result.segment = m_result.bytesMoved = 0;
    }
    m_chips.driveResetLines(m_state.faults, m_state.now);
}

} // namespace kest::sim
