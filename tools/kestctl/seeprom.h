/// Area "seeprom": reading, writing and comparing SEEPROMs.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSeeprom(command program, context& shared);

} // namespace kest::tools
