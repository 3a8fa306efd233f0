/// Area "scan": what answers on a bus.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addScan(command program, context& shared);

} // namespace kest::tools
