#include "sim/hub922.h"

#include "sim/bittiming.h"
#include "sim/pacedchip.h"

#include <algorithm>

namespace kest::sim
{

namespace
{
// 400 kHz whatever the main bus's clock
constexpr std::uint64_t subBusBitNs = 2500;
constexpr std::uint64_t longestAskingNs = 30'000'000;
constexpr std::uint8_t nothingDriven = 0xFF;

void spend(busClock& clock, std::uint64_t bits) { clock.now += bits * clock.bitLasting; }

struct statusText {
    hubStatus status;
    const char* text;
};
constexpr std::array statusTexts{
    statusText{hubStatus::done, "done"},
    statusText{hubStatus::malformedCommand, "malformed command"},
    statusText{hubStatus::noAnswer, "device did not answer"},
    statusText{hubStatus::subBusSdaHeld, "sub-bus SDA held"},
    statusText{hubStatus::subBusSclHeld, "sub-bus SCL held"},
    statusText{hubStatus::arbitrationLost, "arbitration lost"},
    statusText{hubStatus::subBusTimeout, "sub-bus time-out"},
    statusText{hubStatus::noSuchPort, "no such port"},
    statusText{hubStatus::tooLong, "transfer too long"},
    statusText{hubStatus::outOfReset, "out of reset"},
};
// the hub's own faults come after the last status of a transfer, and end before this one
constexpr hubStatus firstUnknown{12};

const char* textOf(hubStatus status)
{
    const auto* const found = std::ranges::find(statusTexts, status, &statusText::status);
    if (found != statusTexts.end()) {
        return found->text;
    }
    return status < firstUnknown ? "hub hardware fault" : "unknown";
}
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
        endFetch(clock, faults);
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
        endFetch(clock, faults);
        m_answering = answer::plainStatus;
    }
    m_writing = m_statusGiven = false;
    return true;
}

// A read behind a header: its first byte is the status.
void hub922::startRead(busClock& clock, chipFaults& faults)
{
    const hubStatus outcome = isCommand() ? refuseRead() : fetch(clock, faults);
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
    if (m_answering != answer::data || m_fetching == nullptr) {
        return nothingDriven;
    }
    busClock subBus{clock.now, subBusBitNs};
    spend(subBus, bitsOfByte);
    const std::uint8_t byte = givePaced(*m_fetching, subBus, faults);
    // SCL is held until the byte is there
    clock.now = subBus.now;
    return byte;
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
        note(passOn(clock, faults));
    }
    endFetch(clock, faults);
    deselect();
}

void hub922::deselect()
{
    if (m_fetching != nullptr) {
        m_fetching->deselect();
    }
    m_fetching = nullptr;
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
    resetHolds();
}

// A hold that outlasts this reset shows as the status after it.
void hub922::resetHolds()
{
    for (auto& hold : m_holds) {
        if (hold.resetsToGo == 0) {
            hold = {};
        } else {
            --hold.resetsToGo;
        }
    }
    if (anyHeld(heldLine::sda)) {
        m_status = hubStatus::subBusSdaHeld;
    } else {
        m_status = anyHeld(heldLine::scl) ? hubStatus::subBusSclHeld : hubStatus::done;
    }
}

bool hub922::anyHeld(heldLine line) const { return std::ranges::find(m_holds, line, &portHold::line) != m_holds.end(); }

hub922::device hub922::target() const
{
    const auto found = m_devices.find({m_received[0], m_received[1]});
    if (found == m_devices.end()) {
        return {};
    }
    chip& model = found->second.find();
    return model.isThere() ? device{&model, found->second.offsetBytes} : device{};
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
    if (m_receivedBytes <= headerBytes || (m_received[1] & 1) != 0) {
        return hubStatus::malformedCommand;
    }
    return checkSubBus(m_holds.at(m_received[0]), faults);
}

hubStatus hub922::checkSubBus(portHold& hold, chipFaults& faults)
{
    if (hold.line == heldLine::none) {
        if (const auto given = faults.meets(faultKind::hubStatus)) {
            return static_cast<hubStatus>(given->value);
        }
        if (const auto sda = faults.meets(faultKind::hubHoldSda)) {
            hold = {heldLine::sda, sda->number, sda->value};
        } else if (const auto scl = faults.meets(faultKind::hubHoldScl)) {
            hold = {heldLine::scl, scl->number, scl->value};
        }
    }
    switch (hold.line) {
    case heldLine::sda:
        return hubStatus::subBusSdaHeld;
    case heldLine::scl:
        return hubStatus::subBusSclHeld;
    case heldLine::none:
        break;
    }
    return hubStatus::done;
}

// START, address, and the received bytes after the header.
bool hub922::sendTo(chip& model, std::size_t bytes, busClock& subBus, chipFaults& faults)
{
    spend(subBus, bitsOfCondition + bitsOfByte);
    model.addressedAs(m_received[1]);
    bool acknowledged = startPaced(model, direction::write, subBus, faults);
    for (std::size_t i = headerBytes; acknowledged && i < headerBytes + bytes; ++i) {
        spend(subBus, bitsOfByte);
        acknowledged = takePaced(model, m_received[i], subBus);
    }
    return acknowledged;
}

