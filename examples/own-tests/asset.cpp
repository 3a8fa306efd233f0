/// The program under test: writes an asset tag into a board's memory and reads it back twenty times. A transfer that
/// fails is tried three times. asset BUS TAG; exit code 0 done, 1 failed, 2 wrong use, 4 nothing answers.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "kest/kest.h"
#include "platform/errl.h"

namespace
{

using ownedEntry = std::unique_ptr<ErrlEntry>;

constexpr int attempts = 3;
constexpr int reads = 20;
constexpr std::uint32_t nothingAnswers = kest::kest_classInformational | kest::KEST_REASON_NO_ANSWER;

ownedEntry write(const tavo_deviceaddress& device, const std::string& tag)
{
    auto length = static_cast<unsigned int>(tag.size());
    return ownedEntry(
        KEST_seepromWrite(device, nullptr, 0, &length, reinterpret_cast<const unsigned char*>(tag.data()), nullptr));
}

ownedEntry read(const tavo_deviceaddress& device, std::string& tag)
{
    auto length = static_cast<unsigned int>(tag.size());
    unsigned char* data = nullptr;
    ownedEntry error(KEST_seepromRead(device, nullptr, 0, &length, &data, nullptr));
    if (!error) {
        tag.assign(reinterpret_cast<const char*>(data), length);
    }
    tavo_util_free(reinterpret_cast<void**>(&data));
    return error;
}

/// Tries a transfer until it succeeds. @return the last failure
template <typename Transfer>
ownedEntry insist(const char* what, Transfer transfer)
{
    ownedEntry error;
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        error = transfer();
        if (!error) {
            break;
        }
        std::printf("%s, attempt %d: 0x%08X\n", what, attempt, error->getRC());
    }
    return error;
}

/// @return the program's exit code
int giveUp(const ownedEntry& error)
{
    error->commit(0x1300, ERRL_ACTION_REPORT);
    return error->getRC() == nothingAnswers ? 4 : 1;
}

} // namespace

int main(int count, char** arguments)
{
    tavo_deviceaddress device{};
    if (count != 3 || std::snprintf(device.location, sizeof device.location, "sim:%s,L,1C0002,A0", arguments[1]) >=
                          static_cast<int>(sizeof device.location)) {
        std::fputs("usage: asset BUS TAG\n", stderr);
        return 2;
    }
    const std::string tag = arguments[2];
    if (const ownedEntry error = insist("write", [&] { return write(device, tag); })) {
        return giveUp(error);
    }
    for (int number = 1; number <= reads; ++number) {
        std::string found(tag.size(), ' ');
        if (const ownedEntry error = insist("read", [&] { return read(device, found); })) {
            return giveUp(error);
        }
        if (found != tag) {
            std::printf("read %d: '%s'\n", number, found.c_str());
            return 1;
        }
    }
    std::printf("tag %s, read %d times\n", tag.c_str(), reads);
    return 0;
}
