#include "sim/hub922.h"

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
} // namespace

bool hub922::start(direction way, busClock& clock, chipFaults& faults)
{
    // never silent from there to the STOP
    const bool inTransaction = writing || answering != answer::nothing;
    const bool answers = !heldInReset && (inTransaction || !busy(clock.now));
    const bool header = writing && receivedBytes != 0;
    if (!answers) {
        deselect();
    } else if (way == direction::write) {
        endFetch(clock, faults);
        deselect();
        writing = true;
    } else if (header && !(isCommand() && receivedBytes == commandBytes)) {
        const hubStatus outcome = isCommand() ? refuseRead() : fetch(clock, faults);
        const auto bad = outcome == hubStatus::done ? faults.hubBadFirstByte() : std::nullopt;
        firstByte = bad ? static_cast<std::uint8_t>(bad->value) : static_cast<std::uint8_t>(outcome);
        answering = firstByte == 0 ? answer::data : answer::failure;
        note(outcome);
    } else {
        if (header) {
            runCommand(faults);
        }
        endFetch(clock, faults);
        answering = answer::plainStatus;
    }
    if (answers && way == direction::read) {
        writing = statusGiven = false;
    }
    return answers;
}

bool hub922::take(std::uint8_t byte, busClock&)
{
    if (receivedBytes < received.size()) {
        received[receivedBytes] = byte;
    }
    ++receivedBytes;
    // a transfer that is too long is told by its status
    return true;
}

std::uint8_t hub922::give(busClock& clock, chipFaults& faults)
{
    std::uint8_t byte = nothingDriven;
    if (statusGiven && answering == answer::data && fetching != nullptr) {
        busClock subBus{clock.now, subBusBitNs};
        spend(subBus, bitsOfByte);
        byte = fetching->give(subBus, faults);
        // SCL is held until the byte is there
        clock.now = subBus.now;
    } else if (!statusGiven && answering == answer::plainStatus) {
        byte = static_cast<std::uint8_t>(status);
        status = hubStatus::done;
    } else if (!statusGiven) {
        byte = firstByte;
    }
    statusGiven = true;
    return byte;
}

void hub922::stop(busClock& clock, chipFaults& faults)
{
    if (writing && receivedBytes != 0 && isCommand()) {
        runCommand(faults);
    } else if (writing && receivedBytes != 0 && status == hubStatus::done) {
        note(passOn(clock, faults));
    }
    endFetch(clock, faults);
    deselect();
}

void hub922::deselect()
{
    if (fetching != nullptr) {
        fetching->deselect();
    }
    fetching = nullptr;
    writing = false;
    receivedBytes = 0;
    answering = answer::nothing;
    statusGiven = false;
}

// The first trouble stays until it is told.
void hub922::note(hubStatus outcome)
{
    if (status == hubStatus::done) {
        status = outcome;
    }
}

void hub922::runCommand(chipFaults& faults)
{
    const bool known = receivedBytes == commandBytes;
    if (known && received[1] == resetSubBuses) {
        for (auto& [place, attached] : devices) {
            attached.model->deselect();
        }
        faults.subBusWasReset();
        resetHolds();
    } else if (!known || received[1] !=
                             // that one changes nothing: the next plain read tells the status anyway
                             tellErrorStatus) {
        note(hubStatus::malformedCommand);
    }
    receivedBytes = 0;
}

// A hold that outlasts this reset shows as the status after it.
void hub922::resetHolds()
{
    for (auto& hold : holds) {
        if (hold.resetsToGo == 0) {
            hold = {};
        } else {
            --hold.resetsToGo;
        }
    }
    if (anyHeld(heldLine::sda)) {
        status = hubStatus::subBusSdaHeld;
    } else {
        status = anyHeld(heldLine::scl) ? hubStatus::subBusSclHeld : hubStatus::done;
    }
}

bool hub922::anyHeld(heldLine line) const { return std::ranges::find(holds, line, &portHold::line) != holds.end(); }

hub922::device hub922::target() const
{
    const auto found = devices.find({received[0], received[1]});
    return found == devices.end() ? device{} : found->second;
}

