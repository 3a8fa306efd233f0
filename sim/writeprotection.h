/// The write protection of a memory part.
#pragma once

#include "sim/chip.h"

#include <cstdint>
#include <functional>
#include <utility>

namespace kest::sim
{

/// What a protected part does with data.
enum class protection : std::uint8_t {
    none,
    silent, ///< acknowledges data and forgets it
    nak, ///< refuses data bytes
};

/// What is protected. Source: Atmel AT24C01A/02/04/08A/16A data sheet, "Write Protect" (AT24C16A: the upper half), and
/// Atmel AT24C32/64 data sheet, "Write Protect" (the upper quarter).
enum class protectedArea : std::uint8_t {
    all,
    upperHalf,
    upperQuarter,
};

/// First byte that is protected. @param sizeBytes  of the memory
constexpr std::uint32_t firstProtected(protectedArea area, std::uint32_t sizeBytes)
{
    switch (area) {
    case protectedArea::upperHalf:
        return sizeBytes / 2;
    case protectedArea::upperQuarter:
        return sizeBytes - sizeBytes / 4;
    case protectedArea::all:
        break;
    }
    return 0;
}

class writeProtection
{
public:
    writeProtection(protection how, protectedArea area, std::uint32_t sizeBytes)
        : m_how{how}, m_from{firstProtected(area, sizeBytes)}
    {
    }

    /// Protects only while a pin is high. @param isHigh  gets the bus time, ns
    void followPin(std::function<bool(std::uint64_t)> isHigh) { m_isHigh = std::move(isHigh); }
    /// Whether the pin, if there is one, protects now.
    [[nodiscard]] bool isOn(std::uint64_t now) const
    {
        return m_how != protection::none && (m_isHigh == nullptr || m_isHigh(now));
    }
    [[nodiscard]] bool hasPin() const { return m_isHigh != nullptr; }
    /// Whether a data byte for an offset is not acknowledged.
    [[nodiscard]] bool refuses(std::uint32_t offset, std::uint64_t now) const
    {
        return m_how == protection::nak && covers(offset, now);
    }
    /// Whether nothing can be written at an offset.
    [[nodiscard]] bool covers(std::uint32_t offset, std::uint64_t now) const { return offset >= m_from && isOn(now); }

    [[nodiscard]] listedRegister listed(std::uint64_t now) const
    {
        const bool on = isOn(now);
        return {"WP", on ? 1U : 0U, on ? "pin high: protected" : "pin low: writable"};
    }

private:
    const protection m_how;
    const std::uint32_t m_from;
    std::function<bool(std::uint64_t)> m_isHigh;
};

} // namespace kest::sim
