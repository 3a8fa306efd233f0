#include "kesthandlehuberrors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>

#include "kestfailure.h"
#include "kesthubreset.h"
#include "kestsession.h"
#include "kesttrace.h"
#include "kestwobu.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kesthandlehuberrors";

constexpr routine checkRoutine{"kest_checkAndHandle922HubErr", KEST_MODULE_HUB_VERDICT, sourceId};
constexpr routine resetRoutine{"kest_reset922HubSubBus", KEST_MODULE_HUB_BUS_RESET, sourceId};
constexpr routine statusRoutine{"kest_read922HubPrevCmdStatus", KEST_MODULE_HUB_COMMAND_STATUS, sourceId};
constexpr routine errorRoutine{"kest_read922HubErrStatus", KEST_MODULE_HUB_ERROR_STATUS, sourceId};

constexpr std::uint8_t selectErrorStatus = 0x07;
constexpr std::uint8_t selectBusReset = 0x06;

/// The status before the hub has sent one: not a success.
constexpr std::uint8_t unknownStatus = 255;

void sendCommand(mern_t& handle, ErrlEntry*& errl, std::uint8_t command)
{
    const std::array<std::uint8_t, 2> bytes{0x20, command};
    unsigned int length = bytes.size();
    kest_wobuWrite(handle, errl, &length, bytes.data());
}

/// Reads one byte: what the hub says.
void readStatus(mern_t& handle, ErrlEntry*& errl, std::uint8_t& status)
{
    unsigned int length = 1;
    kest_wobuRead(handle, errl, &length, &status, 0);
}

bool passed(failureReport& report, std::uint32_t site) { return report.passed(traceHash("hub command failed"), site); }

constexpr blame hubRefused{EPUB_SUBSYSTEM_SOFTWARE, kest_classHubRefused};
constexpr blame hubFailed{EPUB_SUBSYSTEM_IIC_DEVICE, kest_classHubFailed};
constexpr blame hubOdd{EPUB_SUBSYSTEM_SOFTWARE, kest_classHubFailed};

/// How a status that ends the transfer is reported. Its trace's line is the failure site.
struct statusRule {
    std::uint32_t last; ///< the highest status of the row; it starts after the previous row's last
    std::uint32_t hash;
    std::uint32_t site;
    kest_reason reason;
    const blame& who;
};
// Statuses 3 to 6 are handled before: the sub-bus is reset. After a repeated transfer every status but 0 is
// `afterRepeat`.
constexpr std::array<statusRule, 6> statusRules{{
    {.last = 1, .hash = 0xC73070B1, .site = 180, .reason = KEST_REASON_HUB_COMMAND, .who = hubRefused},
    {.last = 2, .hash = 0xAE369C6A, .site = 212, .reason = KEST_REASON_HUB_NO_ANSWER, .who = blamesAbsence},
    {.last = 7, .hash = 0x27E236C0, .site = 457, .reason = KEST_REASON_HUB_PORT, .who = hubRefused},
    {.last = 8, .hash = 0xFACF14B6, .site = 491, .reason = KEST_REASON_HUB_LENGTH, .who = hubRefused},
    {.last = 11, .hash = 0xE6AD6503, .site = 529, .reason = KEST_REASON_HUB_HARDWARE, .who = hubFailed},
    {.last = 0xFFFFFFFF, .hash = 0x34B64FEC, .site = 559, .reason = KEST_REASON_HUB_STATUS, .who = hubOdd},
}};
constexpr statusRule afterRepeat{
    .last = 0xFFFFFFFF, .hash = 0x9E864549, .site = 422, .reason = KEST_REASON_HUB_REPEAT, .who = hubFailed};

constexpr bool isSubBusError(unsigned int status) { return status >= 3 && status <= 6; }

/// One check: the transfer it is about, and what has gone wrong so far.
struct hubCheck {
    ErrlEntry*& errl;
    mern_t& handle;
    unsigned int* size;
    int direction;
    mern_iic_block& block;
    void* buffer;
    unsigned int offset;
    reportedCall report{checkRoutine, errl, 0};
    iicSession session{.entry = errl, .handle = handle};
};

void reportStatus(hubCheck& check, const statusRule& rule, unsigned int status, std::uint32_t userData2 = 0)
{
    KEST_TRACE_AT(static_cast<int>(rule.site), rule.hash, ",%x", checkRoutine.name, status);
    check.report.describe(rule.reason, rule.who, status, userData2);
    check.report.site = rule.site;
}

/// Notes a failed step of the recovery, after its trace.
void noteFailure(hubCheck& check, std::uint32_t site)
{
    kest_setReturnCode(check.report.details, check.errl->getRC() | kest_classHubFailed);
    check.report.site = site;
}

/// Ends a step of the recovery. @param done  true when there is no entry
bool recovered(hubCheck& check, bool done, std::uint32_t site)
{
    if (!done) {
        check.report.passed(traceHash("step of a sub-bus recovery failed"), site);
        noteFailure(check, site);
    }
    return done;
}

