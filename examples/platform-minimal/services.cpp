/// Registry, VPD service, memory and messages. A product reads from its configuration what stands here as constants.
#include <array>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/errl.h"
#include "platform/netc.h"
#include "platform/registry.h"
#include "platform/tavo.h"

namespace
{

constexpr const char* registryKey = "tavo/ReadMode";
constexpr const char* registryValue = "HWareMode";
constexpr unsigned int deviceNumber = 0xD004; ///< has a persisted copy and a location
constexpr const char* deviceLocation = "mem:0,L,2C0032,A8";

// Reasons of this platform's entries.
constexpr unsigned short keyUnknown = 1, valueTooLong = 2, outsideCopy = 3, deviceUnknown = 4, noMemory = 5;

std::array<unsigned char, 4096> persisted{'c', 'o', 'p', 'y'};
std::mutex copyGuard;

/// @return an entry of this platform's own component, with a return code; null without memory
ErrlEntry* newEntry(unsigned short why, unsigned int word1, unsigned int word2 = 0)
{
    auto* entry = new ErrlEntry(0x4700, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0, 1,
                                SERVICE_CODE_KEST, why, word1, word2, 0, 0, EPUB_SUBSYSTEM_SOFTWARE, SRCI_TERM_NONE);
    if (entry != nullptr) {
        entry->setRC(0x80000000 | why);
    }
    return entry;
}

void* copyOf(const void* bytes, unsigned int size)
{
    void* const copy = tavo_malloc(size);
    return copy != nullptr ? std::memcpy(copy, bytes, size) : nullptr;
}

} // namespace

ErrlEntry* UtilReg::read(const char* key, void* buffer, unsigned int& size, bool, ErrlEntry*)
{
    const bool known = std::strcmp(key, registryKey) == 0;
    const auto bytes = static_cast<unsigned int>(std::strlen(registryValue));
    if (!known || bytes > size) {
        return newEntry(known ? valueTooLong : keyUnknown, size);
    }
    std::memcpy(buffer, registryValue, size = bytes);
    return nullptr;
}

ErrlEntry* tavo_read_data_persistancy(const char*, unsigned int device, const char*, unsigned char** data,
                                      unsigned int* length, unsigned int offset)
{
    *data = nullptr;
    if (device != deviceNumber || offset >= persisted.size()) {
        // a device without a copy is no failure
        *length = device != deviceNumber ? 0 : *length;
        return device != deviceNumber ? nullptr : newEntry(outsideCopy, device, offset);
    }
    const auto left = static_cast<unsigned int>(persisted.size()) - offset;
    const unsigned int found = *length == 0 || *length > left ? left : *length;
    const std::lock_guard hold(copyGuard);
    *data = static_cast<unsigned char*>(copyOf(&persisted[offset], found));
    *length = *data != nullptr ? found : *length;
    return *data != nullptr ? nullptr : newEntry(noMemory, found);
}

ErrlEntry* tavo_write_data_persistancy(const char*, unsigned int device, const char*, const unsigned char* data,
                                       unsigned int* length, unsigned int offset)
{
    // two comparisons: a sum could wrap
    if (device != deviceNumber || offset > persisted.size() || *length > persisted.size() - offset) {
        return newEntry(device != deviceNumber ? deviceUnknown : outsideCopy, device, offset);
    }
    const std::lock_guard hold(copyGuard);
    std::memcpy(persisted.data() + offset, data, *length);
    return nullptr;
}

ErrlEntry* TAVO_get_dev_addr_string(unsigned int device, char** string, zelPosition position, bool)
{
    const bool known = device == deviceNumber && position == 0;
    const auto bytes = static_cast<unsigned int>(std::strlen(deviceLocation)) + 1;
    *string = known ? static_cast<char*>(copyOf(deviceLocation, bytes)) : nullptr;
    return *string != nullptr ? nullptr : newEntry(known ? noMemory : deviceUnknown, device, position);
}

void* tavo_malloc(unsigned int size) { return std::calloc(1, size == 0 ? 1 : size); }

void tavo_util_free(void** buffer)
{
    if (buffer != nullptr) {
        std::free(*buffer);
        *buffer = nullptr;
    }
}

struct NetcMessage::State {
    char* bytes = nullptr;
    unsigned int size = 0;
    ~State() { std::free(bytes); }
};
NetcMessage::NetcMessage() : m_state(new (std::nothrow) State) {}
NetcMessage::~NetcMessage() { delete m_state; }
char* NetcMessage::dataPointer() const { return m_state != nullptr ? m_state->bytes : nullptr; }
unsigned int NetcMessage::dataSize() const { return m_state != nullptr ? m_state->size : 0; }
bool NetcMessage::setData(const char* data, unsigned int size)
{
    if (m_state == nullptr) {
        return false;
    }
    // copied before the old payload goes: the bytes may be a part of it
    char* const copy = data != nullptr && size != 0 ? static_cast<char*>(copyOf(data, size)) : nullptr;
    std::free(m_state->bytes);
    m_state->bytes = copy;
    m_state->size = copy != nullptr ? size : 0;
    return copy != nullptr || size == 0;
}
