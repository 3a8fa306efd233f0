/// @file
/// The platform's vital product data (VPD) service: persisted copies of SEEPROM contents, device numbers, shared
/// buffers. All functions may be called from any thread.
#pragma once

#include <cstdint>

class ErrlEntry;

/// A device as the VPD service names it. Passed by value; 260 bytes.
struct tavo_deviceaddress {
    std::uint32_t number; ///< device number; 0 when only the location is known
    char location[256]; ///< device text, NUL-terminated unless it fills the field
};
static_assert(sizeof(tavo_deviceaddress) == 260);

/// Selects one of the places that a device number can have.
enum zelPosition : std::uint32_t {
};

/// Reads from a device's persisted copy.
/// @param root  persistency root, "qorn/P3_Root"
/// @param device  device number
/// @param name  null
/// @param[out] data  what was found, to free with tavo_util_free(); null when nothing was found, and after a failure
/// @param[in,out] length  in: bytes wanted, 0 for all from `offset` on; out: bytes in `*data`, fewer when the copy ends
/// sooner, 0 when there is no copy; unchanged after a failure
/// @param offset  first byte, counted from 0. An offset at or past the copy's end is an error.
/// @return null on success, else an entry that the caller owns.
ErrlEntry* tavo_read_data_persistancy(const char* root, unsigned int device, const char* name, unsigned char** data,
                                      unsigned int* length, unsigned int offset);

/// Changes the given bytes of a device's persisted copy: all of them or none. A write past the copy's end, or without a
/// copy, is refused and changes nothing. After a failure of the disk (the entry says so) the copy holds either all old
/// or all new bytes.
/// @param root  persistency root, "qorn/P3_Root"
/// @param device  device number
/// @param name  null
/// @param data  stays the caller's
/// @param[in] length  bytes at `data`; left alone
/// @param offset  first byte, counted from 0
/// @return null on success, else an entry that the caller owns.
ErrlEntry* tavo_write_data_persistancy(const char* root, unsigned int device, const char* name,
                                       const unsigned char* data, unsigned int* length, unsigned int offset);

/// Turns a device number into its location text.
/// @param deviceAddress  the device number
/// @param[out] string  NUL-terminated text, to free with tavo_util_free()
/// @param position  which of the number's places
/// @param reserved  false
/// @return null on success, else an entry that the caller owns; `*string` is then null.
ErrlEntry* TAVO_get_dev_addr_string(unsigned int deviceAddress, char** string, zelPosition position, bool reserved);

/// Allocates a shared buffer.
/// @param size  bytes
/// @return `size` zeroed bytes (a distinct pointer also for size 0), to free with tavo_util_free(); null when there is
/// no memory.
void* tavo_malloc(unsigned int size);

/// Frees a buffer of the VPD service or the IIC layer and sets the pointer to null.
/// @param[in,out] buffer  the pointer to it; null, or a pointer to null, is ignored
void tavo_util_free(void** buffer);
