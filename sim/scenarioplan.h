/// The events of a scenario, checked and given to the buses that they concern.
#pragma once

#include "sim/event.h"
#include "sim/machinebuses.h"
#include "sim/scenariofile.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kest::sim
{

class scenarioPlan
{
public:
    enum class purpose {
        start,
        check, ///< never started: its faults take no numbers
    };
    /// @param buses  outlive the plan
    explicit scenarioPlan(machineBuses& buses, purpose made = purpose::start)
        : m_buses{buses}, m_all{buses.all()}, m_perBus(m_all.size()), m_made{made}
    {
    }

    /// Throws std::runtime_error with "FILE:LINE:COLUMN: what is wrong" for an event that the machine cannot have.
    void add(const eventDescription& what);
    /// Puts the events in place of the scenario before.
    /// Throws std::system_error, ENODEV, when a bus is unusable: then none changes; std::runtime_error when another user
    /// has taken the room for the faults since add(). @param fileName  for its text
    void start(const std::string& fileName);

private:
    void check(const eventDescription& what, std::size_t bus) const;

    machineBuses& m_buses;
    const std::vector<std::unique_ptr<machineBus>>& m_all;
    std::vector<std::vector<eventRecord>> m_perBus;
    purpose m_made;
};

} // namespace kest::sim
