/// Reads the first bytes of a SEEPROM and prints them: read-seeprom DEVICE-TEXT [BYTES]
/// For example: KEST_CONFIG=demo/kest.toml read-seeprom sim:planar,L,2C0256,A0 64
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kest/kest.h"
#include "platform/errl.h"

int main(int count, char** arguments)
{
    tavo_deviceaddress address{};
    if (count < 2 || std::strlen(arguments[1]) >= sizeof address.location) {
        std::fputs("usage: read-seeprom DEVICE-TEXT [BYTES]\n", stderr);
        return 2;
    }
    std::strcpy(address.location, arguments[1]);

    kest_attributeValue attributes[KEST_ATTR_COUNT] = {400, 1, 15, 1, 2, 1};
    // 4: hardware, whatever the registry says
    delete KEST_setAttribute(KEST_ATTR_READ_MODE, 4, attributes);

    unsigned int length = count > 2 ? static_cast<unsigned int>(std::strtoul(arguments[2], nullptr, 0)) : 64;
    unsigned char* data = nullptr;

    const std::unique_ptr<ErrlEntry> error(KEST_seepromRead(address, nullptr, 0, &length, &data, attributes));
    if (error) {
        error->commit(0x1300, ERRL_ACTION_REPORT);
        std::fprintf(stderr, "read-seeprom: failed with 0x%08X, log id 0x%08X\n", error->getRC(), error->plid());
    } else if (length != 0 && length % 16 == 0) {
        // the library dumps whole lines only
        const std::unique_ptr<char[]> dump(KEST_miscFmtAndDump(reinterpret_cast<const char*>(data), length));
        std::fputs(dump ? dump.get() : "", stdout);
    } else {
        for (unsigned int index = 0; index < length; ++index) {
            std::printf("%02x%c", data[index], index % 16 == 15 || index + 1 == length ? '\n' : ' ');
        }
    }
    tavo_util_free(reinterpret_cast<void**>(&data));
    return error ? 1 : 0;
}
