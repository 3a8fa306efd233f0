/// Whether a device is present.
#pragma once

#include <cstdint>

#include "tools/common/devicetext.h"

namespace kest::tools
{

/// Checks whether a device is present: by detection at its own address or, behind a hub, by reading one byte of it.
/// Returns when it is. Throws a `failure` when it is not (exit code 4, with a hint when the address looks like one in
/// the wrong form), or when that is not certain.
/// @param speedKhz  0 for the bus's own
void checkPresence(const device& which, std::uint32_t speedKhz = 0);

} // namespace kest::tools
