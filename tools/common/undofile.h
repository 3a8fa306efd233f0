/// Undo files: the old bytes of a device, saved before it is written.
#pragma once

#include <string>

#include "tools/common/dumpfile.h"

namespace kest::tools
{

/// Saves old bytes in a new file of the state folder, synced before this returns. @return its path. Throws a `failure`
/// whose entry is in the error log.
[[nodiscard]] std::string saveUndo(const dumpContents& contents);

} // namespace kest::tools
