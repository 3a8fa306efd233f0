/// Area "message": requests through the message service, kestd.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addMessage(command program, context& shared);

} // namespace kest::tools
