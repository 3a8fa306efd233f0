/// Area "detect": whether devices are there.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addDetect(command program, context& shared);

} // namespace kest::tools
