#include <array>
#include <atomic>
#include <cstring>

#include "kestfailure.h"
#include "kestseeprom.h"
#include "kesttrace.h"
#include "platform/registry.h"

namespace kest
{
namespace
{

constexpr routine modeRoutine{"kest_detectMode", KEST_MODULE_READ_MODE, "kestmode"};
constexpr char registryKey[] = "tavo/ReadMode";
constexpr unsigned int valueBytes = 16;

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

/// Several threads may read the registry at first use; all get the same mode.
std::atomic<unsigned int> modeCache{kest_modeUnknown};

unsigned int modeOf(const char* value)
{
    for (const modeText& row : modeTexts) {
        if (std::memcmp(value, row.text, row.length) == 0) {
            return row.mode;
        }
    }
    return kest_modeUnknown;
}

/// Commits at once: the caller of the mode detection gets only the mode.
void commitFailure(ErrlEntry* entry, kest_reason reason, const char* block, std::uint32_t blockBytes)
{
    failureReport report{modeRoutine, entry};
    report.describe(reason);
    kest_attachUserDetails(report.details, block, blockBytes, kest_dtlsRegistry);
    report.commit(ERRL_ACTION_REPORT);
}

unsigned int readRegistry()
{
    std::array<char, valueBytes> value{};
    unsigned int size = valueBytes;
    ErrlEntry* const entry = UtilReg::read(registryKey, value.data(), size, false, nullptr);
    if (entry != nullptr) {
        KEST_TRACE(traceHash("read mode not had from the registry"), ",%s", modeRoutine.name, registryKey);
        commitFailure(entry, KEST_REASON_MODE_UNREAD, registryKey, sizeof registryKey - 1);
        return kest_modeHardware;
    }
    const unsigned int mode = modeOf(value.data());
    if (mode == kest_modeUnknown) {
        KEST_TRACE(traceHash("read mode unknown"), "", modeRoutine.name);
        commitFailure(nullptr, KEST_REASON_MODE_UNKNOWN, value.data(), valueBytes);
        return kest_modeHardware;
    }
    return mode;
}

} // namespace

unsigned int kest_detectMode(kest_attributeValue value)
{
    const traceScope scope(modeRoutine.name);
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