// Everything that ends a transfer before its first bit on a sub-bus.
hubStatus hub922::check(chipFaults& faults)
{
    hubStatus outcome = hubStatus::done;
    if (status != hubStatus::done) {
        outcome = status;
    } else if (received[0] >= ports) {
        outcome = hubStatus::noSuchPort;
    } else if (receivedBytes > longestWrite) {
        outcome = hubStatus::tooLong;
    } else if (receivedBytes <= headerBytes || (received[1] & 1) != 0) {
        outcome = hubStatus::malformedCommand;
    } else {
        outcome = checkSubBus(received[0], faults);
    }
    return outcome;
}

hubStatus hub922::checkSubBus(std::uint8_t port, chipFaults& faults)
{
    portHold& hold = holds.at(port);
    hubStatus outcome = hubStatus::done;
    if (hold.line == heldLine::none) {
        if (const auto told = faults.hubStatus()) {
            outcome = static_cast<hubStatus>(told->value);
        } else if (const auto sda = faults.hubHoldsSda()) {
            hold = {heldLine::sda, sda->number, sda->value};
        } else if (const auto scl = faults.hubHoldsScl()) {
            hold = {heldLine::scl, scl->number, scl->value};
        }
    }
    if (hold.line == heldLine::sda) {
        outcome = hubStatus::subBusSdaHeld;
    } else if (hold.line == heldLine::scl) {
        outcome = hubStatus::subBusSclHeld;
    }
    return outcome;
}

// START, address, and the received bytes after the header.
bool hub922::sendTo(chip& model, std::size_t bytes, busClock& subBus, chipFaults& faults)
{
    spend(subBus, bitsOfCondition + bitsOfByte);
    bool acknowledged = model.start(direction::write, subBus, faults);
    for (std::size_t i = headerBytes; acknowledged && i < headerBytes + bytes; ++i) {
        spend(subBus, bitsOfByte);
        acknowledged = model.take(received[i], subBus);
    }
    return acknowledged;
}

// After the STOP of a write: the main bus is free meanwhile, the hub silent.
hubStatus hub922::passOn(busClock& clock, chipFaults& faults)
{
    busClock subBus{clock.now, subBusBitNs};
    const device to = target();
    hubStatus outcome = check(faults);
    if (outcome == hubStatus::done && to.model == nullptr) {
        spend(subBus, bitsOfCondition + bitsOfByte + bitsOfCondition);
        outcome = hubStatus::noAnswer;
    } else if (outcome == hubStatus::done && receivedBytes < headerBytes + to.offsetBytes) {
        outcome = hubStatus::malformedCommand;
    } else if (outcome == hubStatus::done) {
        const bool acknowledged = sendTo(*to.model, receivedBytes - headerBytes, subBus, faults);
        spend(subBus, bitsOfCondition);
        faults.behindHub(received[1]);
        if (acknowledged) {
            to.model->stop(subBus, faults);
        } else {
            to.model->deselect();
        }
        faults.behindHub(0);
        outcome = acknowledged ? waitForDevice(*to.model, subBus, faults) : hubStatus::noAnswer;
    }
    busyUntil = subBus.now;
    return outcome;
}

// Asks until the device acknowledges again.
hubStatus hub922::waitForDevice(chip& device, busClock& subBus, chipFaults& faults)
{
    const std::uint64_t latest = subBus.now + longestAskingNs;
    bool ready = false;
    do {
        spend(subBus, bitsOfCondition + bitsOfByte);
        ready = device.start(direction::write, subBus, faults);
        spend(subBus, bitsOfCondition);
        device.deselect();
    } while (!ready && subBus.now < latest);
    return ready ? hubStatus::done : hubStatus::subBusTimeout;
}

// Port 0x20 makes a command of a read's header, and no known one; as with every refused read the status stays.
hubStatus hub922::refuseRead() const { return status == hubStatus::done ? hubStatus::malformedCommand : status; }

