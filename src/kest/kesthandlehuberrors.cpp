#include "kesthandlehuberrors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>

#include "kesterrorlog.h"
#include "kesthubsupport.h"
#include "kesttrace.h"
#include "kestwobu.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kesthandlehuberrors";

constexpr std::uint32_t checkModule = 27;
constexpr std::uint32_t resetModule = 28;
constexpr std::uint32_t statusModule = 29;
constexpr std::uint32_t errorModule = 30;

constexpr std::uint8_t selectErrorStatus = 0x07;
constexpr std::uint8_t selectBusReset = 0x06;

/// What a byte or a status holds before the hub has said anything: no status that means success.
constexpr std::uint8_t unknownStatus = 255;

void sendCommand(mern_t& handle, ErrlEntry*& errl, std::uint8_t command)
{
    const std::array<std::uint8_t, 2> bytes{0x20, command};
    unsigned int length = bytes.size();
    kest_wobuWrite(handle, errl, &length, bytes.data());
}

/// Traces a failed step and notes its site in the details.
bool passed(const ErrlEntry* errl, kest_errorDetails& details, const char* function, std::uint32_t module,
            std::uint32_t line)
{
    if (errl != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("hub command failed"), " %s", static_cast<int>(line), 0, function);
        kest_attachSoftwareError(details, errl->getRC(), module, line);
    }
    return errl == nullptr;
}

} // namespace

void kest_read922HubErrStatus(mern_t handle, unsigned int* status, ErrlEntry*& errl)
{
    constexpr char name[] = "kest_read922HubErrStatus";
    const traceScope scope{name};
    kest_errorDetails details{};
    sendCommand(handle, errl, selectErrorStatus);
    if (passed(errl, details, name, errorModule, 910)) {
        std::uint8_t answer = 0;
        unsigned int length = 1;
        kest_wobuRead(handle, errl, &length, &answer, 0);
        passed(errl, details, name, errorModule, 926);
        *status = answer;
    }
    kest_logError(errl, &details, sourceId);
}

void kest_read922HubPrevCmdStatus(mern_t handle, unsigned int* status, ErrlEntry*& errl)
{
    constexpr char name[] = "kest_read922HubPrevCmdStatus";
    const traceScope scope{name};
    kest_errorDetails details{};
    kest_iicConfigBlock block{};
    const auto stepPassed = [&](std::uint32_t line) {
        if (!passed(errl, details, name, statusModule, line)) {
            kest_setReturnCode(details, errl->getRC() | 0x00100000);
        }
        return errl == nullptr;
    };

    kest_wobuConfig(handle, errl, kest_configRead, WOBU_IIC_BLOCK, &block, sizeof block);
    if (stepPassed(786)) {
        // Without offset and pages the read is a plain one, which the hub answers with its status.
        block.offsetLength = block.reserved6 = 0;
        block.writeCycleMs = block.reserved22 = 0;
        block.pageSize = 0;
        kest_wobuConfig(handle, errl, kest_configSet, WOBU_IIC_BLOCK, &block, sizeof block);
        if (stepPassed(811)) {
            std::uint8_t answer = unknownStatus;
            unsigned int length = 1;
            kest_wobuRead(handle, errl, &length, &answer, 0);
            if (stepPassed(830)) {
                *status = answer;
            }
        }
    }
    kest_logError(errl, &details, sourceId);
}

void kest_reset922HubSubBus(mern_t handle, ErrlEntry*& errl)
{
    constexpr char name[] = "kest_reset922HubSubBus";
    const traceScope scope{name};
    kest_errorDetails details{};
    sendCommand(handle, errl, selectBusReset);
    if (passed(errl, details, name, resetModule, 680)) {
        unsigned int status = unknownStatus;
        kest_read922HubPrevCmdStatus(handle, &status, errl);
        if (passed(errl, details, name, resetModule, 693) && status != 0) {
            trace_wobu_write_all(kest_trace, traceHash("sub-bus reset ended with a status"), " %s,%x", 701, 0, name,
                                 status);
            kest_requestSrc(details, resetModule, 0x1321, EPUB_SUBSYSTEM_IIC_DEVICE, status);
            kest_addCallout(details);
            // neither a prefix nor the reason's number, on purpose
            kest_setReturnCode(details, 0x0000131F);
        }
    }
    kest_logError(errl, &details, sourceId);
}

