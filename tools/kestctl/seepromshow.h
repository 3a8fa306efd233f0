/// Verb "seeprom show": what the bytes of a SEEPROM say.
#pragma once

#include "tools/common/commandline.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

void addSeepromShow(command area, context& shared);

} // namespace kest::tools
