/// Reads that writers are kept off.
#pragma once

#include <string>

#include "tools/common/operation.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

/// Reads bytes as seeprom::read() does, and holds the device for no longer than that; a persisted copy is not held. A
/// signal counts up to the last byte. Throws a `failure`, as deviceOperation and seeprom::read() do.
/// @param step  what is being done, for messages and progress
[[nodiscard]] byteVector readHeld(seeprom& chip, const byteRange& range, const std::string& step,
                                  const operationRequest& request);

} // namespace kest::tools
