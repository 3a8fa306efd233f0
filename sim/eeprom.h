/// 24Cxx serial EEPROM. Source: Microchip 24AA02/24LC02B, 24LC32A, 24LC64, 24LC128, 24LC256, 24LC512 data sheets,
/// "Write Operation", "Acknowledge Polling", "Read Operation". Knows neither bus nor file.
#pragma once

#include "sim/addresscounter.h"
#include "sim/chip.h"
#include "sim/writecycle.h"
#include "sim/writeprotection.h"

#include <algorithm>
#include <array>
#include <bit>
#include <bitset>
#include <string_view>

namespace kest::sim
{

struct eepromType {
    std::string_view name;
    std::uint32_t sizeBytes;
    std::uint32_t pageBytes;
    std::uint32_t offsetBytes;
    std::uint32_t maxKhz = 400;
};

/// Addresses that a part answers: one for each block that its offset bytes reach.
constexpr std::uint32_t blocksOf(const eepromType& type)
{
    return std::max<std::uint32_t>(type.sizeBytes >> (8 * type.offsetBytes), 1);
}

inline constexpr std::array eepromTypes{
    eepromType{.name = "24C02", .sizeBytes = 256, .pageBytes = 8, .offsetBytes = 1},
    eepromType{.name = "24C04", .sizeBytes = 512, .pageBytes = 16, .offsetBytes = 1},
    eepromType{.name = "24C08", .sizeBytes = 1024, .pageBytes = 16, .offsetBytes = 1},
    eepromType{.name = "24C16", .sizeBytes = 2048, .pageBytes = 16, .offsetBytes = 1},
    eepromType{.name = "24C32", .sizeBytes = 4096, .pageBytes = 32, .offsetBytes = 2},
    eepromType{.name = "24C64", .sizeBytes = 8192, .pageBytes = 32, .offsetBytes = 2},
    eepromType{.name = "24C128", .sizeBytes = 16384, .pageBytes = 64, .offsetBytes = 2},
    eepromType{.name = "24C256", .sizeBytes = 32768, .pageBytes = 64, .offsetBytes = 2, .maxKhz = 1000},
    eepromType{.name = "24C512", .sizeBytes = 65536, .pageBytes = 128, .offsetBytes = 2, .maxKhz = 1000},
};
static_assert(std::ranges::all_of(eepromTypes, [](const eepromType& type) {
    return std::ranges::count(eepromTypes, type.name, &eepromType::name) == 1 && std::has_single_bit(type.sizeBytes) &&
           std::has_single_bit(type.pageBytes) && type.pageBytes <= longestPage && type.pageBytes < type.sizeBytes &&
           blocksOf(type) <= (type.offsetBytes == 1 ? 8 : 1);
}));

struct eepromSettings {
    std::uint64_t writeCycleNs = 3'500'000;
    protection protect = protection::none;
    /// Without effect: every read that is cut off leaves SDA as the next bit is.
    bool holdSdaAfterCut = false;
    /// A write cycle lasts from this to `writeCycleNs`, another time for each. Measured parts spread over a fifth to a
    /// quarter; the default is three quarters of the default maximum. One above the maximum counts as the maximum.
    std::uint64_t shortestWriteCycleNs = 2'625'000;
    std::uint32_t pageBytes = 0; ///< 0: the type's
    protectedArea area = protectedArea::all;
    halfOffset half = halfOffset::low;
};

class eeprom final : public chip
{
public:
    eeprom(const eepromType& chipType, const eepromSettings& options, memory& cells)
        : m_type{chipType}, m_settings{options},
          m_pageBytes{options.pageBytes == 0 ? chipType.pageBytes : options.pageBytes}, m_storage{cells},
          m_protection{options.protect, options.area, chipType.sizeBytes}, m_counter{chipType.sizeBytes,
                                                                                     chipType.offsetBytes, options.half}
    {
    }

    void addressedAs(std::uint8_t address) override { m_counter.selectBlock(address); }
    void followPin(std::function<bool(std::uint64_t)> isHigh) override { m_protection.followPin(std::move(isHigh)); }

    bool start(direction way, busClock& clock, chipFaults& faults) override;
    bool take(std::uint8_t byte, busClock& clock) override;
    std::uint8_t give(busClock& clock, chipFaults& faults) override;
    void stop(busClock& clock, chipFaults& faults) override;
    void deselect() override;
    void cut() override;
    void exchange(stateFields& fields) override;
    void powerUp() override;
    void asNew() override;
    void losePower(std::uint64_t now) override { m_cycle.losePower(now, m_storage, nextChoice()); }
    bool settle() override { return m_cycle.settle(m_storage); }
    void endEffects(const faultEnded& ended) override { m_cycle.endEffects(ended); }
    std::vector<listedRegister> list(std::uint64_t now) override;

private:
    void latchByte(std::uint8_t byte);
    void beginWriteCycle(std::uint64_t now, chipFaults& faults);
    [[nodiscard]] std::uint64_t cycleNs();
    void program(std::uint64_t doneAt);

    const eepromType& m_type;
    const eepromSettings m_settings;
    const std::uint32_t m_pageBytes;
    memory& m_storage;
    writeProtection m_protection;

    addressCounter m_counter; ///< where the next byte is read or latched
    writeCycle m_cycle;

    std::array<std::uint8_t, longestPage> m_latch{};
    std::bitset<longestPage> m_latched;
};

} // namespace kest::sim
