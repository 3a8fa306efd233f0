/// The address counter of a memory part, and how offset bytes set it.
#pragma once

#include <cstdint>

namespace kest::sim
{

/// What a part with two offset bytes does with one alone.
enum class halfOffset : std::uint8_t {
    high, ///< it becomes the counter's upper byte; the lower one stays
    keep, ///< the counter stays as it was
    low, ///< it becomes the counter's lower byte; the upper one is 0
};

/// Counts through a memory and rolls over at its end. A part with more bytes than its offset reaches takes the bits that
/// are missing from its address: they are the block bits. Source: Microchip 24LC04B/08B/16B data sheets, "Device
/// Addressing", and Atmel AT24C04/08A/16A data sheet, "Device Addressing".
class addressCounter
{
public:
    /// @param sizeBytes    of the memory, a power of two
    /// @param offsetBytes  1 or 2
    addressCounter(std::uint32_t sizeBytes, std::uint32_t offsetBytes, halfOffset half)
        : m_sizeBytes{sizeBytes}, m_offsetBytes{offsetBytes}, m_half{half}
    {
    }

    [[nodiscard]] std::uint32_t at() const { return m_at; }
    /// @param offset  bits beyond the memory are ignored
    void set(std::uint32_t offset) { m_at = offset & (m_sizeBytes - 1); }
    void forward() { set(m_at + 1); }
    void back() { set(m_at - 1); }

    /// The address of the next START, 8-bit form.
    void selectBlock(std::uint8_t address) { m_blockBits = static_cast<std::uint32_t>(address >> 1) << 8; }
    /// A START or a STOP: the next byte of a write is the first of its offset.
    void endOffset() { m_offsetSeen = 0; }
    [[nodiscard]] bool takesOffset() const { return m_offsetSeen < m_offsetBytes; }
    void take(std::uint8_t offsetByte);

private:
    const std::uint32_t m_sizeBytes;
    const std::uint32_t m_offsetBytes;
    const halfOffset m_half;

    std::uint32_t m_at = 0;
    // of the write under way
    std::uint32_t m_blockBits = 0;
    std::uint32_t m_offsetSeen = 0;
    std::uint8_t m_firstOffset = 0;
};

} // namespace kest::sim
