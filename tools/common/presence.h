/// Whether a device is there.
#pragma once

#include <cstdint>

#include "tools/common/devicetext.h"

namespace kest::tools
{

/// Asks for a device: by detection at the address of its own, or, behind a hub, by reading one byte of it. Returns when
/// it is there. Throws a `failure` when it isn't (exit code 4, with a hint when the address looks like one in the wrong
/// form) or when that can't be found out.
/// @param speedKhz  0 for the bus's own
void checkPresence(const device& which, std::uint32_t speedKhz = 0);

} // namespace kest::tools
