/// The file of a scenario: what happens on a machine as its bus time passes.
#pragma once

#include "sim/event.h"
#include "sim/fault.h"

#include <string>
#include <string_view>
#include <vector>

namespace kest::sim
{

/// One event as the file has it. Times and numbers of transactions count from the moment when the scenario begins.
struct eventDescription {
    eventRecord event; ///< without its fault
    faultDescription fault; ///< of an event that is one
    std::string bus; ///< empty: every bus, each by its own time
    std::string node; ///< of the bus; without one, the buses of this node alone
    std::string place; ///< "FILE:LINE:COLUMN"
};

/// Reads the text of a scenario, in the order in which the events happen: those that wait for a transaction first, then
/// by time. Throws std::runtime_error with "FILE:LINE:COLUMN: what is wrong".
std::vector<eventDescription> parseScenario(std::string_view text, const std::string& fileName);

} // namespace kest::sim
