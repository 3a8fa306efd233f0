/// One bus of a machine, as its users see it: what goes over its lines.
#pragma once

#include "sim/bus.h"
#include "sim/sharedbus.h"
#include "sim/wire.h"

#include <cstdint>
#include <span>
#include <string>

namespace kest::sim
{

class busModel final : public bus
{
public:
    /// @param shared  outlives the model
    explicit busModel(sharedBus& shared) : m_shared{shared} {}

    transferResult transfer(std::span<segment> segments, std::uint32_t speedKhz) override;
    transferResult probe(std::uint8_t address, std::uint32_t speedKhz) override;
    outcome reset() override;
    outcome clocks(unsigned count) override;
    outcome lines() override;
    std::uint64_t busTimeNs() override;
    void idle(std::uint64_t nanoseconds) override;
    [[nodiscard]] std::uint32_t defaultSpeedKhz() const override { return m_shared.description().speedKhz; }
    [[nodiscard]] const std::string& name() const override { return m_shared.description().name; }
    [[nodiscard]] const adapterKind& adapter() const override { return m_shared.description().adapter; }

private:
    template <typename Act>
    bool drive(busUse& use, std::uint32_t speedKhz, Act act);
    transferResult attempt(busUse& use, std::span<segment> segments, std::uint32_t speedKhz);
    transferResult meetHeldScl(busUse& use, std::uint32_t speedKhz);
    template <typename Act>
    outcome recover(Act act);
    void pulse(wire& lines, unsigned count);
    void endReset();
    void passTime(std::uint64_t nanoseconds);
    [[nodiscard]] outcome lookForAdapter() const;

    sharedBus& m_shared;
};

} // namespace kest::sim
