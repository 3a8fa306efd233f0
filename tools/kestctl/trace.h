/// Area "trace": the traces of processes.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addTrace(command program, context& shared);

} // namespace kest::tools
