/// Verb "seeprom undo": brings back what a write replaced.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSeepromUndo(command area, context& shared);

} // namespace kest::tools
