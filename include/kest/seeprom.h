/// @file
/// Reading and writing SEEPROMs, from hardware or persisted copies. Both functions may be called from any thread.
#pragma once

#include "kest/address.h"
#include "platform/tavo.h"

class ErrlEntry;

namespace kest
{

/// Reads bytes of a SEEPROM from its persisted copy or over IIC, as the read mode in `attributes` says. Blocks until
/// done.
/// @param address  device number (names the persisted copy) and device text (names the hardware)
/// @param spare  not used
/// @param offset  first byte, counted from 0
/// @param[in,out] length  in: bytes wanted; 0 on hardware means the whole device's capacity. out: on success bytes in
/// `*data`. After a failure it is the bus layer's count: any value, even (unsigned)-1. It then says nothing about
/// `*data`.
/// @param[out] data  null on entry; afterwards, when not null, a buffer to free with tavo_util_free(), also after a
/// failure
/// @param attributes  six values indexed by `kest_attribute`; null takes the defaults
/// @return null on success, else an entry that the caller owns: pass it on, commit it or delete it.
ErrlEntry* KEST_seepromRead(tavo_deviceaddress address, const char* spare, unsigned int offset, unsigned int* length,
                            unsigned char** data, const kest_attributeValue* attributes);

/// Writes bytes of a SEEPROM to its persisted copy or over IIC, as the read mode in `attributes` says. Blocks until
/// done. In mixed mode a device that has a persisted copy is not touched: the copy takes the write.
/// @param address  device number (names the persisted copy) and device text (names the hardware)
/// @param spare  not used
/// @param offset  first byte, counted from 0
/// @param[in,out] length  in: bytes at `data`. out: bytes that the bus layer reports written; after a failure any
/// value, even (unsigned)-1
/// @param data  stays the caller's
/// @param attributes  six values indexed by `kest_attribute`; null takes the defaults
/// @return null on success, else an entry that the caller owns: pass it on, commit it or delete it.
ErrlEntry* KEST_seepromWrite(tavo_deviceaddress address, const char* spare, unsigned int offset, unsigned int* length,
                             const unsigned char* data, const kest_attributeValue* attributes);

} // namespace kest

using kest::KEST_seepromRead;
using kest::KEST_seepromWrite;
