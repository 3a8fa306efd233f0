/// The verb "seeprom probe": what a part is, found out without harm.
#pragma once

#include "tools/common/commandline.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

void addSeepromProbe(command area, context& shared);

} // namespace kest::tools
