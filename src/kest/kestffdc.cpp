#include "kestffdc.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "kestfailure.h"
#include "kesttrace.h"
#include "platform/tavo.h"

namespace kest
{
namespace
{

constexpr routine extractRoutine{"kest_wobuFFDCExtract", KEST_MODULE_FFDC_EXTRACT, "kestwobu"};
constexpr routine unlockRoutine{"kest_wobuFFDCUnlock", KEST_MODULE_FFDC_UNLOCK, "kestwobu"};
constexpr routine captureRoutine{"kest_miscExtractFFDCAndUnlock", KEST_MODULE_FFDC, "kestmisc"};
constexpr std::uint32_t siteExtractFailed = 165;
constexpr std::uint32_t siteUnlockFailed = 180;

/// @return the failure's return code
std::uint32_t describeFfdc(failureReport& report, kest_reason reason, std::uint32_t hash, int error, int result)
{
    KEST_TRACE(hash, ",%d", report.self.name, error);
    if (error == ENODEV) {
        KEST_TRACE(hashNodeAbsent, "", report.self.name);
    }
    report.describe(reason, kest_blameOf(error), static_cast<std::uint32_t>(error), static_cast<std::uint32_t>(result));
    return report.details.returnCode;
}

/// Notes in the entry which step of the capture failed, and how. @param returnCode  0 when it did not fail
void noteStep(ErrlEntry*& entry, std::uint32_t returnCode, std::uint32_t site)
{
    if (returnCode != 0) {
        kest_errorDetails details{};
        kest_attachSoftwareError(details, returnCode, captureRoutine.module, site);
        kest_logError(entry, &details, captureRoutine.sourceId);
    }
}

/// Adds a copy of the layer's data to the entry and frees the data.
void addFfdc(ErrlEntry*& entry, void* data, unsigned int size)
{
    kest_errorDetails details{};
    auto* const copy = new (std::nothrow) std::uint8_t[size];
    if (copy != nullptr) {
        std::memcpy(copy, data, size);
        kest_attachUserDetails(details, copy, size, kest_dtlsFfdc, true);
    }
    tavo_util_free(&data);
    kest_logError(entry, &details, captureRoutine.sourceId);
}

} // namespace

std::uint32_t kest_wobuFFDCExtract(mern_t handle, ErrlEntry*& entry, void** data, unsigned int* size)
{
    reportedCall report{extractRoutine, entry};
    std::uint32_t returnCode = 0;
    const int result = mern_iic_ffdc_extract(handle, 0, data);
    const int error = errno;
    if (result == -1) {
        returnCode = describeFfdc(report, KEST_REASON_FFDC_EXTRACT, 0x3A07606D, error, result);
    } else if (result > 0) {
        KEST_TRACE(0x225681C0, ",%d", extractRoutine.name, result);
        *size = static_cast<unsigned int>(result);
    } else if (result == 0) {
        KEST_TRACE(0x3242D04A, "", extractRoutine.name);
    }
    report.finish();
    return returnCode;
}

std::uint32_t kest_wobuFFDCUnlock(mern_t handle, ErrlEntry*& entry, int trace)
{
    failureReport report{unlockRoutine, entry};
    if (trace != 0) {
        KEST_TRACE(0x0D21BD6B, "", unlockRoutine.name);
    }
    const int result = mern_iic_ffdc_unlock(handle, 0);
    const int error = errno;
    const std::uint32_t returnCode =
        result == -1 ? describeFfdc(report, KEST_REASON_FFDC_UNLOCK, 0x898D7F6C, error, result) : 0;
    report.finish();
    return returnCode;
}

void kest_miscExtractFFDCAndUnlock(ErrlEntry*& entry, mern_t& handle)
{
    const traceScope scope(captureRoutine.name);
    void* data = nullptr;
    unsigned int size = 0;
    noteStep(entry, kest_wobuFFDCExtract(handle, entry, &data, &size), siteExtractFailed);
    noteStep(entry, kest_wobuFFDCUnlock(handle, entry, 0), siteUnlockFailed);
    // without an entry the data are not freed, on purpose
    if (size != 0 && entry != nullptr) {
        addFfdc(entry, data, size);
    }
}

} // namespace kest