/// Resets the sub-bus and makes the layer ready for a repeat of the transfer.
bool recover(hubCheck& check)
{
    kest_reset922HubSubBus(check.handle, check.errl);
    // the status reads have cleared parts of the block
    return recovered(check, check.errl == nullptr, 272) && recovered(check, check.session.setBlock(check.block), 292) &&
           recovered(check, check.session.seek(check.offset), 319);
}

/// A repeat that ends with ENODATA (the hub's own status) counts as done: the hub is then asked for the cause.
bool repeatTransfer(hubCheck& check)
{
    if (check.direction == 1) {
        kest_wobuWrite(check.handle, check.errl, check.size, check.buffer);
    } else {
        kest_wobuRead(check.handle, check.errl, check.size, check.buffer, 0);
    }
    const bool done = check.errl == nullptr || kest_failedErrno(check.errl) == ENODATA;
    if (!done) {
        KEST_TRACE_AT(362, traceHash("repeated transfer failed"), ",%d", checkRoutine.name, check.direction);
        noteFailure(check, 362);
    }
    return done;
}

void checkRepeat(hubCheck& check)
{
    ErrlEntry* second = nullptr;
    unsigned int status = unknownStatus;
    kest_read922HubPrevCmdStatus(check.handle, &status, second);
    if (second != nullptr) {
        if (check.errl == nullptr) {
            check.errl = kest_takeOver(second);
        } else {
            kest_mergeFirstSrc(*check.errl, *second);
            check.errl->setRC(second->getRC());
            delete second;
        }
        recovered(check, check.errl == nullptr, 384);
    } else if (status != 0) {
        reportStatus(check, afterRepeat, status, static_cast<std::uint32_t>(check.direction));
    }
}

void actOnStatus(hubCheck& check, unsigned int status, unsigned char* subBusReset)
{
    if (isSubBusError(status)) {
        KEST_TRACE_AT(260, 0x3E54A1DF, ",%x", checkRoutine.name, status);
        *subBusReset = 1;
        if (recover(check) && repeatTransfer(check)) {
            checkRepeat(check);
        }
    } else if (status != 0) {
        reportStatus(check, *std::ranges::find_if(statusRules, [=](auto& rule) { return status <= rule.last; }),
                     status);
    }
}

} // namespace

void kest_read922HubErrStatus(mern_t handle, unsigned int* status, ErrlEntry*& errl)
{
    reportedCall report{errorRoutine, errl};
    sendCommand(handle, errl, selectErrorStatus);
    if (passed(report, 910)) {
        std::uint8_t answer = 0;
        readStatus(handle, errl, answer);
        passed(report, 926);
        *status = answer;
    }
    report.finish();
}

void kest_read922HubPrevCmdStatus(mern_t handle, unsigned int* status, ErrlEntry*& errl)
{
    reportedCall report{statusRoutine, errl};
    iicSession session{.entry = errl, .handle = handle};
    mern_iic_block block{};
    std::uint8_t answer = unknownStatus;
    kest_wobuConfig(handle, errl, kest_configRead, WOBU_IIC_BLOCK, &block, sizeof block);
    bool good = passed(report, 786);
    if (good) {
        // without offset and pages it is a plain read, which gets the hub's status
        block.offsetLength = block.reserved6 = 0;
        block.writeCycleMs = block.reserved22 = 0;
        block.pageSize = 0;
        session.setBlock(block);
        good = passed(report, 811);
    }
    if (good) {
        readStatus(handle, errl, answer);
        good = passed(report, 830);
    }
    if (good) {
        *status = answer;
    } else {
        kest_setReturnCode(report.details, errl->getRC() | kest_classHubRefused);
    }
    report.finish();
}

void kest_reset922HubSubBus(mern_t handle, ErrlEntry*& errl)
{
    reportedCall report{resetRoutine, errl};
    sendCommand(handle, errl, selectBusReset);
    if (passed(report, 680)) {
        unsigned int status = unknownStatus;
        kest_read922HubPrevCmdStatus(handle, &status, errl);
        if (passed(report, 693) && status != 0) {
            KEST_TRACE_AT(701, traceHash("sub-bus reset ended with a status"), ",%x", resetRoutine.name, status);
            report.describe(KEST_REASON_HUB_BUS_RESET, blamesDevice, status);
            // without a class and not the reason's number, on purpose
            kest_setReturnCode(report.details, KEST_REASON_HUB_STATUS);
        }
    }
    report.finish();
}

void kest_checkAndHandle922HubErr(mern_t handle, ErrlEntry*& errl, unsigned int* size, int direction,
                                  unsigned char* subBusReset, const char* path, unsigned int hubContext,
                                  void* configBlock, void* buffer, unsigned int offset)
{
    hubCheck check{errl, handle, size, direction, *static_cast<mern_iic_block*>(configBlock), buffer, offset};
    unsigned int status = unknownStatus;
    kest_read922HubPrevCmdStatus(handle, &status, errl);
    if (check.report.passed(traceHash("hub did not tell its status"), 164)) {
        actOnStatus(check, status, subBusReset);
    }
    // before the new SRC is logged: its status must not be taken for an errno
    kest_resetSilentHub(errl, path, handle, hubContext);
    check.report.finish();
}

} // namespace kest
