/// The write cycle of an EEPROM: how long the chip is busy, and what a loss of power leaves of the page.
#pragma once

#include "sim/chip.h"

#include <array>
#include <cstdint>
#include <limits>
#include <span>

namespace kest::sim
{

/// The image has the new page from the STOP on. The old page is part of the state until the cycle ends, and the state
/// is stored before the image, so that a loss of power can still mix the two.
class writeCycle
{
public:
    [[nodiscard]] bool isRunning(std::uint64_t now) const { return now < m_doneAt; }
    /// Whether a fault keeps it from ending.
    [[nodiscard]] bool isStuck() const { return m_stuckBy != 0; }

    /// @param old  the page as it was; at most longestPage bytes
    void begin(std::uint64_t doneAt, std::uint32_t pageStart, std::span<const std::uint8_t> old);
    /// A cycle that does not end, and leaves the page as it was. @param fault  its number
    void beginStuck(std::uint32_t fault);
    void endEffects(const faultEnded& ended);

    /// Inside the cycle the page is torn: each of its bytes is the old one, the new one or a random one. The page goes
    /// into the memory with settle(). @param choice  of this loss of power alone
    void losePower(std::uint64_t now, memory& cells, const chance& choice);
    /// Writes a torn page into the memory. @return false when the memory would not take it
    bool settle(memory& cells);

    /// Loads it from the state file, or stores it there. @param sizeBytes  of the memory
    void exchange(stateFields& fields, std::uint32_t sizeBytes);

private:
    enum class keeping : std::uint8_t {
        nothing,
        oldPage,
        tornPage ///< not in the memory yet
    };
    static constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();

    [[nodiscard]] std::span<std::uint8_t> page() { return std::span{m_bytes}.first(m_length); }
    void forget();

    std::uint64_t m_doneAt = 0;
    std::uint32_t m_stuckBy = 0; ///< number of the fault that keeps the cycle from ending, 0 none
    keeping m_keeping = keeping::nothing;
    std::uint32_t m_pageStart = 0;
    std::uint32_t m_length = 0;
    std::array<std::uint8_t, longestPage> m_bytes{};
};

} // namespace kest::sim
