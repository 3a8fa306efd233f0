/// The wrapper over the IIC layer: every bus access of the library, with one way to report its failures.
///
/// No wrapper returns a result: a non-null `entry` after the call is the failure, and the caller's. A failure with
/// EDEADLK is committed here and leaves `entry` null. `errno` is read right after the layer's call.
#pragma once

#include <cstdint>

#include "kest/address.h"
#include "kest/text.h"
#include "kestffdc.h"
#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

/// Directions of kest_wobuConfig().
constexpr int kest_configRead = MERN_CONFIG_READ;
constexpr int kest_configSet = MERN_CONFIG_SET;

using kest_iicConfigBlock = mern_iic_block;

/// Whether no device is open: the first five words are those of MERN_INVALID.
bool kest_isInvalidHandle(const mern_t& handle);

void kest_wobuOpen(mern_t& handle, ErrlEntry*& entry, const char* devicePath, const char* nodeName);
void kest_wobuConfig(mern_t handle, ErrlEntry*& entry, int operation, wobu_iic_cfg_t item, void* value,
                     unsigned int size);
void kest_wobuSeek(mern_t& handle, ErrlEntry*& entry, long offset, int whence);
/// @param[in,out] length  in: bytes wanted; out: bytes moved
/// @param checkStatus  non-zero: after a failure also read the device's detect state
void kest_wobuRead(mern_t& handle, ErrlEntry*& entry, unsigned int* length, void* buffer, int checkStatus);
void kest_wobuWrite(mern_t& handle, ErrlEntry*& entry, unsigned int* length, const void* data);
void kest_wobuClose(mern_t& handle, ErrlEntry*& entry);

/// Fills the layer's configuration block for a transfer to the device at the end of `chain`.
/// @param chain  not null
/// @param length  bytes of the transfer, for the time-out
/// @param read  direction of the transfer
/// @param attributes  six values, not null
/// @param hubOption  offset format behind a 922 hub: 1 for one offset byte, 2 for two, else 0
void kest_wobuBuildConfig(const kest_deviceAddress* chain, unsigned int length, bool read, kest_iicConfigBlock* block,
                          const kest_attributeValue* attributes, int hubOption);

} // namespace kest
