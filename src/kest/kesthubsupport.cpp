#include "kesthubsupport.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include <unistd.h>

#include "kestattribute.h"
#include "kestdataport.h"
#include "kesterrorlog.h"
#include "kesthandlehuberrors.h"
#include "kestseeprom.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kesthubsupport";

constexpr std::uint32_t transferModule = 20;
constexpr std::uint32_t queryModule = 33;

// Directions of a transfer, as kest_922HubSupport() and the hub's check number them.
constexpr int readTransfer = 0;
constexpr int writeTransfer = 1;

/// A configuration call of this unit and how its failure is told.
struct configStep {
    const char* function;
    std::uint32_t hash;
    std::uint32_t module;
    std::uint32_t line;
};
constexpr configStep blockStep{"kest_922setHubConfig", 0x30DD11C9, 20, 864};
constexpr configStep speedStep{"kest_922setHubConfig", 0x0B8F87C3, 20, 882};
constexpr configStep lockStep{"kest_922lockDeviceAddress", 0x9C262F5A, 22, 986};
constexpr configStep releaseStep{"kest_922releaseDeviceAddressLock", 0x4389D153, 23, 1052};

bool passed(const ErrlEntry* errl, kest_errorDetails& details, const configStep& step)
{
    if (errl != nullptr) {
        trace_wobu_write_all(kest_trace, step.hash, " %s", static_cast<int>(step.line - 1), 0, step.function);
        kest_attachSoftwareError(details, errl->getRC(), step.module, step.line);
    }
    return errl == nullptr;
}

/// Bypasses the wrapper on purpose: a layer without the option must not fail the read.
void setDmaOption(mern_t& handle)
{
    std::uint32_t option = 2;
    if (mern_iic_config(handle, kest_configSet, WOBU_IIC_DMA_OPTION, &option, sizeof option) != 0) {
        std::fputs("DMA workaround error\n", stderr);
    }
}

} // namespace

void kest_922lockDeviceAddress(mern_t handle, const kest_deviceAddress* address, unsigned int length, bool isRead,
                               kest_922AddressLock* lock, const kest_attributeValue* attributes, ErrlEntry*& errl)
{
    const traceScope scope{lockStep.function};
    kest_errorDetails details{};
    *lock = {
        .kind = 0, .address = address->address, .timeoutMs = kest_timeoutCalc(address, length, isRead, attributes)};
    kest_wobuConfig(handle, errl, kest_configSet, WOBU_IIC_LOCK, lock, sizeof *lock);
    passed(errl, details, lockStep);
    kest_logError(errl, &details, sourceId);
}

void kest_922setHubConfig(mern_t handle, const kest_deviceAddress* address, unsigned int length, void* configBlock,
                          const kest_attributeValue* attributes, bool isRead, ErrlEntry*& errl, int deviceMode)
{
    const traceScope scope{blockStep.function};
    kest_errorDetails details{};
    auto* const block = static_cast<kest_iicConfigBlock*>(configBlock);
    kest_wobuBuildConfig(address, length, isRead, block, attributes, deviceMode);
    kest_wobuConfig(handle, errl, kest_configSet, WOBU_IIC_BLOCK, block, sizeof *block);
    if (passed(errl, details, blockStep)) {
        kest_attributeValue speedKhz = attributes[KEST_ATTR_BUS_SPEED];
        kest_wobuConfig(handle, errl, kest_configSet, WOBU_IIC_SPEED, &speedKhz, sizeof speedKhz);
        if (passed(errl, details, speedStep) && isRead) {
            setDmaOption(handle);
        }
    }
    kest_logError(errl, &details, sourceId);
}

