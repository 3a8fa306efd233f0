#include <array>
#include <atomic>
#include <cstring>

#include "kesterrorlog.h"
#include "kestseeprom.h"
#include "kesttrace.h"
#include "platform/registry.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestmode";
constexpr char name[] = "kest_detectMode";
constexpr char registryKey[] = "tavo/ReadMode";
constexpr unsigned int valueBytes = 16;
constexpr std::uint32_t moduleId = 5;

struct modeText {
    const char* text; ///< only this much of the registry's value is compared
    std::size_t length;
    unsigned int mode;
};
constexpr std::array<modeText, 3> modeTexts{{
    {"FileMode", 8, kest_modeFile},
    {"MixedMode", 9, kest_modeMixed},
    {"HWareMode", 9, kest_modeHardware},
}};

/// Threads that meet it empty may each read the registry: they find the same.
std::atomic<unsigned int> modeCache{kest_modeUnknown};

unsigned int modeOf(const char* value)
{
    unsigned int mode = kest_modeUnknown;
    for (const modeText& row : modeTexts) {
        if (mode == kest_modeUnknown && std::memcmp(value, row.text, row.length) == 0) {
            mode = row.mode;
        }
    }
    return mode;
}

/// Logs on the spot: the caller of the mode detection receives only the mode.
void commitFailure(ErrlEntry* entry, std::uint32_t reason, const char* block, std::uint32_t blockBytes)
{
    kest_errorDetails details{};
    kest_describeFailure(details, moduleId, reason);
    kest_attachUserDetails(details, block, blockBytes, kest_dtlsRegistry);
    details.commitEntry = 1;
    details.commitAction = ERRL_ACTION_REPORT;
    kest_logError(entry, &details, sourceId);
}

unsigned int readRegistry()
{
    std::array<char, valueBytes> value{};
    unsigned int size = valueBytes;
    unsigned int mode = kest_modeHardware;
    ErrlEntry* const entry = UtilReg::read(registryKey, value.data(), size, false, nullptr);
    if (entry != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("read mode not had from the registry"), " %s,%s", __LINE__, 0, name,
                             registryKey);
        commitFailure(entry, 0x1303, registryKey, sizeof registryKey - 1);
    } else if (mode = modeOf(value.data()); mode == kest_modeUnknown) {
        mode = kest_modeHardware;
        trace_wobu_write_all(kest_trace, traceHash("read mode unknown"), " %s", __LINE__, 0, name);
        commitFailure(nullptr, 0x1304, value.data(), valueBytes);
    }
    return mode;
}

} // namespace

unsigned int kest_detectMode(kest_attributeValue value)
{
    const traceScope scope(name);
    if (value == 2) {
        modeCache.store(kest_modeUnknown, std::memory_order_relaxed);
    }
    unsigned int mode = modeCache.load(std::memory_order_relaxed);
    if (mode == kest_modeUnknown) {
        mode = readRegistry();
        modeCache.store(mode, std::memory_order_relaxed);
    }
    return mode;
}

void kest_forgetMode() { modeCache.store(kest_modeUnknown, std::memory_order_relaxed); }

} // namespace kest
