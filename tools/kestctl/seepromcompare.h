/// Verbs "seeprom verify" and "seeprom diff".
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

/// Adds both. Their exit code is 5 when the bytes differ.
void addSeepromCompare(command area, context& shared);

} // namespace kest::tools
