/// Area "thermal": temperature sensors.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addThermal(command program, context& shared);

} // namespace kest::tools