void kest_922releaseDeviceAddressLock(mern_t handle, const kest_deviceAddress* address, unsigned int /*length*/,
                                      kest_922AddressLock* lock, const kest_attributeValue* /*attributes*/,
                                      ErrlEntry*& errl)
{
    const traceScope scope{releaseStep.function};
    kest_errorDetails details{};
    lock->address = address->address;
    kest_wobuConfig(handle, errl, kest_configSet, WOBU_IIC_UNLOCK, lock, sizeof *lock);
    passed(errl, details, releaseStep);
    kest_logError(errl, &details, sourceId);
}

namespace
{

/// One transfer and how far it has come.
struct hubTransfer {
    const kest_deviceInfo* device;
    const kest_attributeValue* attributes;
    const char* path;
    ErrlEntry*& errl;
    unsigned int size; ///< bytes to move, then bytes moved

    std::uint32_t position = 0; ///< port, device address and offset in one seek value
    int deviceMode = 0; ///< offset format: bytes of the offset, 0 for a device that has none

    mern_t handle = MERN_INVALID;
    bool opened = false;
    bool locked = false;
    unsigned char subBusReset = 0;
    kest_922AddressLock lock{};
    kest_iicConfigBlock block{};
    std::unique_ptr<std::uint8_t[]> buffer{};
    std::uint32_t failedLine = 0;
    kest_errorDetails details{};

    const kest_deviceAddress* hub() const { return device->addressList; }
};

/// Failure sites of the steps that both directions take.
struct stepLines {
    std::uint32_t open, lock, query, config, seek;
};
constexpr stepLines writeLines{.open = 519, .lock = 543, .query = 567, .config = 587, .seek = 604};
constexpr stepLines readLines{.open = 280, .lock = 306, .query = 330, .config = 349, .seek = 369};

void setPosition(hubTransfer& transfer, unsigned int offset)
{
    const kest_deviceAddress& hub = *transfer.hub();
    const kest_deviceType type = kest_lastNode(&hub)->type;
    if (kest_isSeeprom(type)) {
        transfer.deviceMode = type == KEST_DEV_SEEPROM_2K ? 1 : 2;
        const int bits = 8 * transfer.deviceMode;
        const std::uint32_t routing = (std::uint32_t{hub.port} << 8) | hub.next->address;
        transfer.position = (routing << bits) | (offset & ((1U << bits) - 1));
    }
}

bool passed(hubTransfer& transfer, std::uint32_t line)
{
    if (transfer.errl != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("step of a hub transfer failed"), " %s", static_cast<int>(line), 0,
                             "kest_922HubSupport");
        transfer.failedLine = line;
    }
    return transfer.errl == nullptr;
}

/// Makes the zeroed transfer buffer, of the transfer's size and `extra` bytes.
bool allocateBuffer(hubTransfer& transfer, unsigned int extra)
{
    const unsigned int bytes = transfer.size + extra;
    // else the sum has wrapped
    if (bytes >= extra) {
        transfer.buffer.reset(new (std::nothrow) std::uint8_t[bytes]());
    }
    if (!transfer.buffer) {
        trace_wobu_write_all(kest_trace, traceHash("no buffer for a hub transfer"), " %s,%x", __LINE__, 0,
                             "kest_922HubSupport", transfer.size);
        kest_describeFailure(transfer.details, transferModule, 0x132B, transfer.size);
    }
    return transfer.buffer != nullptr;
}

bool openDevice(hubTransfer& transfer, std::uint32_t line)
{
    kest_wobuOpen(transfer.handle, transfer.errl, transfer.device->devicePath, transfer.device->nodeName);
    transfer.opened = transfer.errl == nullptr;
    if (!transfer.opened) {
        trace_wobu_write_all(kest_trace, traceHash("device of a hub transfer not opened"), " %s,%s",
                             static_cast<int>(line), 0, "kest_922HubSupport", transfer.path);
        transfer.failedLine = line;
    }
    return transfer.opened;
}

bool lockHub(hubTransfer& transfer, bool isRead, std::uint32_t line)
{
    kest_922lockDeviceAddress(transfer.handle, transfer.hub(), transfer.size, isRead, &transfer.lock,
                              transfer.attributes, transfer.errl);
    transfer.locked = passed(transfer, line);
    return transfer.locked;
}