namespace
{

/// How a status that ends the transfer is reported.
struct statusRule {
    std::uint32_t last; ///< the highest status of the row, which begins after the row before
    std::uint32_t hash;
    int line;
    std::uint32_t reason;
    epubSubSystem subsystem;
    std::uint32_t returnCode;
};
// The statuses between 2 and 7 do not come here at first; after a repeated transfer every status but 0 is
// `afterRepeat`.
constexpr std::array<statusRule, 6> statusRules{{
    {1, 0xC73070B1, 180, 0x1319, EPUB_SUBSYSTEM_SOFTWARE, 0x00101319},
    {2, 0xAE369C6A, 212, 0x131A, EPUB_SUBSYSTEM_IIC_DEVICE, 0x4000131A},
    {7, 0x27E236C0, 457, 0x131C, EPUB_SUBSYSTEM_SOFTWARE, 0x0010131C},
    {8, 0xFACF14B6, 491, 0x131D, EPUB_SUBSYSTEM_SOFTWARE, 0x0010131D},
    {11, 0xE6AD6503, 529, 0x131E, EPUB_SUBSYSTEM_IIC_DEVICE, 0x1000131E},
    {0xFFFFFFFF, 0x34B64FEC, 559, 0x131F, EPUB_SUBSYSTEM_SOFTWARE, 0x1000131F},
}};
constexpr statusRule afterRepeat{0xFFFFFFFF, 0x9E864549, 422, 0x131B, EPUB_SUBSYSTEM_IIC_DEVICE, 0x1000131B};

constexpr bool isSubBusError(unsigned int status) { return status >= 3 && status <= 6; }

constexpr char checkName[] = "kest_checkAndHandle922HubErr";

/// One check: the transfer it is about, and what has gone wrong so far.
struct hubCheck {
    mern_t& handle;
    ErrlEntry*& errl;
    unsigned int* size;
    int direction;
    void* configBlock;
    void* buffer;
    unsigned int offset;
    kest_errorDetails details{};
    std::uint32_t failedLine = 0;
};

void reportStatus(hubCheck& check, const statusRule& rule, unsigned int status, std::uint32_t userData2 = 0)
{
    trace_wobu_write_all(kest_trace, rule.hash, " %s,%x", rule.line, 0, checkName, status);
    kest_requestSrc(check.details, checkModule, rule.reason, rule.subsystem, status, userData2);
    kest_addCallout(check.details);
    kest_setReturnCode(check.details, rule.returnCode);
    check.failedLine = static_cast<std::uint32_t>(rule.line);
}

/// Notes a failed step of the recovery; a step without an entry has passed.
bool recovered(hubCheck& check, std::uint32_t line)
{
    if (check.errl != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("step of a sub-bus recovery failed"), " %s", static_cast<int>(line),
                             0, checkName);
        kest_setReturnCode(check.details, check.errl->getRC() | 0x10000000);
        check.failedLine = line;
    }
    return check.errl == nullptr;
}

bool resetSubBus(hubCheck& check)
{
    kest_reset922HubSubBus(check.handle, check.errl);
    return recovered(check, 272);
}

/// The status reads have cleared parts of the block.
bool restoreBlock(hubCheck& check)
{
    kest_wobuConfig(check.handle, check.errl, kest_configSet, WOBU_IIC_BLOCK, check.configBlock,
                    sizeof(kest_iicConfigBlock));
    return recovered(check, 292);
}

bool seekAgain(hubCheck& check)
{
    kest_wobuSeek(check.handle, check.errl, static_cast<long>(check.offset), 0);
    return recovered(check, 319);
}

/// A repeat that ends with ENODATA, a status of the hub's own, counts as done: the hub is asked what it meant.
bool repeatTransfer(hubCheck& check)
{
    if (check.direction == 1) {
        kest_wobuWrite(check.handle, check.errl, check.size, check.buffer);
    } else {
        kest_wobuRead(check.handle, check.errl, check.size, check.buffer, 0);
    }
    const bool done = check.errl == nullptr || kest_failedErrno(check.errl) == ENODATA;
    if (!done) {
        trace_wobu_write_all(kest_trace, traceHash("repeated transfer failed"), " %s,%d", 362, 0, checkName,
                             check.direction);
        kest_setReturnCode(check.details, check.errl->getRC() | 0x10000000);
        check.failedLine = 362;
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
        recovered(check, 384);
    } else if (status != 0) {
        reportStatus(check, afterRepeat, status, static_cast<std::uint32_t>(check.direction));
    }
}

void actOnStatus(hubCheck& check, unsigned int status, unsigned char* subBusReset)
{
    if (isSubBusError(status)) {
        trace_wobu_write_all(kest_trace, 0x3E54A1DF, " %s,%x", 260, 0, checkName, status);
        *subBusReset = 1;
        if (resetSubBus(check) && restoreBlock(check) && seekAgain(check) && repeatTransfer(check)) {
            checkRepeat(check);
        }
    } else if (status != 0) {
        reportStatus(check, *std::ranges::find_if(statusRules, [=](auto& rule) { return status <= rule.last; }),
                     status);
    }
}

} // namespace

void kest_checkAndHandle922HubErr(mern_t handle, ErrlEntry*& errl, unsigned int* size, int direction,
                                  unsigned char* subBusReset, const char* path, unsigned int hubContext,
                                  void* configBlock, void* buffer, unsigned int offset)
{
    const traceScope scope{checkName};
    hubCheck check{handle, errl, size, direction, configBlock, buffer, offset};
    unsigned int status = unknownStatus;
    kest_read922HubPrevCmdStatus(handle, &status, errl);
    if (errl == nullptr) {
        actOnStatus(check, status, subBusReset);
    } else {
        trace_wobu_write_all(kest_trace, traceHash("hub did not tell its status"), " %s", 164, 0, checkName);
        check.failedLine = 164;
    }
    // Before the new SRC is logged: a status must not be taken for an errno.
    kest_resetSilentHub(errl, path, handle, hubContext);
    if (errl != nullptr) {
        kest_attachSoftwareError(check.details, errl->getRC(), checkModule, check.failedLine);
    }
    kest_logError(errl, &check.details, sourceId);
}

} // namespace kest
