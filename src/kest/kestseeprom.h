/// SEEPROM hardware transfers, their time-outs and their one retry; the read mode.
#pragma once

#include <cstdint>

#include "kest/seeprom.h"
#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

/// Read modes.
constexpr unsigned int kest_modeUnknown = 0;
constexpr unsigned int kest_modeFile = 1;
constexpr unsigned int kest_modeMixed = 2;
constexpr unsigned int kest_modeHardware = 3;

/// @param value  2 reads the registry again; any other uses the cached mode when there is one. @return 1, 2 or 3
unsigned int kest_detectMode(kest_attributeValue value);

/// Empties the mode cache, as at load. For tests.
void kest_forgetMode();

/// @param[in,out] error  null on entry
/// @param[in,out] length  in: bytes wanted, 0 for the device's capacity; out: bytes read. With an entry: the layer's
/// count, unchanged; when no transfer was made, the bytes wanted, or 0 when a check failed
/// @param[out] data  buffer to free with tavo_util_free(), also after a failure
/// @param attributes  not null
void kest_seepromHardwareRead(ErrlEntry*& error, tavo_deviceaddress address, unsigned int offset, unsigned int* length,
                              unsigned char** data, const kest_attributeValue* attributes);
/// @param[in,out] length  in: bytes to write; out: bytes that the IIC layer reports written. With an entry: the layer's
/// count, unchanged
void kest_seepromHardwareWrite(ErrlEntry*& error, tavo_deviceaddress address, unsigned int offset, unsigned int* length,
                               const unsigned char* data, const kest_attributeValue* attributes);

/// @return the time-out of a transfer, ms
std::uint32_t kest_timeoutCalc(const kest_deviceAddress* chain, unsigned int length, bool read,
                               const kest_attributeValue* attributes);

/// Resets the bus and repeats a timed-out transfer once. Success commits and clears `error`; otherwise it is kept and
/// extended. A failed reset is a failure even without memory for its entry.
/// @param operation  0 repeats a read, 1 a write
void kest_wobuResetRetry(mern_t& handle, ErrlEntry*& error, unsigned int* length, void* buffer, int operation);

} // namespace kest
