/// Area "topology": buses, hubs and devices as a tree.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addTopology(command program, context& shared);

} // namespace kest::tools
