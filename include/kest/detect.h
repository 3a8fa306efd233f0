/// Device detection.
#pragma once

#include "kest/address.h"

class ErrlEntry;

namespace kest
{

/// Tells whether a device answers. Only the first two fields of the text are used: the probed address is that of the device
/// path's `@HH` form.
/// @param address     device text
/// @param attributes  six values, of which the bus speed is used; null leaves the bus's own speed
/// @return null when the device is present, else an entry that the caller owns: return code 0x80001311 nothing answers, 0x80001309
/// another detect state, 0x80001315 malformed text, 0x8000132B null address, or that of the failed step.
ErrlEntry* KEST_detectDevice(const char* address, const kest_attributeValue* attributes);

} // namespace kest

using kest::KEST_detectDevice;
