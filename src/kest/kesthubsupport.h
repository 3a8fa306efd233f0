/// SEEPROM transfers through a 922 hub: lock, configuration, transfer, the hub's verdict, release.
#pragma once

#include <cstdint>

#include "kest/address.h"
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

/// @param device          its chain is valid and begins with the hub
/// @param operation       1 writes, 0 reads; any other does nothing
/// @param[in,out] length  bytes to move; bytes moved. A read that succeeds only on its repeat can say one more than
/// asked.
/// @param data            the caller's buffer, of at least `*length` bytes
/// @param path            the device text, for logging and the hub's reset
void kest_922HubSupport(kest_deviceInfo* device, unsigned int* length, int operation, void** data, unsigned int offset,
                        const kest_attributeValue* attributes, ErrlEntry*& errl, const char* path);
void kest_922HubQueryErrStatus(mern_t handle, unsigned int hubAddress, ErrlEntry*& errl, const char* path);
void kest_handle_hub_reset(ErrlEntry*& errl, const char* path, mern_t handle, unsigned int hubAddress);
/// Resets the hub when the entry says that it did not acknowledge its address (ENXIO); else, or without an entry, does
/// nothing.
void kest_resetSilentHub(ErrlEntry*& errl, const char* path, mern_t handle, unsigned int hubAddress);
void kest_922HubHandlePrimSecErrLogs(ErrlEntry*& primary, ErrlEntry*& secondary, unsigned char subBusReset);
/// Bytes that a reset path takes beyond `strlen(path)`, at most: a token without its comma gets one, then come
/// "9552,0xC0" and the terminator.
constexpr unsigned int kest_hubResetPathExtra = 16;
/// Builds the device text of the expander that drives a hub's reset line: the first two tokens of `path`,
/// then "9552," and the address.
/// @param[out] out  `strlen(path) + 1` bytes, zeroed first. They hold the reset path of any device behind a hub, whose
/// own links are longer. For a path that ends sooner, as one of two tokens does, `strlen(path) +
/// kest_hubResetPathExtra` bytes are needed.
void kest_build922HubResetPath(const char* path, char* out, unsigned char hubAddress);

} // namespace kest
