#include "sim/hub922.h"

#include <algorithm>

namespace kest::sim
{

namespace
{
constexpr std::uint8_t nothingDriven = 0xFF;
} // namespace

bool hub922::start(direction way, busClock& clock, chipFaults& faults)
{
    // once it has acknowledged, it is not silent before the STOP
    const bool inTransaction = m_writing || m_answering != answer::nothing;
    if (m_heldInReset || (!inTransaction && busy(clock.now))) {
        deselect();
        return false;
    }
    if (way == direction::write) {
        m_subBuses.endRead(clock.now, faults);
        deselect();
        m_writing = true;
        return true;
    }
    const bool header = m_writing && m_receivedBytes != 0;
    if (header && !(isCommand() && m_receivedBytes == commandBytes)) {
        startRead(clock, faults);
    } else {
        if (header) {
            runCommand(faults);
        }
        m_subBuses.endRead(clock.now, faults);
        m_answering = answer::plainStatus;
    }
    m_writing = m_statusGiven = false;
    return true;
}

// A read behind a header: its first byte is the status.
void hub922::startRead(busClock& clock, chipFaults& faults)
{
    const hubStatus outcome = fetch(clock, faults);
    const auto bad = outcome == hubStatus::done ? faults.meets(faultKind::hubBadFirstByte) : std::nullopt;
    m_firstByte = bad ? static_cast<std::uint8_t>(bad->value) : static_cast<std::uint8_t>(outcome);
    m_answering = m_firstByte == 0 ? answer::data : answer::failure;
    note(outcome);
}

bool hub922::take(std::uint8_t byte, busClock&)
{
    if (m_receivedBytes < m_received.size()) {
        m_received[m_receivedBytes] = byte;
    }
    ++m_receivedBytes;
    // a transfer that is too long shows in its status
    return true;
}

std::uint8_t hub922::give(busClock& clock, chipFaults& faults)
{
    m_beingRead = hubStatus::done;
    if (!m_statusGiven) {
        m_statusGiven = true;
        return m_answering == answer::plainStatus ? giveStatus() : m_firstByte;
    }
    // SCL is held until the byte is there
    return m_answering == answer::data ? m_subBuses.readByte(clock.now, faults) : nothingDriven;
}

// Reading the status clears it.
std::uint8_t hub922::giveStatus()
{
    m_beingRead = m_status;
    m_status = hubStatus::done;
    return static_cast<std::uint8_t>(m_beingRead);
}

// A status that was not read to its end stays.
void hub922::cut()
{
    note(m_beingRead);
    deselect();
}

void hub922::stop(busClock& clock, chipFaults& faults)
{
    if (m_writing && m_receivedBytes != 0 && isCommand()) {
        runCommand(faults);
    } else if (m_writing && m_receivedBytes != 0 && m_status == hubStatus::done) {
        note(passOn(clock.now, faults));
    }
    m_subBuses.endRead(clock.now, faults);
    deselect();
}

void hub922::deselect()
{
    m_subBuses.dropRead();
    m_writing = false;
    m_receivedBytes = 0;
    m_answering = answer::nothing;
    m_statusGiven = false;
    m_beingRead = hubStatus::done;
}

// The first trouble stays until it has been read.
void hub922::note(hubStatus outcome)
{
    if (m_status == hubStatus::done) {
        m_status = outcome;
    }
}

void hub922::runCommand(chipFaults& faults)
{
    const bool whole = m_receivedBytes == commandBytes;
    m_receivedBytes = 0;
    // that command changes nothing: the next plain read gives the status anyway
    if (whole && m_received[1] == tellErrorStatus) {
        return;
    }
    if (!whole || m_received[1] != resetSubBuses) {
        note(hubStatus::malformedCommand);
        return;
    }
    faults.subBusWasReset();
    // a hold that outlasts the reset shows as the status after it
    m_status = m_holds.reset();
}

// What is kept of what came behind the hub's address.
std::span<const std::uint8_t> hub922::received() const
{
    return std::span{m_received}.first(std::min(m_receivedBytes, longestWrite));
}

// Everything that ends a transfer before its first bit on a sub-bus.
hubStatus hub922::check(chipFaults& faults)
{
    if (m_status != hubStatus::done) {
        return m_status;
    }
    if (m_received[0] >= ports) {
        return hubStatus::noSuchPort;
    }
    if (m_receivedBytes > longestWrite) {
        return hubStatus::tooLong;
    }
    if (m_receivedBytes <= subBuses::headerBytes || (m_received[1] & 1) != 0) {
        return hubStatus::malformedCommand;
    }
    return m_holds.meet(m_received[0], faults);
}

// After the STOP of a write: the main bus is free meanwhile, and the hub does not acknowledge.
hubStatus hub922::passOn(std::uint64_t now, chipFaults& faults)
{
    hubStatus outcome = check(faults);
    if (outcome == hubStatus::done) {
        outcome = m_subBuses.write(received(), now, faults);
    }
    m_busyUntil = now;
    return outcome;
}

// Repeated START after a header: SCL is held until the first byte could be fetched.
hubStatus hub922::fetch(busClock& clock, chipFaults& faults)
{
    if (isCommand()) {
        // there is none that reads; as with every refused read, the status stays
        return m_status == hubStatus::done ? hubStatus::malformedCommand : m_status;
    }
    const hubStatus outcome = check(faults);
    return outcome == hubStatus::done ? m_subBuses.beginRead(received(), clock.now, faults) : outcome;
}

void hub922::resetLine(bool low)
{
    if (m_heldInReset && !low) {
        m_status = hubStatus::outOfReset;
    }
    if (low) {
        deselect();
        m_status = hubStatus::done;
        m_busyUntil = 0;
        m_holds.clear();
    }
    m_heldInReset = low;
}

void hub922::exchange(stateFields& fields)
{
    auto number = static_cast<std::uint8_t>(m_status);
    fields.numbers(number, m_busyUntil);
    fields.flag(m_heldInReset);
    fields.check(!m_heldInReset || m_hasResetLine, "a hub in reset without a reset line");
    fields.check(m_busyUntil <= fields.busTime() + longestWaitNs, "the end of a hub's work");
    m_holds.exchange(fields);
    m_status = static_cast<hubStatus>(number);
}

void hub922::powerUp()
{
    resetLine(true);
    resetLine(false);
}

// A new machine's hubs have been started and asked already.
void hub922::asNew()
{
    powerUp();
    m_status = hubStatus::done;
}

void hub922::endEffects(const faultEnded& ended) { m_holds.endEffects(ended); }

std::vector<listedRegister> hub922::list(std::uint64_t now)
{
    std::vector<listedRegister> lines{
        {"STATUS", static_cast<std::uint32_t>(m_status), textOf(m_status)},
        {"reset", m_heldInReset ? 1U : 0U, m_heldInReset ? "held in reset" : "running"},
        {"busy", busy(now) ? 1U : 0U, busy(now) ? "passing a write on" : "ready"},
    };
    m_holds.list(lines);
    return lines;
}

} // namespace kest::sim
