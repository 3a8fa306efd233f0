#include "kestwobu.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "kestattribute.h"
#include "kesterrorlog.h"
#include "kestmisc.h"
#include "kestseeprom.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestwobu";

/// What an errno says about who is at fault.
enum errnoClass {
    classDeadlock,
    classAbsent,
    classSoftware,
    classOther,
};

struct errnoRule {
    epubSubSystem subsystem;
    std::uint32_t classBits; ///< or-ed to the reason for the return code
};

/// By errnoClass. The last has no class bit, on purpose.
constexpr std::array<errnoRule, 4> errnoRules{{
    {EPUB_SUBSYSTEM_SOFTWARE, 0x80000000},
    {EPUB_SUBSYSTEM_IIC_DEVICE, 0x40000000},
    {EPUB_SUBSYSTEM_SOFTWARE, 0x80000000},
    {EPUB_SUBSYSTEM_IIC_DEVICE, 0x00000000},
}};

constexpr std::uint32_t reasonAbsent = 0x1311;
constexpr std::uint32_t returnCodeOfDeadlock = 0x8000130D; ///< of every operation, whatever its reason

/// One operation on an open device: how its failures are told apart. The entry of a deadlock is committed at once.
struct wobuCall {
    const char* name;
    std::uint32_t moduleId;
    std::uint32_t deadlockReason;
    std::uint32_t absentHash; ///< 0: ENXIO is like any other errno
    std::uint32_t otherReason;
    std::uint32_t otherHash;
};

constexpr wobuCall configCall{"kest_wobuConfig", 12, 0x130D, 0, 0x130E, 0x0647B45B};
constexpr wobuCall readCall{"kest_wobuRead", 13, 0x130D, 0x46CE7181, 0x1312, 0x8F0A53F7};
constexpr wobuCall seekCall{"kest_wobuSeek", 14, 0x130D, 0, 0x1313, 0x6CBCBF08};
constexpr wobuCall writeCall{"kest_wobuWrite", 18, 0x130D, 0xC7AD4A12, 0x1314, 0x52F84B38};
constexpr wobuCall closeCall{"kest_wobuClose", 19, 0x1316, 0, 0x1317, 0x266E6775};

/// User data of a failure behind the errno.
struct failureWords {
    std::uint32_t special2; ///< word 2 of a deadlock or an absent device; words 3 and 4 are then 0
    std::uint32_t other2;
    std::uint32_t other3;
};

const errnoRule& ruleOf(int error) { return errnoRules[kest_isSoftwareErrno(error) ? classSoftware : classOther]; }

errnoClass classOf(const wobuCall& call, int error)
{
    errnoClass result = kest_isSoftwareErrno(error) ? classSoftware : classOther;
    if (error == EDEADLK) {
        result = classDeadlock;
    } else if (error == ENXIO && call.absentHash != 0) {
        result = classAbsent;
    }
    return result;
}

void describe(kest_errorDetails& details, std::uint32_t moduleId, std::uint32_t reason, const errnoRule& rule,
              int error, std::uint32_t userData2 = 0, std::uint32_t userData3 = 0)
{
    kest_requestSrc(details, moduleId, reason, rule.subsystem, static_cast<std::uint32_t>(error), userData2, userData3);
    kest_addCallout(details);
    kest_setReturnCode(details, rule.classBits | reason);
}

void describeCall(kest_errorDetails& details, const wobuCall& call, int error, const failureWords& words)
{
    const errnoClass kind = classOf(call, error);
    const errnoRule& rule = errnoRules[kind];
    switch (kind) {
    case classDeadlock:
        trace_wobu_write_all(kest_trace, 0x77E7226A, " %s", __LINE__, 0, call.name);
        describe(details, call.moduleId, call.deadlockReason, rule, error, words.special2);
        kest_setReturnCode(details, returnCodeOfDeadlock);
        break;
    case classAbsent:
        trace_wobu_write_all(kest_trace, call.absentHash, " %s", __LINE__, 0, call.name);
        describe(details, call.moduleId, reasonAbsent, rule, error, words.special2);
        break;
    default:
        trace_wobu_write_all(kest_trace, call.otherHash, " %s,%d", __LINE__, 0, call.name, error);
        describe(details, call.moduleId, call.otherReason, rule, error, words.other2, words.other3);
        break;
    }
}

