#include "kestwobu.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "kestattribute.h"
#include "kestdevicetypes.h"
#include "kestfailure.h"
#include "kestseeprom.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestwobu";

/// How an operation on an open device reports its failures. The entry of a deadlock is committed at once.
struct wobuCall {
    routine self;
    kest_reason reason;
    std::uint32_t hash;
    std::uint32_t absentHash = 0; ///< 0: ENXIO is like any other errno
    kest_reason deadlockReason = KEST_REASON_DEADLOCK;
};

constexpr wobuCall configCall{
    .self = {"kest_wobuConfig", KEST_MODULE_CONFIG, sourceId}, .reason = KEST_REASON_CONFIG, .hash = 0x0647B45B};
constexpr wobuCall readCall{.self = {"kest_wobuRead", KEST_MODULE_READ, sourceId},
                            .reason = KEST_REASON_READ,
                            .hash = 0x8F0A53F7,
                            .absentHash = 0x46CE7181};
constexpr wobuCall seekCall{
    .self = {"kest_wobuSeek", KEST_MODULE_SEEK, sourceId}, .reason = KEST_REASON_SEEK, .hash = 0x6CBCBF08};
constexpr wobuCall writeCall{.self = {"kest_wobuWrite", KEST_MODULE_WRITE, sourceId},
                             .reason = KEST_REASON_WRITE,
                             .hash = 0x52F84B38,
                             .absentHash = 0xC7AD4A12};
constexpr wobuCall closeCall{.self = {"kest_wobuClose", KEST_MODULE_CLOSE, sourceId},
                             .reason = KEST_REASON_CLOSE,
                             .hash = 0x266E6775,
                             .deadlockReason = KEST_REASON_CLOSE_DEADLOCK};

/// User data of a failure, after the errno.
struct failureWords {
    std::uint32_t special2; ///< word 2 of a deadlock or an absent device; words 3 and 4 are then 0
    std::uint32_t other2;
    std::uint32_t other3;
};

void describeCall(failureReport& report, const wobuCall& call, int error, const failureWords& words)
{
    const auto word1 = static_cast<std::uint32_t>(error);
    if (error == EDEADLK) {
        KEST_TRACE(0x77E7226A, "", call.self.name);
        report.describe(call.deadlockReason, blamesSoftware, word1, words.special2);
        // the same for every operation, whatever its reason
        kest_setReturnCode(report.details, kest_classFailure | KEST_REASON_DEADLOCK);
    } else if (error == ENXIO && call.absentHash != 0) {
        KEST_TRACE(call.absentHash, "", call.self.name);
        report.describe(KEST_REASON_NO_ANSWER, blamesAbsence, word1, words.special2);
    } else {
        KEST_TRACE(call.hash, ",%d", call.self.name, error);
        report.describe(call.reason, kest_blameOf(error), word1, words.other2, words.other3);
    }
}

/// Logs a failed operation and captures the driver's first-failure data. After a deadlock `entry` is null.
void reportFailure(const wobuCall& call, int error, const failureWords& words, ErrlEntry*& entry, mern_t& handle)
{
    failureReport report{call.self, entry};
    describeCall(report, call, error, words);
    report.finish();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    if (error == EDEADLK) {
        report.commit(ERRL_ACTION_REPORT);
    }
}

/// After a failed read: what the layer sees at the device's address goes into `entry`.
void addDetectState(mern_t handle, ErrlEntry*& entry)
{
    failureReport report{readCall.self, entry};
    ErrlEntry* statusEntry = nullptr;
    // keeps this value when the item's failure was committed: there is then nothing to add
    std::uint32_t status = MERN_DETECT_PRESENT;
    kest_wobuConfig(handle, statusEntry, kest_configRead, WOBU_IIC_DETECT_STATE, &status, sizeof status);
    if (statusEntry != nullptr) {
        KEST_TRACE(0x3E40FC77, "", readCall.self.name);
        kest_mergeFirstSrc(*entry, *statusEntry);
        delete statusEntry;
    } else if (status == MERN_DETECT_ABSENT) {
        kest_setReturnCode(report.details, entry->getRC() | kest_classInformational);
    } else if (status != MERN_DETECT_PRESENT) {
        KEST_TRACE(0x2F339125, ",%x", readCall.self.name, status);
        kest_requestSrc(report.details, readCall.self.module, KEST_REASON_DETECT_STATE, EPUB_SUBSYSTEM_IIC_DEVICE,
                        status);
    }
    report.finish();
}

constexpr routine openRoutine{"kest_wobuOpen", KEST_MODULE_OPEN, sourceId};
constexpr routine nodeRoutine{"KEST_convert_str_to_MernNodeId", KEST_MODULE_NODE_NAME, sourceId};

void describeOpen(failureReport& report, int error, const char* devicePath)
{
    const auto word1 = static_cast<std::uint32_t>(error);
    KEST_TRACE(0x314864B7, ",%d", openRoutine.name, error);
    if (error == ENODEV) {
        KEST_TRACE(hashNodeAbsent, "", openRoutine.name);
        report.describe(KEST_REASON_OPEN_GONE, blamesSoftware, word1);
    } else if (error == ENOENT) {
        KEST_TRACE(0x3AD3D156, ",%d", openRoutine.name, error);
        // ENOENT gets two callouts, on purpose
        kest_addCallout(report.details);
        report.describe(KEST_REASON_NO_ANSWER, blamesAbsence, word1);
    } else {
        report.describe(KEST_REASON_OPEN, kest_blameOf(error), word1);
    }
    kest_attachText(report.details, devicePath, kest_dtlsDevicePath);
}

