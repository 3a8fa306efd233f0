/// Verbs "seeprom write" and "seeprom restore".
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSeepromWrite(command area, context& shared);
void addSeepromRestore(command area, context& shared);

} // namespace kest::tools
