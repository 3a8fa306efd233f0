/// The undo file of a part that may have one offset byte, while its device text says two.
#pragma once

#include <string>

#include "tools/common/seeprom.h"
#include "tools/common/shortpart.h"

namespace kest::tools
{

/// Saves what the part holds if it takes one offset byte: an undo file by the chip's type does not fit such a part.
/// @return as saveUndo(), and throws as it does
[[nodiscard]] std::string saveFirst(const seeprom& chip, const firstContent& first);

/// How to restore such a file, also where the device table names another type.
[[nodiscard]] std::string restoreFirstHint(const seeprom& chip, const std::string& firstFile);

} // namespace kest::tools
