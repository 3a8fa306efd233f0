/// What the verbs of area "sim" share.
#pragma once

#include <string>

#include "sim/machine.h"
#include "tools/common/json.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

/// The machine's name of a bus, without "sim:".
[[nodiscard]] std::string simBusName(const std::string& name);

/// Throws a `failure` when the machine has no bus of that name on any node; "NODE:BUS" names one on a node.
void requireBus(sim::machine& machine, const std::string& name);

/// Reports that something was done: as JSON, or as a line of text.
void reportDone(const context& shared, const jsonValue& json, const std::string& text);

} // namespace kest::tools
