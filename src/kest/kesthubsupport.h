/// SEEPROM transfers through a 922 hub: lock, configuration, transfer, the hub's verdict, release.
#pragma once

#include <cstdint>

#include "kest/address.h"
#include "kesthubreset.h"
#include "kestmisc.h"
#include "kestwobu.h"
#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

using kest_922AddressLock = mern_iic_lock;

void kest_922lockDeviceAddress(mern_t handle, const kest_deviceAddress* address, unsigned int length, bool isRead,
                               kest_922AddressLock* lock, const kest_attributeValue* attributes, ErrlEntry*& errl);
void kest_922setHubConfig(mern_t handle, const kest_deviceAddress* address, unsigned int length, void* configBlock,
                          const kest_attributeValue* attributes, bool isRead, ErrlEntry*& errl, int deviceMode);
void kest_922releaseDeviceAddressLock(mern_t handle, const kest_deviceAddress* address, unsigned int length,
                                      kest_922AddressLock* lock, const kest_attributeValue* attributes,
                                      ErrlEntry*& errl);

/// @param device  its chain is valid and begins with the hub
/// @param operation  1 writes, 0 reads; any other does nothing
/// @param[in,out] length  bytes to move; bytes moved. A read that succeeds only when repeated can report one byte more
/// than was asked for.
/// @param data  the caller's buffer, of at least `*length` bytes
/// @param path  the device text, for logging and the hub's reset
void kest_922HubSupport(kest_deviceInfo* device, unsigned int* length, int operation, void** data, unsigned int offset,
                        const kest_attributeValue* attributes, ErrlEntry*& errl, const char* path);
void kest_922HubQueryErrStatus(mern_t handle, unsigned int hubAddress, ErrlEntry*& errl, const char* path);
void kest_922HubHandlePrimSecErrLogs(ErrlEntry*& primary, ErrlEntry*& secondary, unsigned char subBusReset);

} // namespace kest
