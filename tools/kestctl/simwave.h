/// Verb "sim wave": records what goes over a simulated bus.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSimWave(command area, context& shared);

} // namespace kest::tools
