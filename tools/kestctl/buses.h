/// Area "buses": which buses there are, and what their adapters can do.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addBuses(command program, context& shared);

} // namespace kest::tools
