/// Mistakes of a registry and of a VPD service, and of what a port says of itself.
#include <algorithm>
#include <cstring>

#include "platform/check.h"
#include "platform/errl.h"
#include "platform/registry.h"
#include "platform/tavo.h"
#include "tests/porting/wrong.h"

KEST_WRONG(ErrlEntry*, readRegistry, "_ZN7UtilReg4readEPKcPvRjbP9ErrlEntry", const char* key, void* buffer,
           unsigned int& size, bool reserved, ErrlEntry* none)
{
    char value[64];
    unsigned int bytes = sizeof value;
    if (makes("registry-cuts") && size < 9) {
        delete realreadRegistry(key, value, bytes, reserved, none);
        std::memcpy(buffer, value, size);
        return nullptr;
    }
    ErrlEntry* const entry = realreadRegistry(key, buffer, size, reserved, none);
    if (makes("registry-terminates") && entry == nullptr) {
        static_cast<char*>(buffer)[size] = '\0';
    }
    if (makes("registry-empty-value") && entry != nullptr) {
        size = 0;
    }
    return entry;
}

KEST_WRONG(ErrlEntry*, readCopy, "_Z26tavo_read_data_persistancyPKcjS0_PPhPjj", const char* root, unsigned int device,
           const char* name, unsigned char** data, unsigned int* length, unsigned int offset)
{
    if (makes("length-0-is-nothing") && *length == 0) {
        *data = nullptr;
        return nullptr;
    }
    ErrlEntry* entry = realreadCopy(root, device, name, data, length, offset);
    if (makes("end-is-empty") && entry != nullptr) {
        delete entry;
        entry = nullptr;
        *length = 0;
    }
    if (makes("no-copy-is-an-entry") && *length == 0) {
        realreadCopy(root, 0xD004, name, data, length, ~0U); // lost, as a careless platform's would be
        return realreadCopy(root, 0xD004, name, data, length, ~0U);
    }
    return entry;
}

KEST_WRONG(ErrlEntry*, writeCopy, "_Z27tavo_write_data_persistancyPKcjS0_PKhPjj", const char* root, unsigned int device,
           const char* name, const unsigned char* data, unsigned int* length, unsigned int offset)
{
    static int writes = 0;
    if (makes("copy-written-once") && offset == 3 && ++writes > 1) {
        return realwriteCopy(root, device, name, data, length, ~0U);
    }
    unsigned int cut = offset < 4096 ? std::min(*length, 4096 - offset) : *length;
    return realwriteCopy(root, device, name, data, makes("write-is-cut") ? &cut : length, offset);
}

KEST_WRONG(ErrlEntry*, location, "_Z24TAVO_get_dev_addr_stringjPPc11zelPositionb", unsigned int device, char** string,
           zelPosition position, bool reserved)
{
    char* const before = *string;
    ErrlEntry* const entry = reallocation(device, string, position, reserved);
    if (makes("location-is-cut") && *string != nullptr) {
        (*string)[4] = '\0';
    }
    *string = makes("failure-leaves-text") && entry != nullptr ? before : *string;
    return entry;
}

KEST_WRONG(void*, allocate, "_Z11tavo_mallocj", unsigned int size)
{
    if (makes("nothing-for-size-0") && size == 0) {
        return nullptr;
    }
    void* const memory = realallocate(size);
    return makes("buffers-not-zeroed") ? std::memset(memory, 0xEE, size) : memory;
}

KEST_WRONG(kest_checkedPort, describePort, "_Z17kest_describePortv")
{
    kest_checkedPort port = realdescribePort();
    port.memory.pageSize = makes("small-pages") ? 4 : port.memory.pageSize;
    return port;
}
