#include "sim/faultplan.h"

#include <algorithm>

namespace kest::sim
{

faultPlan::faultPlan(std::vector<faultRecord>& all, const chance& choices, std::span<const segment> segments,
                     const std::function<bool(std::uint8_t)>& isHub)
    : m_faults{all}, m_choices{choices}
{
    for (auto& record : m_faults) {
        const faultKindRow& row = rowOf(record.kind);
        record.planned = false;
        if (!row.countsInChip && std::ranges::any_of(segments, [&](const segment& part) {
                return record.matches(part.address, part.way) && (!row.ofHub || isHub(part.address));
            })) {
            count(record);
        }
    }
}

void faultPlan::count(faultRecord& record) const
{
    ++record.matched;
    record.planned = record.usable() && record.matched >= record.nth &&
                     record.choices(m_choices).fraction(record.matched) < record.probability;
}

template <typename Matches>
faultRecord* faultPlan::strike(faultKind kind, const Matches& matches)
{
    const auto found = std::ranges::find_if(
        m_faults, [&](const faultRecord& record) { return record.planned && record.kind == kind && matches(record); });
    if (found == m_faults.end()) {
        return nullptr;
    }
    found->planned = false;
    ++found->struck;
    return &*found;
}

faultRecord* faultPlan::strikes(faultKind kind, const segment& part, std::uint64_t byte)
{
    return strike(
        kind, [&](const faultRecord& record) { return record.byte == byte && record.matches(part.address, part.way); });
}

const faultRecord* faultPlan::strikesAddress(faultKind kind, const segment& part)
{
    return strike(kind, [&](const faultRecord& record) { return record.matches(part.address, part.way); });
}

const faultRecord* faultPlan::strikesHub(faultKind kind, std::uint8_t address)
{
    return strike(kind, [&](const faultRecord& record) { return record.address == 0 || record.address == address; });
}

void faultPlan::ask(std::uint8_t address, direction way)
{
    m_askedBy = address;
    m_askedBehind = 0;
    m_askedWay = way;
}

// Whether a fault is of a kind, and of the chip that asks.
bool faultPlan::isAsked(const faultRecord& record, faultKind kind) const
{
    return record.kind == kind &&
           (record.matches(m_askedBy, m_askedWay) || (m_askedBehind != 0 && record.matches(m_askedBehind, m_askedWay)));
}

void faultPlan::passes(faultKind kind)
{
    for (auto& record : m_faults) {
        record.matched += isAsked(record, kind) ? 1 : 0;
    }
}

// Every fault that matches is counted, also when another one strikes.
std::optional<chipFaults::strike> faultPlan::meets(faultKind kind)
{
    std::optional<chipFaults::strike> met;
    for (auto& record : m_faults) {
        if (!isAsked(record, kind)) {
            continue;
        }
        count(record);
        if (record.planned && !met) {
            ++record.struck;
            met = chipFaults::strike{record.number, record.value};
        }
        record.planned = false;
    }
    return met;
}

} // namespace kest::sim
