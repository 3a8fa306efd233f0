/// Area "errors": the error log.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addErrors(command program, context& shared);

} // namespace kest::tools
