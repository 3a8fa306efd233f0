#include "tools/common/offsetreads.h"

#include <algorithm>
#include <cerrno>

#include "tools/common/attributes.h"

namespace kest::tools
{

using host::iic::exchangeEnd;
using host::iic::exchangeResult;

offsetReads::offsetReads(const device& which, std::uint32_t speedKhz)
    : m_device(which), m_speedKhz(hardwareAttributes(speedKhz)[KEST_ATTR_BUS_SPEED]),
      m_bus(host::iic::toolBus::open(which.bus, nodeNumber(which.node), m_error))
{
}

std::string offsetReads::trouble() const
{
    if (m_bus == nullptr) {
        return "the bus can't be opened";
    }
    return m_device.links.size() > 2 ? "it is behind more than one hub" : m_bus->exchangeTrouble();
}

std::size_t offsetReads::mostBytes() const
{
    const std::size_t most = m_bus == nullptr ? 0 : m_bus->longestExchange(m_speedKhz);
    // a status comes ahead of the data
    return behindHub() && most != 0 ? most - 1 : most;
}

readEnd offsetReads::endOf(const exchangeResult& result)
{
    m_error = result.error != 0 ? result.error : m_error;
    switch (result.end) {
    case exchangeEnd::done:
        return readEnd::done;
    case exchangeEnd::silent:
    case exchangeEnd::refused:
        return readEnd::refused;
    case exchangeEnd::tooLong:
        return readEnd::tooLong;
    case exchangeEnd::failed:
        break;
    }
    return readEnd::failed;
}

readEnd offsetReads::readAt(std::uint8_t address, std::span<const std::uint8_t> offset, std::span<std::uint8_t> into,
                            bool waits)
{
    ++m_count;
    return endOf(
        m_bus->exchange({.address = address, .offset = offset, .into = into, .speedKhz = m_speedKhz, .waits = waits}));
}

readEnd offsetReads::readThroughHub(std::uint8_t address, std::span<const std::uint8_t> offset,
                                    std::span<std::uint8_t> into, std::uint8_t& status)
{
    std::vector<std::uint8_t> header{m_device.head().port, address};
    header.insert(header.end(), offset.begin(), offset.end());
    std::vector<std::uint8_t> answer(into.size() + 1);
    const readEnd end = readAt(m_device.head().address, header, answer, true);
    if (end == readEnd::done) {
        status = answer.front();
        std::copy(answer.begin() + 1, answer.end(), into.begin());
    }
    return end;
}

std::unique_ptr<hubLock> offsetReads::holdHub() const
{
    return behindHub() ? std::make_unique<hubLock>(busName{m_device.bus, m_device.node}, m_device.head().address)
                       : nullptr;
}

readEnd offsetReads::read(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into)
{
    if (!behindHub()) {
        return readAt(m_device.end().address, offset, into, offset.size() == 1);
    }
    std::uint8_t status = 0;
    const readEnd end = readThroughHub(m_device.end().address, offset, into, status);
    if (end != readEnd::done || status == 0) {
        return end;
    }
    clearStatus();
    return readEnd::failed;
}

bool offsetReads::readOther(std::uint8_t address, std::span<std::uint8_t> into)
{
    const std::uint8_t start = 0;
    if (behindHub()) {
        std::uint8_t status = 0;
        const bool done = readThroughHub(address, {&start, 1}, into, status) == readEnd::done;
        if (done && status != 0) {
            clearStatus();
        }
        return done && status == 0;
    }
    const int before = m_error;
    const bool done = !m_bus->heldByDriver(address) && readAt(address, {&start, 1}, into, false) == readEnd::done;
    m_error = before;
    return done;
}

std::optional<std::uint8_t> offsetReads::readStatus(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into)
{
    std::uint8_t status = 0;
    std::size_t bytes = into.size();
    readEnd end = readThroughHub(m_device.end().address, offset, into, status);
    while (end == readEnd::tooLong && bytes > 1) {
        bytes /= 2;
        end = readThroughHub(m_device.end().address, offset, into.first(bytes), status);
    }
    return end == readEnd::done ? std::optional(status) : std::nullopt;
}

bool offsetReads::clearStatus()
{
    std::uint8_t status = 0;
    return readAt(m_device.head().address, {}, {&status, 1}, true) == readEnd::done;
}

} // namespace kest::tools
