/// What the trial write of a width proof says of the width.
#pragma once

#include <string>

#include "tools/common/seeprom.h"
#include "tools/common/widthengine.h"
#include "tools/common/widthtrial.h"

namespace kest::tools
{

/// Puts into a finding what a trial showed.
/// @param hint  how the old bytes are restored where they may not be back
/// @return false when the byte changed nothing: the width stays open
/// Throws a `failure` when the part can't be one of the chip's type (exit code 3), when the trial ended in no way that
/// is known (3), and when its byte could not be written.
[[nodiscard]] bool settleTrial(const seeprom& chip, const trialByte& trial, const trialResult& result,
                               const std::string& hint, widthFinding& finding);

} // namespace kest::tools