/// Logs a failed operation and captures the driver's first-failure data. After a deadlock `entry` is null.
void reportFailure(const wobuCall& call, int error, const failureWords& words, ErrlEntry*& entry, mern_t& handle)
{
    kest_errorDetails details{};
    describeCall(details, call, error, words);
    kest_logError(entry, &details, sourceId);
    kest_miscExtractFFDCAndUnlock(entry, handle);
    if (error == EDEADLK) {
        details.commitEntry = 1;
        details.commitAction = ERRL_ACTION_REPORT;
        kest_logError(entry, &details, sourceId);
    }
}

constexpr std::uint32_t statusAbsent = 0;
constexpr std::uint32_t statusPresent = 3;

/// After a failed read: what the layer sees at the device's address goes into `entry`.
void addDetectState(mern_t handle, ErrlEntry*& entry)
{
    kest_errorDetails details{};
    ErrlEntry* statusEntry = nullptr;
    // stands when the item's failure was committed below: nothing to add
    std::uint32_t status = statusPresent;
    kest_wobuConfig(handle, statusEntry, kest_configRead, WOBU_IIC_DETECT_STATE, &status, sizeof status);
    if (statusEntry != nullptr) {
        trace_wobu_write_all(kest_trace, 0x3E40FC77, " %s", __LINE__, 0, readCall.name);
        kest_mergeFirstSrc(*entry, *statusEntry);
        delete statusEntry;
    } else if (status == statusAbsent) {
        kest_setReturnCode(details, entry->getRC() | 0x40000000);
    } else if (status != statusPresent) {
        trace_wobu_write_all(kest_trace, 0x2F339125, " %s,%x", __LINE__, 0, readCall.name, status);
        kest_requestSrc(details, readCall.moduleId, 0x1309, EPUB_SUBSYSTEM_IIC_DEVICE, status);
    }
    kest_logError(entry, &details, sourceId);
}

constexpr char openName[] = "kest_wobuOpen";
constexpr std::uint32_t openModule = 11;
// read, write, synchronous
constexpr int openFlags = 0x1002;
constexpr std::uint32_t hashNodeAbsent = 0x05B69EAF;

void describeOpen(kest_errorDetails& details, int error, const char* devicePath)
{
    trace_wobu_write_all(kest_trace, 0x314864B7, " %s,%d", __LINE__, 0, openName, error);
    if (error == ENODEV) {
        trace_wobu_write_all(kest_trace, hashNodeAbsent, " %s", __LINE__, 0, openName);
        describe(details, openModule, 0x130B, errnoRules[classSoftware], error);
    } else if (error == ENOENT) {
        trace_wobu_write_all(kest_trace, 0x3AD3D156, " %s,%d", __LINE__, 0, openName, error);
        // a missing device path calls out twice, deliberately
        kest_addCallout(details);
        describe(details, openModule, reasonAbsent, errnoRules[classAbsent], error);
    } else {
        describe(details, openModule, 0x130C, ruleOf(error), error);
    }
    kest_attachUserDetails(details, devicePath, static_cast<std::uint32_t>(std::strlen(devicePath)),
                           kest_dtlsDevicePath);
}

struct nodeRow {
    char name[2];
    NodeType number;
};
constexpr std::array<nodeRow, 10> nodeNames{
    {{"L", -1}, {"l", -1}, {"0", 0}, {"1", 1}, {"2", 2}, {"3", 3}, {"4", 4}, {"5", 5}, {"6", 6}, {"7", 7}}};

/// What the type of a chain's head decides in the configuration block.
struct headRule {
    kest_deviceType type;
    std::uint16_t offsetLength;
    bool fixedTimeout;
    bool writeCycle; ///< the write-cycle attribute applies
    std::uint32_t flags;
};
constexpr std::uint32_t fixedTimeoutMs = 20000;
constexpr headRule defaultHead{KEST_DEV_172, 0, false, false, 0xFFFB0000};
constexpr std::array<headRule, 12> headRules{{
    {KEST_DEV_SEEPROM_32K, 2, false, true, 0xFFFB0000},
    {KEST_DEV_SEEPROM_64K, 2, false, true, 0xFFFB0000},
    {KEST_DEV_SEEPROM_128K, 2, false, true, 0xFFFB0000},
    {KEST_DEV_SEEPROM_256K, 2, false, true, 0xFFFB0000},
    {KEST_DEV_SEEPROM_512K, 2, false, true, 0xFFFB0000},
    {KEST_DEV_SEEPROM_2K, 1, false, true, 0xFFFB0000},
    {KEST_DEV_922HUB, 0, false, true, 0xFFFD0000}, // its offset length is the hub option's
    {KEST_DEV_9551, 0, true, false, 0xFFFF0000},
    {KEST_DEV_9552, 0, true, false, 0xFFFF0000},
    {KEST_DEV_9554, 0, true, false, 0xFFFF0000},
    {KEST_DEV_9555, 0, true, false, 0xFFFF0000},
    {KEST_DEV_D10, 0, true, false, 0xFFFF0000},
}};

