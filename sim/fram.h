/// Ferroelectric memory part in the place of a 24Cxx. Source: Ramtron (now Infineon) FM24C16, FM24C64, FM24C256 data
/// sheets, "Memory Operation": each byte is written at its acknowledge, there is no write cycle and no page.
#pragma once

#include "sim/addresscounter.h"
#include "sim/chip.h"
#include "sim/eeprom.h"
#include "sim/writeprotection.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kest::sim
{

/// Bytes are in the image when the segment ends, or earlier: what the part acknowledged stays, whatever becomes of the
/// transaction. A killed process may leave bytes of a transaction that did not come to its end.
class fram final : public chip
{
public:
    /// @param options  those of pages and write cycles have no effect
    fram(const eepromType& chipType, const eepromSettings& options, memory& cells);

    void addressedAs(std::uint8_t address) override { m_counter.selectBlock(address); }
    void followPin(std::function<bool(std::uint64_t)> isHigh) override { m_protection.followPin(std::move(isHigh)); }
    bool start(direction way, busClock& clock, chipFaults& faults) override;
    bool take(std::uint8_t byte, busClock& clock) override;
    std::uint8_t give(busClock& clock, chipFaults& faults) override;
    void stop(busClock&, chipFaults&) override { deselect(); }
    void deselect() override;
    void cut() override;
    void exchange(stateFields& fields) override;
    void powerUp() override;
    void losePower(std::uint64_t) override { flush(); }
    std::vector<listedRegister> list(std::uint64_t now) override;

private:
    void flush();

    const std::uint32_t m_sizeBytes;
    memory& m_storage;
    writeProtection m_protection;
    addressCounter m_counter;

    // acknowledged, and not in the memory yet
    std::array<std::uint8_t, longestPage> m_waiting{};
    std::size_t m_waitingBytes = 0;
    std::uint32_t m_waitingAt = 0;
};

} // namespace kest::sim
