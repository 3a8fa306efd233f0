/// @file
/// Device addresses: chains of IIC devices from the bus master to the end device, and per-call attributes.
///
/// All functions may be used from any thread; none keeps state.
#pragma once

#include <cstdint>

class ErrlEntry;

namespace kest
{

/// What a device is. For SEEPROMs the low 16 bits, read as four decimal digits, are the capacity in kilobits.
enum kest_deviceType : std::uint32_t {
    KEST_DEV_HUB_F0 = 0xF0, ///< hub
    KEST_DEV_922HUB = 0x922, ///< "922" IIC hub
    KEST_DEV_SEEPROM_2K = 0x1C0002, ///< 256 bytes, pages of 8, one offset byte
    KEST_DEV_SEEPROM_32K = 0x2C0032, ///< 4 KiB, pages of 32, two offset bytes
    KEST_DEV_SEEPROM_64K = 0x2C0064, ///< 8 KiB, pages of 32
    KEST_DEV_SEEPROM_128K = 0x2C0128, ///< 16 KiB, pages of 64
    KEST_DEV_SEEPROM_256K = 0x2C0256, ///< 32 KiB, pages of 64
    KEST_DEV_SEEPROM_512K = 0x2C0512, ///< 64 KiB, pages of 128
    KEST_DEV_9551 = 0x9551, ///< 8-output LED driver
    KEST_DEV_9552 = 0x9552, ///< 16-output LED driver
    KEST_DEV_9554 = 0x9554, ///< 8-bit I/O expander
    KEST_DEV_9555 = 0x9555, ///< 16-bit I/O expander
    KEST_DEV_D10 = 0xD10, ///< other end device
    KEST_DEV_75 = 0x75, ///< 16-bit input device, LM75 class
    KEST_DEV_92 = 0x92, ///< 16-bit input device, LM92 class
    KEST_DEV_172 = 0x172, ///< end device that the SEEPROM functions also serve
};

/// One device of a chain; the first is the one nearest the bus master. The chain belongs to the code that built it.
struct kest_deviceAddress {
    std::uint8_t address; ///< IIC address, 8-bit form
    kest_deviceType type; ///< what the device is
    std::uint8_t port; ///< on a hub: the sub-bus through which the next device is reached
    kest_deviceAddress* next; ///< null at the end device
};

/// Index of an attribute in a record of six.
enum kest_attribute : std::int32_t {
    KEST_ATTR_BUS_SPEED = 0, ///< kHz, of a simulated bus; a kernel bus keeps its adapter's clock; default 400
    KEST_ATTR_OPTION = 1, ///< carried to the hardware routines; default 1
    KEST_ATTR_WRITE_CYCLE = 2, ///< ms a page; default 15
    KEST_ATTR_READ_MODE =
        3, ///< 1 registry (cached), 2 registry (read again), 3 file, 5 mixed, other hardware; default 1
    KEST_ATTR_TIMEOUT_FACTOR = 4, ///< multiplies the computed time-out; default 2
    KEST_ATTR_TRANSFER_MODE = 5, ///< selects the time-out formula; default 1
};

/// The value of one attribute, in the attribute's own unit.
using kest_attributeValue = std::uint32_t;

/// Number of values in an attribute record. A null record stands for the defaults 400, 1, 15, 1, 2, 1.
constexpr int KEST_ATTR_COUNT = 6;

/// Appends one node, allocated with `new`, to a list. Without memory the list stays as it is.
/// @param address  IIC address, 8-bit form
/// @param type  what the device is
/// @param port  on a hub: the sub-bus through which the next device is reached, 0 to 7; else 0
/// @param[in,out] list  the list, null when it is empty; the caller owns it and frees it with KEST_deleteDevAddress().
/// A null `list` is ignored.
void KEST_addDevAddress(unsigned char address, kest_deviceType type, unsigned char port, kest_deviceAddress** list);

/// Removes and deletes the last node of a list, or all of them.
/// @param[in,out] list  a list that KEST_addDevAddress() or KEST_unflattenAddressList() made; null once it is empty.
/// Null or empty is ignored.
/// @param all  true: every node; false: the last one
void KEST_deleteDevAddress(kest_deviceAddress** list, bool all);

/// Copies a list into one array whose elements link to one another. Padding is zero.
/// @param list  stays the caller's
/// @param[out] size  bytes of the array (nodes x sizeof(kest_deviceAddress)), 0 when there is none; may be null
/// @return the array, which the caller owns, to delete with `delete[]`; null for a null list and without memory.
kest_deviceAddress* KEST_flattenAddressList(const kest_deviceAddress* list, unsigned int* size);

/// Copies a flat array, whose links must be valid, into a list.
/// @param flat  stays the caller's
/// @return the list, which the caller owns, to free with KEST_deleteDevAddress(); null for null and without memory.
kest_deviceAddress* KEST_unflattenAddressList(const kest_deviceAddress* flat);

/// Makes the links of a flat array that was copied to `flat` point into the copy. The last element is the first whose
/// link is null.
/// @param[in,out] flat  the copy; null is ignored
void KEST_reflattenAddressList(kest_deviceAddress* flat);

/// Checks a chain: at most three nodes, hubs first, exactly one end device, last.
/// @param list  the chain, which stays the caller's
/// @return 0 when valid; 0xAC0001 no list, 0xAC0002 more than three nodes, 0xAC0003 unknown type, 0xAC0004 end device
/// before a hub, 0xAC0005 end device before an end device, 0xAC0006 forbidden hub behind a hub, 0xAC0007 chain ends
/// in a hub.
std::uint32_t kest_checkAddressList(const kest_deviceAddress* list);

/// Sets one attribute of a record.
/// @param id  which one
/// @param value  in the attribute's unit; 0 restores the default
/// @param[in,out] record  six values, indexed by `kest_attribute`; left alone on an error
/// @return null on success, else an entry that the caller owns: 0x8000132B no record, 0x80001301 no such attribute.
ErrlEntry* KEST_setAttribute(kest_attribute id, kest_attributeValue value, kest_attributeValue* record);

} // namespace kest

using enum kest::kest_deviceType;
using enum kest::kest_attribute;
using kest::KEST_addDevAddress;
using kest::KEST_ATTR_COUNT;
using kest::kest_attribute;
using kest::kest_attributeValue;
using kest::kest_checkAddressList;
using kest::KEST_deleteDevAddress;
using kest::kest_deviceAddress;
using kest::kest_deviceType;
using kest::KEST_flattenAddressList;
using kest::KEST_reflattenAddressList;
using kest::KEST_setAttribute;
using kest::KEST_unflattenAddressList;
