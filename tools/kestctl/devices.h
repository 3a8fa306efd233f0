/// Area "devices": the device table.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addDevices(command program, context& shared);

} // namespace kest::tools
