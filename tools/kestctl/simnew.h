/// Verb "sim new": writes a demo machine and its configuration.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSimNew(command area, context& shared);

} // namespace kest::tools