struct nodeRow {
    char name[2];
    NodeType number;
};
constexpr std::array<nodeRow, 10> nodeNames{
    {{"L", -1}, {"l", -1}, {"0", 0}, {"1", 1}, {"2", 2}, {"3", 3}, {"4", 4}, {"5", 5}, {"6", 6}, {"7", 7}}};

constexpr std::uint32_t fixedTimeoutMs = 20000;

/// Bytes of the position sent through a 922 hub: its port, the device's address and the device's own offset bytes.
std::uint16_t hubOffsetLength(int hubOption)
{
    return hubOption == 1 || hubOption == 2 ? static_cast<std::uint16_t>(2 + hubOption) : std::uint16_t{0};
}

std::uint32_t flagOfTransferMode(kest_attributeValue mode)
{
    if (mode == 1) {
        return 0x1;
    }
    return mode == 3 ? 0x2 : 0;
}

} // namespace

bool kest_isInvalidHandle(const mern_t& handle)
{
    return std::equal(handle.words, handle.words + 5, MERN_INVALID.words);
}

void KEST_convert_str_to_MernNodeId(const char* name, NodeType* node, ErrlEntry*& entry)
{
    reportedCall report{nodeRoutine, entry};
    const auto* const found = std::ranges::find_if(
        nodeNames, [name](const nodeRow& row) { return name != nullptr && std::strcmp(name, row.name) == 0; });
    if (found != nodeNames.end()) {
        *node = found->number;
    } else {
        report.fail(0xFB05D709, KEST_REASON_NO_NODE);
    }
    report.finish();
}

void kest_wobuOpen(mern_t& handle, ErrlEntry*& entry, const char* devicePath, const char* nodeName)
{
    reportedCall report{openRoutine, entry};
    MernNode node;
    NodeType number = MERN_NODE_LOCAL;
    MernInitialize(MERN_INITIALIZE_OPTIONS);
    if (devicePath == nullptr) {
        report.fail(0xBB9783DD, KEST_REASON_MISSING);
    } else if (KEST_convert_str_to_MernNodeId(nodeName, &number, entry); entry != nullptr) {
        KEST_TRACE(0x0528C5DF, ",%s", openRoutine.name, nodeName != nullptr ? nodeName : "");
    } else {
        node.number = number;
        // one expression: the node's copy is destroyed at its end and may change errno
        const int error = (handle = mern_iic_open(node, devicePath, MERN_OPEN_READ_WRITE_SYNC), errno);
        if (kest_isInvalidHandle(handle)) {
            describeOpen(report, error, devicePath);
        }
    }
    report.finish();
}

void kest_wobuConfig(mern_t handle, ErrlEntry*& entry, int operation, wobu_iic_cfg_t item, void* value,
                     unsigned int size)
{
    const traceScope scope(configCall.self.name);
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
    const traceScope scope(seekCall.self.name);
    const int result = mern_iic_seek(handle, offset, whence);
    const int error = errno;
    if (result < 0) {
        const auto position = static_cast<std::uint32_t>(offset);
        reportFailure(seekCall, error, {position, position, 0}, entry, handle);
    }
}

void kest_wobuRead(mern_t& handle, ErrlEntry*& entry, unsigned int* length, void* buffer, int checkStatus)
{
    const traceScope scope(readCall.self.name);
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
    const traceScope scope(writeCall.self.name);
    const int result = mern_iic_write(handle, data, *length);
    const int error = errno;
    const auto lengthMoved = static_cast<unsigned int>(result);
    if (result < 0 || lengthMoved != *length) {
        // overwrites the length asked for: every user data word of a write has the count
        *length = lengthMoved;
        reportFailure(writeCall, error, {lengthMoved, lengthMoved, lengthMoved}, entry, handle);
    }
}

void kest_wobuClose(mern_t& handle, ErrlEntry*& entry)
{
    const traceScope scope(closeCall.self.name);
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
    const deviceType& head = kest_typeOf(chain->type);
    *block = {};
    // the caller's speed goes to the layer as an item of its own
    block->speedKhz = 400;
    block->address = chain->address;
    block->offsetLength = isHub ? hubOffsetLength(hubOption) : head.offsetLength;
    block->timeoutMs = head.fixedTimeout ? fixedTimeoutMs : kest_timeoutCalc(chain, length, read, attributes);
    if (head.writeCycle) {
        block->writeCycleMs = static_cast<std::uint16_t>(attributes[KEST_ATTR_WRITE_CYCLE]);
    }
    block->pageSize = kest_pageSize(isHub ? kest_lastNode(chain)->type : chain->type);
    block->flags = head.flags | flagOfTransferMode(attributes[KEST_ATTR_TRANSFER_MODE]);
    block->busyWaitMs = 1000;
}

} // namespace kest
