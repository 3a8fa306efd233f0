#include "platform/registry.h"

#include <algorithm>
#include <cstring>

#include "platform/host/errorlog/entry.h"
#include "platform/host/registry/configuration.h"

namespace
{

constexpr unsigned short component = 0x1500;

// Reasons: docs/host-services.md lists them.
constexpr unsigned short badArgument      = 0x1501;
constexpr unsigned short keyUnknown       = 0x1502;
constexpr unsigned short valueTooLong     = 0x1503;
constexpr unsigned short fileNotUsable    = 0x1504;
constexpr unsigned char  moduleRead       = 1;
constexpr unsigned char  subsectionKey    = 1;
constexpr unsigned char  subsectionReason = 2;

} // namespace

ErrlEntry* UtilReg::read(const char* key, void* buffer, unsigned int& size, bool, ErrlEntry*)
{
    const std::string& fileError = kest::host::configurationError();
    const auto&        registry  = kest::host::currentConfiguration().registry;
    const auto         found     = key != nullptr ? registry.find(key) : registry.end();
    unsigned short     reason    = 0;
    if (key == nullptr || buffer == nullptr)
        reason = badArgument;
    else if (!fileError.empty())
        reason = fileNotUsable; // a default in place of a value that was meant would go unnoticed
    else if (found == registry.end())
        reason = keyUnknown;
    else if (found->second.size() > size)
        reason = valueTooLong;

    ErrlEntry* entry = nullptr;
    if (reason == 0) {
        std::memcpy(buffer, found->second.data(), found->second.size());
        size = static_cast<unsigned int>(found->second.size());
    } else {
        const auto bytesOfValue = found != registry.end() ? static_cast<unsigned int>(found->second.size()) : 0;
        entry                   = kest::host::newHostEntry(component, moduleRead, reason, {size, bytesOfValue, 0, 0});
        if (entry != nullptr) {
            if (key != nullptr)
                entry->addUsrDtls(key, static_cast<unsigned short>(strnlen(key, 0xFFFF)), component, 1, subsectionKey);
            if (reason == fileNotUsable)
                entry->addUsrDtls(fileError.data(),
                                  static_cast<unsigned short>(std::min<std::size_t>(fileError.size(), 0xFFFF)),
                                  component, 1, subsectionReason);
        }
    }
    return entry;
}
