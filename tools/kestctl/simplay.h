/// Verb "sim play": lets a scenario happen on the simulated machine.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSimPlay(command area, context& shared);

} // namespace kest::tools
