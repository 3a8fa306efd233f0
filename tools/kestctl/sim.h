/// Area "sim": the simulated machine.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSim(command program, context& shared);

} // namespace kest::tools
