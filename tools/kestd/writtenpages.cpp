#include "tools/kestd/writtenpages.h"

#include <algorithm>

#include "platform/host/iic/tools.h"
#include "tools/common/failure.h"
#include "tools/common/wear.h"

namespace kest::service
{
namespace
{

std::optional<tools::device> deviceOf(const std::string& location)
{
    try {
        return tools::parseDeviceText(location);
    } catch (const tools::failure&) {
        return std::nullopt;
    }
}

/// The bytes from `offset` on that are in so many pages.
std::uint32_t bytesIn(const tools::device& which, std::uint32_t pages, std::uint32_t offset, std::uint32_t length)
{
    const std::uint32_t pageBytes = which.end().type->pageBytes;
    if (pages == 0 || pageBytes == 0) {
        return pages == 0 ? 0 : length;
    }
    const std::uint64_t end = (std::uint64_t{offset} / pageBytes + pages) * pageBytes;
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(end - offset, length));
}

} // namespace

writtenPages::writtenPages(const std::string& location) : m_device(deviceOf(location)), m_before(sent()) {}

/// Pages that this process has sent to the device, or to the hub before it.
std::uint32_t writtenPages::sent() const
{
    if (!m_device) {
        return 0;
    }
    int error = 0;
    const auto wires = host::iic::toolBus::open(m_device->bus, tools::nodeNumber(m_device->node), error);
    return wires == nullptr ? 0 : wires->waitsAfterPages(m_device->head().address).pages;
}

std::string writtenPages::count(std::uint32_t offset, std::uint32_t length, bool done) const
{
    if (!m_device) {
        return {};
    }
    const std::uint32_t bytes = done ? length : bytesIn(*m_device, sent() - m_before, offset, length);
    if (bytes == 0) {
        return {};
    }
    const tools::wearReport wear = tools::countWrite(*m_device, offset, bytes);
    return wear.trouble.empty() ? tools::wearWarning(wear.counts) : wear.trouble;
}

} // namespace kest::service
