#include "sim/scenarioplan.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace kest::sim
{

void scenarioPlan::check(const eventDescription& what, std::size_t bus) const
{
    const eventRecord& event = what.event;
    const std::vector<eventRecord>& others = m_perBus[bus];
    machineBus& of = *m_all[bus];
    const busChips& chips = of.shared.chips();
    const auto fail = [&what](const std::string& trouble) { throw std::runtime_error{what.place + ": " + trouble}; };
    if (event.isOfChip() && !chips.has(event.address, event.hub, event.port)) {
        fail("no chip at " + addressText(event.address) + " there");
    }
    if (event.kind == eventKind::temperature && !chips.hasSensor(event.address, event.hub, event.port)) {
        fail("the chip at " + addressText(event.address) + " measures no temperature");
    }
    if (others.size() == mostEvents) {
        fail("more than " + std::to_string(mostEvents) + " events on a bus");
    }
    const auto faults = static_cast<std::size_t>(std::ranges::count(others, eventKind::fault, &eventRecord::kind));
    if (event.kind == eventKind::fault && faults >= of.administration.roomForFaults()) {
        fail("no room for more faults");
    }
}

void scenarioPlan::add(const eventDescription& what)
{
    faultDescription where;
    where.bus = what.bus.empty() ? what.bus : fullName(what.bus, what.node);
    where.node = what.bus.empty() ? what.node : std::string{};
    eventRecord event = what.event;
    if (event.kind == eventKind::fault) {
        event.fault = makeFaultRecord(what.fault, m_made == purpose::start ? m_buses.takeFaultNumber() : 1);
    }
    bool concerned = false;
    for (std::size_t bus = 0; bus < m_perBus.size(); ++bus) {
        if (!m_buses.about().concerns(where, bus)) {
            continue;
        }
        concerned = true;
        event.fault.ofEveryBus = where.bus.empty() && where.node.empty();
        event.fault.ofNode = !where.node.empty();
        check(what, bus);
        m_perBus[bus].push_back(event);
    }
    if (!concerned) {
        throw std::runtime_error{what.place + ": no bus '" + (where.bus.empty() ? where.node : where.bus) + "'"};
    }
}

void scenarioPlan::start(const std::string& fileName)
{
    if (!std::ranges::all_of(m_all, [](const auto& bus) { return bus->administration.usable(); })) {
        throw std::system_error{ENODEV, std::generic_category(), fileName + ": nothing has changed: a bus is unusable"};
    }
    for (std::size_t bus = 0; bus < m_all.size(); ++bus) {
        if (m_all[bus]->administration.play(std::move(m_perBus[bus]))) {
            continue;
        }
        if (errno == ENOSPC) {
            throw std::runtime_error{fileName + ": no room for more faults: another user has just added some"};
        }
        throw std::system_error{ENODEV, std::generic_category(), fileName + ": a bus did not take its events"};
    }
}

} // namespace kest::sim
