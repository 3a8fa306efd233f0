/// Options that take their values from [defaults] of the configuration where the command line does not give them.
#pragma once

#include <functional>
#include <vector>

#include "platform/host/configuration/settings.h"
#include "tools/common/command.h"

namespace kest::tools
{

/// Has options, of which none is given, take a default. @param take  called once the command line has been parsed
void elseByDefault(std::vector<option> options, std::function<void(const host::commandDefaults& defaults)> take);

/// Calls those whose options are not given.
void takeDefaults(const host::commandDefaults& defaults);

} // namespace kest::tools
