/// Buses as the tools look at them, beside the library: probing, resetting.
#pragma once

#include <cstdint>

#include "tools/common/device.h"

namespace kest::tools
{

/// Whether something acknowledges an address right now. Makes no error entry; a bus that can't be opened answers nothing.
[[nodiscard]] bool answersAt(const busName& bus, std::uint8_t address);

/// Nine clocks and a STOP, or what the adapter has for it. Throws a `failure`.
void resetBus(const busName& bus);

} // namespace kest::tools
