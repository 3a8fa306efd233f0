#include "tools/common/hublock.h"

#include <algorithm>
#include <cerrno>

#include "tools/common/interrupt.h"

namespace kest::tools
{
namespace
{

// a signal is seen after each
constexpr std::chrono::milliseconds slice{250};

MernNode nodeOf(const busName& bus)
{
    MernNode node;
    node.number = nodeNumber(bus.node);
    return node;
}

} // namespace

hubLock::hubLock(const busName& bus, std::uint8_t address, std::chrono::nanoseconds longest)
    : m_handle(mern_iic_open(nodeOf(bus), bus.path.c_str(), MERN_OPEN_READ_WRITE_SYNC)),
      m_isOpen(!std::ranges::equal(m_handle.words, MERN_INVALID.words))
{
    std::chrono::milliseconds left = std::chrono::ceil<std::chrono::milliseconds>(longest);
    bool again = m_isOpen;
    m_error = m_isOpen ? 0 : errno;
    while (again) {
        const std::chrono::milliseconds now = std::min(left, slice);
        mern_iic_lock lock{
            .kind = MERN_LOCK_HUB, .address = address, .timeoutMs = static_cast<std::uint32_t>(now.count())};
        const bool had = mern_iic_config(m_handle, MERN_CONFIG_SET, WOBU_IIC_LOCK, &lock, sizeof lock) == 0;
        m_error = had ? 0 : errno;
        left -= now;
        again = m_error == EBUSY && left.count() > 0 && interruptSignal() == 0;
    }
}

hubLock::~hubLock()
{
    if (m_isOpen) {
        mern_iic_close(m_handle);
    }
}

} // namespace kest::tools
