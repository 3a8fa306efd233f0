/// Verb "sim fault": makes transactions of the simulated machine fail.
#pragma once

#include <string>

#include "sim/machine.h"
#include "tools/common/json.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSimFault(command area, context& shared);

[[nodiscard]] jsonValue faultJson(const sim::machine::listedFault& fault);

/// One line for people, without its end.
[[nodiscard]] std::string faultText(const sim::machine::listedFault& fault);

} // namespace kest::tools