bool queryHub(hubTransfer& transfer, std::uint32_t line)
{
    kest_922HubQueryErrStatus(transfer.handle, transfer.hub()->address, transfer.errl, transfer.path);
    return passed(transfer, line);
}

bool configureHub(hubTransfer& transfer, bool isRead, std::uint32_t line)
{
    kest_922setHubConfig(transfer.handle, transfer.hub(), transfer.size, &transfer.block, transfer.attributes, isRead,
                         transfer.errl, transfer.deviceMode);
    return passed(transfer, line);
}

bool seekDevice(hubTransfer& transfer, std::uint32_t line)
{
    kest_wobuSeek(transfer.handle, transfer.errl, static_cast<long>(transfer.position), 0);
    return passed(transfer, line);
}

/// All that comes before the data: the device is open, the hub reserved, error-free and configured, the position set.
bool prepare(hubTransfer& transfer, bool isRead, const stepLines& lines)
{
    return openDevice(transfer, lines.open) && lockHub(transfer, isRead, lines.lock) &&
           queryHub(transfer, lines.query) && configureHub(transfer, isRead, lines.config) &&
           seekDevice(transfer, lines.seek);
}

/// Lets the hub say how the transfer ended; its verdict comes back in `errl`. The transfer can be
/// repeated for it, with the same size.
void checkHub(hubTransfer& transfer, int direction, ErrlEntry*& errl)
{
    const unsigned int size = transfer.size;
    kest_checkAndHandle922HubErr(transfer.handle, errl, &transfer.size, direction, &transfer.subBusReset, transfer.path,
                                 transfer.hub()->address, &transfer.block, transfer.buffer.get(), transfer.position);
    if (errl == nullptr) {
        // whatever a failure that was committed below left there
        transfer.size = std::min(transfer.size, size);
    }
}

void writeThroughHub(hubTransfer& transfer, const void* data)
{
    const unsigned int asked = transfer.size;
    if (allocateBuffer(transfer, 0) && prepare(transfer, false, writeLines)) {
        std::copy_n(static_cast<const std::uint8_t*>(data), asked, transfer.buffer.get());
        kest_wobuWrite(transfer.handle, transfer.errl, &transfer.size, transfer.buffer.get());
        if (passed(transfer, 690)) {
            // Whatever a failure that was committed below left there: the hub's check repeats
            // so many bytes of the buffer.
            transfer.size = std::min(transfer.size, asked);
            usleep(static_cast<useconds_t>(transfer.attributes[KEST_ATTR_WRITE_CYCLE] * 1000));
            checkHub(transfer, writeTransfer, transfer.errl);
            passed(transfer, 726);
        }
    }
}

/// A hub that does not answer is reset. One that answered with an error of its own may have recovered, and the read
/// been repeated with success: its data stay in the transfer's buffer.
void handleFailedRead(hubTransfer& transfer, unsigned int asked)
{
    trace_wobu_write_all(kest_trace, traceHash("read through a hub failed"), " %s", 392, 0, "kest_922HubSupport");
    const auto error = kest_failedErrno(transfer.errl);
    kest_resetSilentHub(transfer.errl, transfer.path, transfer.handle, transfer.hub()->address);
    if (error != ENODATA) {
        passed(transfer, 456);
    } else {
        ErrlEntry* secondary = nullptr;
        transfer.size = asked + 1;
        checkHub(transfer, readTransfer, secondary);
        kest_922HubHandlePrimSecErrLogs(transfer.errl, secondary, transfer.subBusReset);
        passed(transfer, 446);
    }
}

