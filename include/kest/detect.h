/// Device detection.
#pragma once

#include "kest/address.h"

class ErrlEntry;

namespace kest
{

/// Tells whether a device answers. Only the first two fields of the text are used: the probed address is that of the
/// device path's `@HH` form.
///
/// A detect state that could not be read because of EDEADLK (the failure is committed at once, action 0x2000) counts as
/// absent; the same failure of a step ahead of it does not end the detection. Null is also the result when the error
/// log has no memory for an entry: it then says "present" of whatever was found.
/// @param address     device text
/// @param attributes  six values, of which the bus speed is used; null leaves the bus's own speed
/// @return null when the device is present, else an entry that the caller owns: return code 0x80001311 nothing answers,
/// 0x80001309 another detect state, 0x80001315 malformed text, 0x8000132B null address, or that of the failed step.
ErrlEntry* KEST_detectDevice(const char* address, const kest_attributeValue* attributes);

} // namespace kest

using kest::KEST_detectDevice;
