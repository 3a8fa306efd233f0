#include "kesthubreset.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "kestdataport.h"
#include "kestfailure.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr routine resetRoutine{"kest_handle_hub_reset", KEST_MODULE_HUB_TRANSFER, "kesthubsupport"};

/// Pulls the hub's reset pin low, then lets it go.
/// @param[out] failedCall  0 or 1: which of the two failed
ErrlEntry* pulseResetPin(const char* resetPath, mern_t handle, int& failedCall)
{
    constexpr unsigned int resetPin = 0x8000;
    failedCall = 0;
    ErrlEntry* failure = kest_dp_922HUB_reset(resetPath, handle, KEST_DP_SELECT_00, resetPin, 0);
    if (failure == nullptr) {
        failedCall = 1;
        failure = kest_dp_922HUB_reset(resetPath, handle, KEST_DP_SELECT_01, resetPin, 0);
    }
    return failure;
}

void resetHub(ErrlEntry& errl, const char* path, const char* resetPath, mern_t handle)
{
    int failedCall = 0;
    const std::unique_ptr<ErrlEntry> failure{pulseResetPin(resetPath, handle, failedCall)};
    if (failure) {
        KEST_TRACE(traceHash("hub not reset"), ",%d,%s,%s", resetRoutine.name, failedCall, path, resetPath);
    } else {
        KEST_TRACE(traceHash("hub reset"), ",%s,%s", resetRoutine.name, path, resetPath);
    }
    errl.CollectTrace("kest", 250);
    if (failure) {
        kest_mergeFirstSrc(errl, *failure);
    }
    errl.setRC(failure ? failure->getRC() : kest_codeHubWasReset);
}

/// Copies the next token and a comma, and moves both pointers past them. @return whether there was a token; empty ones
/// are skipped
bool copyToken(const char*& path, char*& out)
{
    path += std::strspn(path, ",");
    const std::size_t length = std::strcspn(path, ",");
    if (length != 0) {
        out = std::copy_n(path, length, out);
        *out++ = ',';
        path += length;
    }
    return length != 0;
}

/// The expander that drives a hub's reset line, as the end of a device text.
std::string_view expanderOf(unsigned char hubAddress)
{
    switch (hubAddress) {
    case 0x80:
    case 0x88:
        return "9552,0xC0";
    case 0x82:
    case 0x8A:
        return "9552,0xC2";
    default:
        return "9552,";
    }
}

} // namespace

void kest_resetSilentHub(ErrlEntry*& errl, const char* path, mern_t handle, unsigned int hubAddress)
{
    if (kest_failedErrno(errl) == ENXIO) {
        errl->CollectTrace("IIC", 4096);
        kest_handle_hub_reset(errl, path, handle, hubAddress);
    }
}

void kest_handle_hub_reset(ErrlEntry*& errl, const char* path, mern_t handle, unsigned int hubAddress)
{
    reportedCall report{resetRoutine, errl};
    const std::size_t bytes = std::strlen(path) + kest_hubResetPathExtra;
    const std::unique_ptr<char[]> resetPath{new (std::nothrow) char[bytes]};
    if (resetPath) {
        kest_build922HubResetPath(path, resetPath.get(), static_cast<unsigned char>(hubAddress));
        resetHub(*errl, path, resetPath.get(), handle);
    } else {
        report.fail(traceHash("no buffer for a hub's reset path"), KEST_REASON_MISSING,
                    static_cast<std::uint32_t>(bytes));
    }
    report.finish();
}

void kest_build922HubResetPath(const char* path, char* out, unsigned char hubAddress)
{
    std::memset(out, 0, std::strlen(path) + 1);
    if (copyToken(path, out) && copyToken(path, out)) {
        out = std::ranges::copy(expanderOf(hubAddress), out).out;
    }
    // the text of a short path ends after the zeroed bytes
    *out = '\0';
}

} // namespace kest