/// The caller gets the data; then the hub says whether they stand.
void takeData(hubTransfer& transfer, unsigned int asked, void* data)
{
    // At least 1 and at most what was asked for, unless a failure that was committed below left something else there.
    transfer.size = std::clamp(transfer.size, 1U, asked + 1) - 1;
    std::copy_n(transfer.buffer.get() + 1, transfer.size, static_cast<std::uint8_t*>(data));
    checkHub(transfer, readTransfer, transfer.errl);
    passed(transfer, 495);
}

/// The hub sends its status ahead of the data: one byte more is read than the caller gets.
void readThroughHub(hubTransfer& transfer, void* data)
{
    const unsigned int asked = transfer.size;
    if (prepare(transfer, true, readLines) && allocateBuffer(transfer, 1)) {
        transfer.size = asked + 1;
        kest_wobuRead(transfer.handle, transfer.errl, &transfer.size, transfer.buffer.get(), 0);
        if (transfer.errl == nullptr) {
            takeData(transfer, asked, data);
        } else {
            handleFailedRead(transfer, asked);
        }
    }
}

void commitLate(ErrlEntry*& secondary)
{
    if (secondary != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("release or close of a hub failed"), " %s,%x", __LINE__, 0,
                             "kest_922HubSupport", secondary->plid());
        kest_commitSecondary(secondary);
    }
}

void releaseAndClose(hubTransfer& transfer)
{
    ErrlEntry* secondary = nullptr;
    if (transfer.locked) {
        kest_922releaseDeviceAddressLock(transfer.handle, transfer.hub(), transfer.size, &transfer.lock,
                                         transfer.attributes, secondary);
        commitLate(secondary);
    }
    kest_wobuClose(transfer.handle, secondary);
    commitLate(secondary);
}

} // namespace

void kest_922HubSupport(kest_deviceInfo* device, unsigned int* length, int operation, void** data, unsigned int offset,
                        const kest_attributeValue* attributes, ErrlEntry*& errl, const char* path)
{
    const traceScope scope{"kest_922HubSupport"};
    hubTransfer transfer{.device = device, .attributes = attributes, .path = path, .errl = errl, .size = *length};
    setPosition(transfer, offset);
    if (operation == writeTransfer) {
        writeThroughHub(transfer, *data);
    } else if (operation == readTransfer) {
        readThroughHub(transfer, *data);
    }
    if (transfer.opened) {
        releaseAndClose(transfer);
    }
    *length = transfer.size;
    if (errl != nullptr) {
        kest_attachSoftwareError(transfer.details, errl->getRC(), transferModule, transfer.failedLine);
    }
    kest_logError(errl, &transfer.details, sourceId);
}

void kest_922HubQueryErrStatus(mern_t handle, unsigned int hubAddress, ErrlEntry*& errl, const char* path)
{
    constexpr char name[] = "kest_922HubQueryErrStatus";
    const traceScope scope{name};
    kest_errorDetails details{};
    std::uint8_t status = 0;
    kest_iicConfigBlock block{};
    block.speedKhz = 400;
    block.address = static_cast<std::uint16_t>(hubAddress);
    block.timeoutMs = 20000;
    block.flags = 0xFFFF0001;
    block.busyWaitMs = 1000;
    kest_wobuConfig(handle, errl, kest_configSet, WOBU_IIC_BLOCK, &block, sizeof block);
    if (errl != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("hub not configured for its error status"), " %s", 1207, 0, name);
    } else {
        unsigned int length = 1;
        kest_wobuRead(handle, errl, &length, &status, 0);
        kest_resetSilentHub(errl, path, handle, hubAddress);
    }
    // 15: the hub has just come out of reset
    if (status != 0) {
        kest_setReturnCode(details,
                           (status == 15 ? 0x00100000U : 0x10000000U) | (errl != nullptr ? errl->getRC() : 0U));
    }
    if (errl != nullptr) {
        kest_requestSrc(details, queryModule, 0x132A, EPUB_SUBSYSTEM_IIC_DEVICE, status);
        kest_addCallout(details);
        kest_attachSoftwareError(details, errl->getRC(), queryModule, 1283);
    }
    kest_logError(errl, &details, sourceId);
}

