/// Area "init": a configuration that is proposed from what answers.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addInit(command program, context& shared);

} // namespace kest::tools