const headRule& ruleOfHead(kest_deviceType type)
{
    const auto* const found = std::ranges::find(headRules, type, &headRule::type);
    return found == headRules.end() ? defaultHead : *found;
}

/// Bytes of the position sent through a 922 hub: its port, the device's address and the device's own offset bytes.
std::uint16_t hubOffsetLength(int hubOption)
{
    constexpr std::array<std::uint16_t, 3> lengths{0, 3, 4};
    return hubOption == 1 || hubOption == 2 ? lengths[static_cast<std::size_t>(hubOption)] : lengths[0];
}

std::uint32_t flagOfTransferMode(kest_attributeValue mode)
{
    std::uint32_t flag = 0;
    if (mode == 1) {
        flag = 0x1;
    } else if (mode == 3) {
        flag = 0x2;
    }
    return flag;
}

/// One step of the capture of first-failure data.
struct ffdcCall {
    const char* name;
    std::uint32_t moduleId;
    std::uint32_t reason;
    std::uint32_t hash;
};
constexpr ffdcCall extractCall{"kest_wobuFFDCExtract", 9, 0x1310, 0x3A07606D};
constexpr ffdcCall unlockCall{"kest_wobuFFDCUnlock", 10, 0x130F, 0x898D7F6C};

/// @return the failure's return code
std::uint32_t describeFfdc(kest_errorDetails& details, const ffdcCall& call, int error, int result)
{
    trace_wobu_write_all(kest_trace, call.hash, " %s,%d", __LINE__, 0, call.name, error);
    if (error == ENODEV) {
        trace_wobu_write_all(kest_trace, hashNodeAbsent, " %s", __LINE__, 0, call.name);
    }
    describe(details, call.moduleId, call.reason, ruleOf(error), error, static_cast<std::uint32_t>(result));
    return details.returnCode;
}

} // namespace

bool kest_isInvalidHandle(const mern_t& handle)
{
    return std::equal(handle.words, handle.words + 5, MERN_INVALID.words);
}

void KEST_convert_str_to_MernNodeId(const char* name, NodeType* node, ErrlEntry*& entry)
{
    const traceScope scope("KEST_convert_str_to_MernNodeId");
    kest_errorDetails details{};
    const auto* const found = std::ranges::find_if(
        nodeNames, [name](const nodeRow& row) { return name != nullptr && std::strcmp(name, row.name) == 0; });
    if (found != nodeNames.end()) {
        *node = found->number;
    } else {
        trace_wobu_write_all(kest_trace, 0xFB05D709, " %s", __LINE__, 0, "KEST_convert_str_to_MernNodeId");
        kest_describeFailure(details, 27, 0x1318);
    }
    kest_logError(entry, &details, sourceId);
}

void kest_wobuOpen(mern_t& handle, ErrlEntry*& entry, const char* devicePath, const char* nodeName)
{
    const traceScope scope(openName);
    MernNode node;
    NodeType number = -1;
    kest_errorDetails details{};
    MernInitialize(0x80000000);
    if (devicePath == nullptr) {
        trace_wobu_write_all(kest_trace, 0xBB9783DD, " %s", __LINE__, 0, openName);
        kest_describeFailure(details, openModule, 0x132B);
    } else if (KEST_convert_str_to_MernNodeId(nodeName, &number, entry); entry != nullptr) {
        trace_wobu_write_all(kest_trace, 0x0528C5DF, " %s,%s", __LINE__, 0, openName,
                             nodeName != nullptr ? nodeName : "");
    } else {
        node.number = number;
        // one expression: the node's copy is destroyed at its end and may change errno
        const int error = (handle = mern_iic_open(node, devicePath, openFlags), errno);
        if (kest_isInvalidHandle(handle)) {
            describeOpen(details, error, devicePath);
        }
    }
    kest_logError(entry, &details, sourceId);
}

void kest_wobuConfig(mern_t handle, ErrlEntry*& entry, int operation, wobu_iic_cfg_t item, void* value,
                     unsigned int size)
{
    const traceScope scope(configCall.name);
    const int result = mern_iic_config(handle, operation, item, value, size);
    const int error = errno;
    if (result < 0) {
        const std::uint32_t itemNumber = item;
        reportFailure(configCall, error, {itemNumber, static_cast<std::uint32_t>(operation), itemNumber}, entry,
                      handle);
    }
}

