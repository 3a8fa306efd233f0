#include "sim/addresscounter.h"

namespace kest::sim
{

void addressCounter::take(std::uint8_t offsetByte)
{
    ++m_offsetSeen;
    if (m_offsetBytes == 1) {
        set(m_blockBits | offsetByte);
    } else if (m_offsetSeen == m_offsetBytes) {
        set(static_cast<std::uint32_t>(m_firstOffset) << 8 | offsetByte);
    } else if (m_half == halfOffset::high) {
        set(static_cast<std::uint32_t>(offsetByte) << 8 | (m_at & 0xFF));
    } else if (m_half == halfOffset::low) {
        set(offsetByte);
    }
    m_firstOffset = offsetByte;
}

} // namespace kest::sim
