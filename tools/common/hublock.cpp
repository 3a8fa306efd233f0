#include "tools/common/hublock.h"

#include <algorithm>
#include <cerrno>

#include "tools/common/interrupt.h"

namespace kest::tools
{
namespace
{

// longer than a long read of the library through a hub, which has the lock all that time
constexpr std::uint32_t mostWaitMs = 10'000;
// a signal is seen after each
constexpr std::uint32_t sliceMs = 250;

MernNode nodeOf(const busName& bus)
{
    MernNode node;
    node.number = nodeNumber(bus.node);
    return node;
}

} // namespace

hubLock::hubLock(const busName& bus, std::uint8_t address)
    : m_handle(mern_iic_open(nodeOf(bus), bus.path.c_str(), MERN_OPEN_READ_WRITE_SYNC)),
      m_isOpen(!std::ranges::equal(m_handle.words, MERN_INVALID.words))
{
    mern_iic_lock lock{.kind = MERN_LOCK_HUB, .address = address, .timeoutMs = sliceMs};
    m_error = m_isOpen ? EBUSY : errno;
    for (std::uint32_t waited = 0; m_error == EBUSY && waited < mostWaitMs; waited += sliceMs) {
        const bool had = mern_iic_config(m_handle, MERN_CONFIG_SET, WOBU_IIC_LOCK, &lock, sizeof lock) == 0;
        m_error = had ? 0 : errno;
        if (!had && interruptSignal() != 0) {
            return;
        }
    }
}

hubLock::~hubLock()
{
    if (m_isOpen) {
        mern_iic_close(m_handle);
    }
}

} // namespace kest::tools
