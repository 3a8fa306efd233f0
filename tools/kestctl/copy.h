/// Area "copy": the persisted copies that file and mixed mode serve.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addCopy(command program, context& shared);

} // namespace kest::tools
