/// How writes are refused whose offset width is another than that of the device's type, or not known.
#pragma once

#include <string>

#include "tools/common/devicetext.h"
#include "tools/common/failure.h"
#include "tools/common/widthengine.h"

namespace kest::tools
{

/// The step of a proof and of a trial, for messages.
inline constexpr const char* widthStep = "width proof";
/// What helps where the width is not known.
inline constexpr const char* unprovedHint =
    "--width-unproved writes all the same, or 'width_proved = true' in the device table";

/// Exit code 3.
[[nodiscard]] failure widthRefusal(const device& target, const std::string& what, const std::string& tryThis);
/// Throws a failure; an interruption that says the same when there was a signal.
[[noreturn]] void throwSeen(const device& target, const failure& why);

/// "types that would fit: 24C02 (1C0002)".
[[nodiscard]] std::string fittingHint(const widthFinding& finding);
/// "it holds its old bytes".
[[nodiscard]] const char* backText(bool isBack);

} // namespace kest::tools
