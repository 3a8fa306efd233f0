#include "tools/common/hublock.h"

#include <algorithm>
#include <cerrno>

namespace kest::tools
{
namespace
{

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
    constexpr std::uint32_t waitMs = 1000;
    mern_iic_lock lock{.kind = MERN_LOCK_HUB, .address = address, .timeoutMs = waitMs};
    if (!m_isOpen || mern_iic_config(m_handle, MERN_CONFIG_SET, WOBU_IIC_LOCK, &lock, sizeof lock) != 0) {
        m_error = errno;
    }
}

hubLock::~hubLock()
{
    if (m_isOpen) {
        mern_iic_close(m_handle);
    }
}

} // namespace kest::tools
