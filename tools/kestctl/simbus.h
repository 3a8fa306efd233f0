/// What the verbs of area "sim" share.
#pragma once

#include <string>

#include "sim/machine.h"
#include "tools/common/json.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

/// The machine's name of a bus, without "sim:".
[[nodiscard]] std::string simBusName(const std::string& name);

/// A bus by its name and the node that a user gave with it, as faults and recordings name it: "BUS" or "NODE:BUS".
/// @param node  name of a node of the machine, or "L" or "0" to "7" as in device texts; empty: `name` says all
/// Throws a `failure` when the machine has no such node.
[[nodiscard]] std::string busOnNode(sim::machine& machine, const std::string& name, const std::string& node);

/// The machine's name of a node. @param node  as for busOnNode()
[[nodiscard]] std::string machineNode(sim::machine& machine, const std::string& node);

/// The option --node of a verb on the machine's buses.
void addMachineNode(command verb, std::string& node, const std::string& help);

/// Throws a `failure` when the machine has no bus of that name on any node; "NODE:BUS" names one on a node.
void requireBus(sim::machine& machine, const std::string& name);

/// Reports that something was done: as JSON, or as a line of text.
void reportDone(const context& shared, const jsonValue& json, const std::string& text);

} // namespace kest::tools
