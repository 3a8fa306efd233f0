/// Which fault strikes when. The same seed and the same transactions give the same faults.
#pragma once

#include "sim/bus.h"
#include "sim/chip.h"
#include "sim/faultrecord.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace kest::sim
{

/// The faults of one transaction.
class faultPlan final : public chipFaults
{
public:
    /// @param choices  of the bus, for faults without a seed of their own
    /// @param isHub    whether a hub sits at an address
    faultPlan(std::vector<faultRecord>& all, const chance& choices, std::span<const segment> segments,
              const std::function<bool(std::uint8_t)>& isHub);

    /// Whether a fault of that kind strikes now; it counts as struck then.
    faultRecord* strikes(faultKind kind, const segment& part, std::uint64_t byte);
    /// The same at an address, whatever the fault's byte.
    const faultRecord* strikesAddress(faultKind kind, const segment& part);
    /// The same at a hub's first address in the transaction, in either direction: a hub is silent for all of it or not
    /// at all.
    const faultRecord* strikesHub(faultKind kind, std::uint8_t address);

    /// The chip that asks from now on.
    void ask(std::uint8_t address, direction way);

    /// Counts for faults of a kind that must not strike now.
    void passes(faultKind kind);
    std::optional<chipFaults::strike> meets(faultKind kind) override;
    void subBusWasReset() override { endHubFaults(m_faults, m_askedBy, false); }
    void behindHub(std::uint8_t address) override { m_askedBehind = address; }

private:
    template <typename Matches>
    faultRecord* strike(faultKind kind, const Matches& matches);
    void count(faultRecord& record) const;
    [[nodiscard]] bool isAsked(const faultRecord& record, faultKind kind) const;

    std::vector<faultRecord>& m_faults;
    const chance m_choices;
    std::uint8_t m_askedBy = 0;
    std::uint8_t m_askedBehind = 0; ///< address on a sub-bus; 0: not behind a hub
    direction m_askedWay = direction::write;
};

} // namespace kest::sim