void kest_wobuSeek(mern_t& handle, ErrlEntry*& entry, long offset, int whence)
{
    const traceScope scope(seekCall.name);
    const int result = mern_iic_seek(handle, offset, whence);
    const int error = errno;
    if (result < 0) {
        const auto position = static_cast<std::uint32_t>(offset);
        reportFailure(seekCall, error, {position, position, 0}, entry, handle);
    }
}

void kest_wobuRead(mern_t& handle, ErrlEntry*& entry, unsigned int* length, void* buffer, int checkStatus)
{
    const traceScope scope(readCall.name);
    const unsigned int lengthWanted = *length;
    const int result = mern_iic_read(handle, buffer, lengthWanted);
    const int error = errno;
    const auto lengthMoved = static_cast<unsigned int>(result);
    if (result < 0 || lengthMoved != lengthWanted) {
        *length = lengthMoved;
        reportFailure(readCall, error, {lengthWanted, lengthMoved, lengthWanted}, entry, handle);
        if (checkStatus != 0 && error != 0 && error != ENXIO && error != EDEADLK && entry != nullptr) {
            addDetectState(handle, entry);
        }
    }
}

void kest_wobuWrite(mern_t& handle, ErrlEntry*& entry, unsigned int* length, const void* data)
{
    const traceScope scope(writeCall.name);
    const int result = mern_iic_write(handle, data, *length);
    const int error = errno;
    const auto lengthMoved = static_cast<unsigned int>(result);
    if (result < 0 || lengthMoved != *length) {
        // the length asked for is gone: every user data word of a write carries the count
        *length = lengthMoved;
        reportFailure(writeCall, error, {lengthMoved, lengthMoved, lengthMoved}, entry, handle);
    }
}

void kest_wobuClose(mern_t& handle, ErrlEntry*& entry)
{
    const traceScope scope(closeCall.name);
    const int result = mern_iic_close(handle);
    const int error = errno;
    if (result < 0) {
        reportFailure(closeCall, error, {0, 0, 0}, entry, handle);
    }
}

void kest_wobuBuildConfig(const kest_deviceAddress* chain, unsigned int length, bool read, kest_iicConfigBlock* block,
                          const kest_attributeValue* attributes, int hubOption)
{
    const bool isHub = chain->type == KEST_DEV_922HUB;
    const headRule& rule = ruleOfHead(chain->type);
    const auto cycle = static_cast<std::uint16_t>(attributes[KEST_ATTR_WRITE_CYCLE]);
    *block = {};
    // the caller's speed goes to the layer as an item of its own
    block->speedKhz = 400;
    block->address = chain->address;
    block->offsetLength = isHub ? hubOffsetLength(hubOption) : rule.offsetLength;
    block->timeoutMs = rule.fixedTimeout ? fixedTimeoutMs : kest_timeoutCalc(chain, length, read, attributes);
    block->writeCycleMs = rule.writeCycle ? cycle : std::uint16_t{0};
    block->pageSize = kest_pageSize(isHub ? kest_lastNode(chain)->type : chain->type);
    block->flags = rule.flags | flagOfTransferMode(attributes[KEST_ATTR_TRANSFER_MODE]);
    block->busyWaitMs = 1000;
}

std::uint32_t kest_wobuFFDCExtract(mern_t handle, ErrlEntry*& entry, void** data, unsigned int* size)
{
    const traceScope scope(extractCall.name);
    kest_errorDetails details{};
    std::uint32_t returnCode = 0;
    const int result = mern_iic_ffdc_extract(handle, 0, data);
    const int error = errno;
    if (result == -1) {
        returnCode = describeFfdc(details, extractCall, error, result);
    } else if (result > 0) {
        trace_wobu_write_all(kest_trace, 0x225681C0, " %s,%d", __LINE__, 0, extractCall.name, result);
        *size = static_cast<unsigned int>(result);
    } else if (result == 0) {
        trace_wobu_write_all(kest_trace, 0x3242D04A, " %s", __LINE__, 0, extractCall.name);
    }
    kest_logError(entry, &details, sourceId);
    return returnCode;
}

std::uint32_t kest_wobuFFDCUnlock(mern_t handle, ErrlEntry*& entry, int trace)
{
    kest_errorDetails details{};
    std::uint32_t returnCode = 0;
    if (trace != 0) {
        trace_wobu_write_all(kest_trace, 0x0D21BD6B, " %s", __LINE__, 0, unlockCall.name);
    }
    const int result = mern_iic_ffdc_unlock(handle, 0);
    const int error = errno;
    if (result == -1) {
        returnCode = describeFfdc(details, unlockCall, error, result);
    }
    kest_logError(entry, &details, sourceId);
    return returnCode;
}

} // namespace kest
