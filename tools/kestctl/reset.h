/// Area "reset": frees a held bus.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addReset(command program, context& shared);

} // namespace kest::tools
