/// @file
/// Device detection. The function may be called from any thread, and blocks until it is done.
#pragma once

#include "kest/address.h"

class ErrlEntry;

namespace kest
{

/// Finds out whether a device is there. Only the first two fields of the text are used: the address asked is that of
/// the device path's `@HH` form.
///
/// If reading the detect state fails with EDEADLK, that failure is committed at once (action 0x2000) and the device
/// counts as absent. EDEADLK in an earlier step does not end the detection. When the error log has no memory for an
/// entry, the result is null: the device then counts as present.
/// @param address  device text
/// @param attributes  six values, of which only the bus speed is used; null leaves the bus's own speed
/// @return null when the device is present, else an entry that the caller owns: return code 0x80001311 nothing answers,
/// 0x80001309 another detect state, 0x80001315 malformed text, 0x8000132B null address, or that of the failed step.
ErrlEntry* KEST_detectDevice(const char* address, const kest_attributeValue* attributes);

} // namespace kest

using kest::KEST_detectDevice;
