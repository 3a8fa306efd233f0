/// Area "port": outputs, inputs and configuration of LED drivers and I/O expanders.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addPort(command program, context& shared);

} // namespace kest::tools
