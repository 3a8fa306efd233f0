/// "copy verify": a persisted copy against its check sums and its device.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addCopyVerify(command area, context& shared);

} // namespace kest::tools
