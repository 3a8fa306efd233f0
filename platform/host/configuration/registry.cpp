#include "platform/registry.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "base/component.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/entry.h"

namespace
{

using kest::componentRegistry;

// Reasons: docs/host-services.md lists them.
constexpr unsigned short badArgument = 0x1501;
constexpr unsigned short keyUnknown = 0x1502;
constexpr unsigned short valueTooLong = 0x1503;
constexpr unsigned short fileNotUsable = 0x1504;
constexpr unsigned short noMemory = 0x1505;
constexpr unsigned short none = 0;
constexpr unsigned char moduleRead = 1;
constexpr unsigned char subsectionKey = 1;
constexpr unsigned char subsectionReason = 2;

/// What is found under a key; points into the configuration.
struct finding {
    unsigned short reason = 0;
    const std::string* value = nullptr;
    const std::string* fileError = nullptr; ///< where that is the reason
};

finding find(const char* key, const void* buffer, unsigned int room)
{
    const std::string& fileError = kest::host::configurationError();
    const auto& registry = kest::host::currentConfiguration().registry;
    const auto found = key != nullptr ? registry.find(key) : registry.end();
    const std::string* value = found != registry.end() ? &found->second : nullptr;
    if (key == nullptr || buffer == nullptr) {
        return {badArgument, value};
    }
    if (!fileError.empty()) {
        // a default in place of a value that was meant would go unnoticed
        return {fileNotUsable, value, &fileError};
    }
    if (value == nullptr) {
        return {keyUnknown};
    }
    return {value->size() > room ? valueTooLong : none, value};
}

void addDetails(ErrlEntry& entry, std::string_view text, unsigned char subsection)
{
    const auto length = static_cast<unsigned short>(std::min<std::size_t>(text.size(), 0xFFFF));
    entry.addUsrDtls(text.data(), length, componentRegistry, 1, subsection);
}

} // namespace

ErrlEntry* UtilReg::read(const char* key, void* buffer, unsigned int& size, bool, ErrlEntry*)
{
    finding found{noMemory};
    try {
        found = find(key, buffer, size);
    } catch (const std::exception&) {
        // the reason stays: no memory
    }
    const auto bytes = found.value != nullptr ? static_cast<unsigned int>(found.value->size()) : 0;
    if (found.reason == none) {
        std::memcpy(buffer, found.value->data(), bytes);
        size = bytes;
        return nullptr;
    }
    ErrlEntry* const entry = kest::host::newHostEntry(componentRegistry, moduleRead, found.reason, {size, bytes, 0, 0});
    if (entry != nullptr && key != nullptr) {
        addDetails(*entry, {key, strnlen(key, 0xFFFF)}, subsectionKey);
    }
    if (entry != nullptr && found.fileError != nullptr) {
        addDetails(*entry, *found.fileError, subsectionReason);
    }
    return entry;
}
