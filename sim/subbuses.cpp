#include "sim/subbuses.h"

#include "sim/bittiming.h"
#include "sim/pacedchip.h"

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

subBuses::device subBuses::target(std::span<const std::uint8_t> received) const
{
    const auto found = m_devices.find({received[0], received[1]});
    if (found == m_devices.end()) {
        return {};
    }
    chip& model = found->second.find();
    return model.isThere() ? device{&model, found->second.offsetBytes} : device{};
}

// START, address, and the received bytes after the header.
bool subBuses::send(chip& model, std::span<const std::uint8_t> received, busClock& subBus, chipFaults& faults)
{
    spend(subBus, bitsOfCondition + bitsOfByte);
    model.addressedAs(received[1]);
    bool acknowledged = startPaced(model, direction::write, subBus, faults);
    for (std::size_t i = headerBytes; acknowledged && i < received.size(); ++i) {
        spend(subBus, bitsOfByte);
        acknowledged = takePaced(model, received[i], subBus);
    }
    return acknowledged;
}

// START, an address that nobody has, STOP.
hubStatus subBuses::askNobody(busClock& subBus)
{
    spend(subBus, bitsOfCondition + bitsOfByte + bitsOfCondition);
    return hubStatus::noAnswer;
}

hubStatus subBuses::waitFor(chip& device, busClock& subBus, chipFaults& faults)
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

hubStatus subBuses::write(std::span<const std::uint8_t> received, std::uint64_t& now, chipFaults& faults)
{
    busClock subBus{now, subBusBitNs};
    const hubStatus outcome = write(target(received), received, subBus, faults);
    now = subBus.now;
    return outcome;
}

hubStatus subBuses::write(const device& to, std::span<const std::uint8_t> received, busClock& subBus,
                          chipFaults& faults)
{
    if (to.model == nullptr) {
        return askNobody(subBus);
    }
    if (received.size() < headerBytes + to.offsetBytes) {
        return hubStatus::malformedCommand;
    }
    const bool acknowledged = send(*to.model, received, subBus, faults);
    spend(subBus, bitsOfCondition);
    if (!acknowledged) {
        to.model->deselect();
        return hubStatus::noAnswer;
    }
    faults.behindHub(received[1]);
    to.model->stop(subBus, faults);
    faults.behindHub(0);
    return waitFor(*to.model, subBus, faults);
}

hubStatus subBuses::beginRead(std::span<const std::uint8_t> received, std::uint64_t& now, chipFaults& faults)
{
    busClock subBus{now, subBusBitNs};
    const hubStatus outcome = beginRead(target(received), received, subBus, faults);
    now = subBus.now;
    return outcome;
}

hubStatus subBuses::beginRead(const device& from, std::span<const std::uint8_t> received, busClock& subBus,
                              chipFaults& faults)
{
    if (from.model == nullptr) {
        return askNobody(subBus);
    }
    if (received.size() != headerBytes + from.offsetBytes) {
        return hubStatus::malformedCommand;
    }
    bool acknowledged = send(*from.model, received, subBus, faults);
    if (acknowledged) {
        subBus.now += repeatedStartNs(subBus.bitLasting);
        spend(subBus, bitsOfByte);
        acknowledged = startPaced(*from.model, direction::read, subBus, faults);
    }
    if (!acknowledged) {
        from.model->deselect();
        return hubStatus::noAnswer;
    }
    m_reading = from.model;
    return hubStatus::done;
}

std::uint8_t subBuses::readByte(std::uint64_t& now, chipFaults& faults)
{
    if (m_reading == nullptr) {
        return nothingDriven;
    }
    busClock subBus{now, subBusBitNs};
    spend(subBus, bitsOfByte);
    const std::uint8_t byte = givePaced(*m_reading, subBus, faults);
    now = subBus.now;
    return byte;
}

void subBuses::endRead(std::uint64_t now, chipFaults& faults)
{
    busClock subBus{now, subBusBitNs};
    if (m_reading != nullptr) {
        m_reading->stop(subBus, faults);
    }
    m_reading = nullptr;
}

void subBuses::dropRead()
{
    if (m_reading != nullptr) {
        m_reading->deselect();
    }
    m_reading = nullptr;
}

} // namespace kest::sim
