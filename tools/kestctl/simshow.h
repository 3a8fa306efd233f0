/// Verb "sim show": chips of the simulated machine with their registers and what their pins do, and faults.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSimShow(command area, context& shared);

} // namespace kest::tools