// Repeated START after a header: SCL is held until the first byte could be fetched.
hubStatus hub922::fetch(busClock& clock, chipFaults& faults)
{
    busClock subBus{clock.now, subBusBitNs};
    const device from = target();
    hubStatus outcome = check(faults);
    if (outcome == hubStatus::done && from.model == nullptr) {
        spend(subBus, bitsOfCondition + bitsOfByte + bitsOfCondition);
        outcome = hubStatus::noAnswer;
    } else if (outcome == hubStatus::done && receivedBytes != headerBytes + from.offsetBytes) {
        outcome = hubStatus::malformedCommand;
    } else if (outcome == hubStatus::done) {
        bool acknowledged = sendTo(*from.model, from.offsetBytes, subBus, faults);
        if (acknowledged) {
            spend(subBus, bitsOfCondition + bitsOfByte);
            acknowledged = from.model->start(direction::read, subBus, faults);
        }
        if (acknowledged) {
            fetching = from.model;
        } else {
            from.model->deselect();
        }
        outcome = acknowledged ? hubStatus::done : hubStatus::noAnswer;
    }
    clock.now = subBus.now;
    return outcome;
}

void hub922::endFetch(busClock& clock, chipFaults& faults)
{
    busClock subBus{clock.now, subBusBitNs};
    if (fetching != nullptr) {
        fetching->stop(subBus, faults);
    }
    fetching = nullptr;
}

void hub922::resetLine(bool low)
{
    if (heldInReset && !low) {
        status = hubStatus::outOfReset;
    }
    if (low) {
        deselect();
        status = hubStatus::done;
        busyUntil = 0;
        holds.fill({});
    }
    heldInReset = low;
}

void hub922::state(stateFields& fields)
{
    auto number = static_cast<std::uint8_t>(status);
    fields.numbers(number, busyUntil);
    fields.flag(heldInReset);
    fields.check(busyUntil <= fields.busTime() + longestWaitNs, "the end of a hub's work");
    for (auto& hold : holds) {
        auto line = static_cast<std::uint8_t>(hold.line);
        fields.numbers(line, hold.by, hold.resetsToGo);
        fields.check(line <= static_cast<std::uint8_t>(heldLine::scl) && (line == 0) == (hold.by == 0),
                     "a held sub-bus");
        hold.line = static_cast<heldLine>(line);
    }
    status = static_cast<hubStatus>(number);
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
    status = hubStatus::done;
}

void hub922::endEffects(const faultEnded& ended)
{
    for (auto& hold : holds) {
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
        if (holds[port].line == line) {
            bits |= 1U << port;
            text += (text.empty() ? "ports " : ", ") + std::to_string(port);
        }
    }
    return {name, bits, text.empty() ? "free" : text};
}

std::vector<listedRegister> hub922::list(std::uint64_t now)
{
    const auto meaning = [this] {
        static constexpr std::pair<hubStatus, const char*> texts[]{{hubStatus::done, "done"},
                                                                   {hubStatus::malformedCommand, "malformed command"},
                                                                   {hubStatus::noAnswer, "device did not answer"},
                                                                   {hubStatus::subBusSdaHeld, "sub-bus SDA held"},
                                                                   {hubStatus::subBusSclHeld, "sub-bus SCL held"},
                                                                   {hubStatus::arbitrationLost, "arbitration lost"},
                                                                   {hubStatus::subBusTimeout, "sub-bus time-out"},
                                                                   {hubStatus::noSuchPort, "no such port"},
                                                                   {hubStatus::tooLong, "transfer too long"},
                                                                   {hubStatus::outOfReset, "out of reset"}};
        const auto found = std::ranges::find(texts, status, &std::pair<hubStatus, const char*>::first);
        return found != std::end(texts) ? found->second
               : status < hubStatus{12} ? std::string{"hub hardware fault"}
                                        : std::string{"unknown"};
    };
    return {{"STATUS", static_cast<std::uint32_t>(status), meaning()},
            {"reset", heldInReset ? 1U : 0U, heldInReset ? "held in reset" : "running"},
            {"busy", busy(now) ? 1U : 0U, busy(now) ? "passing a write on" : "ready"},
            listHeld("SDA held", heldLine::sda),
            listHeld("SCL held", heldLine::scl)};
}

} // namespace kest::sim