// After the STOP of a write: the main bus is free meanwhile, and the hub does not acknowledge.
hubStatus hub922::passOn(busClock& clock, chipFaults& faults)
{
    busClock subBus{clock.now, subBusBitNs};
    const hubStatus outcome = passOn(target(), subBus, faults);
    m_busyUntil = subBus.now;
    return outcome;
}

hubStatus hub922::passOn(const device& to, busClock& subBus, chipFaults& faults)
{
    if (const hubStatus outcome = check(faults); outcome != hubStatus::done) {
        return outcome;
    }
    if (to.model == nullptr) {
        return askNobody(subBus);
    }
    if (m_receivedBytes < headerBytes + to.offsetBytes) {
        return hubStatus::malformedCommand;
    }
    const bool acknowledged = sendTo(*to.model, m_receivedBytes - headerBytes, subBus, faults);
    spend(subBus, bitsOfCondition);
    if (!acknowledged) {
        to.model->deselect();
        return hubStatus::noAnswer;
    }
    faults.behindHub(m_received[1]);
    to.model->stop(subBus, faults);
    faults.behindHub(0);
    return waitForDevice(*to.model, subBus, faults);
}

// START, an address that nobody has, STOP.
hubStatus hub922::askNobody(busClock& subBus)
{
    spend(subBus, bitsOfCondition + bitsOfByte + bitsOfCondition);
    return hubStatus::noAnswer;
}

// Asks until the device acknowledges again.
hubStatus hub922::waitForDevice(chip& device, busClock& subBus, chipFaults& faults)
{
    const std::uint64_t latest = subBus.now + longestAskingNs;
    bool ready = false;
    do {
        spend(subBus, bitsOfCondition + bitsOfByte);
        ready = startPaced(device, direction::write, subBus, faults);
        spend(subBus, bitsOfCondition);
        device.deselect();
    } while (!ready && subBus.now < latest);
    return ready ? hubStatus::done : hubStatus::subBusTimeout;
}

// A header whose port is 0x20 is a command, but there is none that reads. As with every refused read, the status stays.
hubStatus hub922::refuseRead() const { return m_status == hubStatus::done ? hubStatus::malformedCommand : m_status; }

// Repeated START after a header: SCL is held until the first byte could be fetched.
hubStatus hub922::fetch(busClock& clock, chipFaults& faults)
{
    busClock subBus{clock.now, subBusBitNs};
    const hubStatus outcome = fetch(target(), subBus, faults);
    clock.now = subBus.now;
    return outcome;
}

hubStatus hub922::fetch(const device& from, busClock& subBus, chipFaults& faults)
{
    if (const hubStatus outcome = check(faults); outcome != hubStatus::done) {
        return outcome;
    }
    if (from.model == nullptr) {
        return askNobody(subBus);
    }
    if (m_receivedBytes != headerBytes + from.offsetBytes) {
        return hubStatus::malformedCommand;
    }
    bool acknowledged = sendTo(*from.model, from.offsetBytes, subBus, faults);
    if (acknowledged) {
        subBus.now += repeatedStartNs(subBus.bitLasting);
        spend(subBus, bitsOfByte);
        acknowledged = startPaced(*from.model, direction::read, subBus, faults);
    }
    if (!acknowledged) {
        from.model->deselect();
        return hubStatus::noAnswer;
    }
    m_fetching = from.model;
    return hubStatus::done;
}

void hub922::endFetch(busClock& clock, chipFaults& faults)
{
    busClock subBus{clock.now, subBusBitNs};
    if (m_fetching != nullptr) {
        m_fetching->stop(subBus, faults);
    }
    m_fetching = nullptr;
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
        m_holds.fill({});
    }
    m_heldInReset = low;
}

void hub922::exchange(stateFields& fields)
{
    auto number = static_cast<std::uint8_t>(m_status);
    fields.numbers(number, m_busyUntil);
    fields.flag(m_heldInReset);
    fields.check(m_busyUntil <= fields.busTime() + longestWaitNs, "the end of a hub's work");
    for (auto& hold : m_holds) {
        auto line = static_cast<std::uint8_t>(hold.line);
        fields.numbers(line, hold.by, hold.resetsToGo);
        fields.check(line <= static_cast<std::uint8_t>(heldLine::scl) && (line == 0) == (hold.by == 0),
                     "a held sub-bus");
        hold.line = static_cast<heldLine>(line);
    }
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

void hub922::endEffects(const faultEnded& ended)
{
    for (auto& hold : m_holds) {
        if (hold.by != 0 && ended(hold.by)) {
            hold = {};
        }
    }
}

// A bit for each port.
listedRegister hub922::listHeld(const char* name, heldLine line) const
{
    std::uint32_t bits = 0;
    std::string text;
    for (unsigned port = 0; port < ports; ++port) {
        if (m_holds[port].line == line) {
            bits |= 1U << port;
            text += (text.empty() ? "ports " : ", ") + std::to_string(port);
        }
    }
    return {name, bits, text.empty() ? "free" : text};
}

std::vector<listedRegister> hub922::list(std::uint64_t now)
{
    return {{"STATUS", static_cast<std::uint32_t>(m_status), textOf(m_status)},
            {"reset", m_heldInReset ? 1U : 0U, m_heldInReset ? "held in reset" : "running"},
            {"busy", busy(now) ? 1U : 0U, busy(now) ? "passing a write on" : "ready"},
            listHeld("SDA held", heldLine::sda),
            listHeld("SCL held", heldLine::scl)};
}

} // namespace kest::sim
