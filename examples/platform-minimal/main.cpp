/// Reads and writes a SEEPROM on the platform of this folder, meets a device that is not there, and shows the entry.
#include <cstdio>
#include <cstring>
#include <memory>

#include "kest/kest.h"
#include "minimal.h"
#include "platform/errl.h"

int main()
{
    tavo_deviceaddress memory{.number = 0, .location = "mem:0,L,2C0032,A8"};
    const char* text = "written by kest";
    auto length = static_cast<unsigned int>(std::strlen(text));
    unsigned char* data = nullptr;
    std::unique_ptr<ErrlEntry> error(
        KEST_seepromWrite(memory, nullptr, 0x10, &length, reinterpret_cast<const unsigned char*>(text), nullptr));
    if (!error) {
        error.reset(KEST_seepromRead(memory, nullptr, 0x10, &length, &data, nullptr));
    }
    std::printf("read back: %.*s\n", static_cast<int>(error ? 0 : length), reinterpret_cast<const char*>(data));
    tavo_util_free(reinterpret_cast<void**>(&data));

    const std::unique_ptr<ErrlEntry> absent(KEST_detectDevice("mem:0@AA,L", nullptr));
    if (absent) {
        absent->commit(0x1300, ERRL_ACTION_REPORT);
        std::fputs(minimal::committedText(absent->plid()).c_str(), stdout);
    }
    return error || !absent ? 1 : 0;
}
