/// Reads or writes a SEEPROM by the library alone.
///
/// seepromwork read|write DEVICE-TEXT OFFSET LENGTH FILE
///
/// FILE takes the bytes that are read, or has those to write, from its start.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kest/kest.h"
#include "platform/errl.h"

namespace
{

using bytes = std::vector<unsigned char>;

bool readFile(const char* name, bytes& into)
{
    std::FILE* file = std::fopen(name, "rb");
    const bool all = file != nullptr && std::fread(into.data(), 1, into.size(), file) == into.size();
    return file != nullptr && std::fclose(file) == 0 && all;
}

bool writeFile(const char* name, const bytes& from)
{
    std::FILE* file = std::fopen(name, "wb");
    const bool all = file != nullptr && std::fwrite(from.data(), 1, from.size(), file) == from.size();
    return file != nullptr && std::fclose(file) == 0 && all;
}

/// @return null, or the entry of the failure
std::unique_ptr<ErrlEntry> readPart(const tavo_deviceaddress& part, unsigned offset, bytes& into)
{
    auto length = static_cast<unsigned>(into.size());
    unsigned char* data = nullptr;
    std::unique_ptr<ErrlEntry> error(KEST_seepromRead(part, nullptr, offset, &length, &data, nullptr));
    if (!error) {
        into.assign(data, data + length);
    }
    tavo_util_free(reinterpret_cast<void**>(&data));
    return error;
}

std::unique_ptr<ErrlEntry> writePart(const tavo_deviceaddress& part, unsigned offset, const bytes& from)
{
    auto length = static_cast<unsigned>(from.size());
    return std::unique_ptr<ErrlEntry>(KEST_seepromWrite(part, nullptr, offset, &length, from.data(), nullptr));
}

} // namespace

int main(int count, char** arguments)
{
    tavo_deviceaddress part{};
    if (count != 6 || std::strlen(arguments[2]) >= sizeof part.location) {
        std::fputs("usage: seepromwork read|write DEVICE-TEXT OFFSET LENGTH FILE\n", stderr);
        return 2;
    }
    std::strcpy(part.location, arguments[2]);
    const auto offset = static_cast<unsigned>(std::strtoul(arguments[3], nullptr, 0));
    bytes data(std::strtoul(arguments[4], nullptr, 0));
    const char* const file = arguments[5];
    if (std::string(arguments[1]) == "read") {
        return readPart(part, offset, data) == nullptr && writeFile(file, data) ? 0 : 1;
    }
    return readFile(file, data) && writePart(part, offset, data) == nullptr ? 0 : 1;
}