void kest_resetSilentHub(ErrlEntry*& errl, const char* path, mern_t handle, unsigned int hubAddress)
{
    if (kest_failedErrno(errl) == ENXIO) {
        errl->CollectTrace("IIC", 4096);
        kest_handle_hub_reset(errl, path, handle, hubAddress);
    }
}

namespace
{

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
    constexpr char name[] = "kest_handle_hub_reset";
    int failedCall = 0;
    if (const std::unique_ptr<ErrlEntry> failure{pulseResetPin(resetPath, handle, failedCall)}; failure) {
        trace_wobu_write_all(kest_trace, traceHash("hub not reset"), " %s,%d,%s,%s", __LINE__, 0, name, failedCall,
                             path, resetPath);
        errl.CollectTrace("kest", 250);
        kest_mergeFirstSrc(errl, *failure);
        errl.setRC(failure->getRC());
    } else {
        trace_wobu_write_all(kest_trace, traceHash("hub reset"), " %s,%s,%s", __LINE__, 0, name, path, resetPath);
        errl.CollectTrace("kest", 250);
        errl.setRC(0x41000000);
    }
}

} // namespace

void kest_handle_hub_reset(ErrlEntry*& errl, const char* path, mern_t handle, unsigned int hubAddress)
{
    const traceScope scope{"kest_handle_hub_reset"};
    kest_errorDetails details{};
    const std::size_t bytes = std::strlen(path) + kest_hubResetPathExtra;
    const std::unique_ptr<char[]> resetPath{new (std::nothrow) char[bytes]};
    if (resetPath) {
        kest_build922HubResetPath(path, resetPath.get(), static_cast<unsigned char>(hubAddress));
        resetHub(*errl, path, resetPath.get(), handle);
    } else {
        trace_wobu_write_all(kest_trace, traceHash("no buffer for a hub's reset path"), " %s", __LINE__, 0,
                             "kest_handle_hub_reset");
        kest_describeFailure(details, transferModule, 0x132B, static_cast<std::uint32_t>(bytes));
    }
    kest_logError(errl, &details, sourceId);
}

void kest_922HubHandlePrimSecErrLogs(ErrlEntry*& primary, ErrlEntry*& secondary, unsigned char subBusReset)
{
    constexpr char name[] = "kest_922HubHandlePrimSecErrLogs";
    const traceScope scope{name};
    if (secondary != nullptr) {
        if (subBusReset == 0) {
            kest_mergeFirstSrc(*primary, *secondary);
            primary->setRC(secondary->getRC());
        }
        delete secondary;
        secondary = nullptr;
    } else if (subBusReset != 0) {
        // the repeat after the sub-bus reset worked
        delete primary;
        primary = nullptr;
    } else {
        trace_wobu_write_all(kest_trace, traceHash("hub without further error"), " %s", 1125, 0, name);
    }
}

namespace
{

/// Copies the next token and a comma, and moves both pointers behind them. @return whether there was one; an empty one
/// does not count
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

std::string_view expanderOf(unsigned char hubAddress)
{
    std::string_view expander = "9552,";
    if (hubAddress == 0x80 || hubAddress == 0x88) {
        expander = "9552,0xC0";
    } else if (hubAddress == 0x82 || hubAddress == 0x8A) {
        expander = "9552,0xC2";
    }
    return expander;
}

} // namespace

void kest_build922HubResetPath(const char* path, char* out, unsigned char hubAddress)
{
    std::memset(out, 0, std::strlen(path) + 1);
    if (copyToken(path, out) && copyToken(path, out)) {
        out = std::ranges::copy(expanderOf(hubAddress), out).out;
    }
    // the text of a short path ends behind the zeroed bytes
    *out = '\0';
}

} // namespace kest
