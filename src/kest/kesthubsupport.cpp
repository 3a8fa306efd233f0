#include "kesthubsupport.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include <unistd.h>

#include "kestattribute.h"
#include "kestdevicetypes.h"
#include "kestfailure.h"
#include "kesthandlehuberrors.h"
#include "kestseeprom.h"
#include "kestsession.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kesthubsupport";
constexpr routine transferRoutine{"kest_922HubSupport", KEST_MODULE_HUB_TRANSFER, sourceId};
constexpr routine configRoutine{"kest_922setHubConfig", KEST_MODULE_HUB_TRANSFER, sourceId};
constexpr routine lockRoutine{"kest_922lockDeviceAddress", KEST_MODULE_HUB_LOCK, sourceId};
constexpr routine releaseRoutine{"kest_922releaseDeviceAddressLock", KEST_MODULE_HUB_LOCK_RELEASE, sourceId};
constexpr routine queryRoutine{"kest_922HubQueryErrStatus", KEST_MODULE_HUB_QUERY, sourceId};

// Directions of a transfer, as kest_922HubSupport() and the hub's check number them.
constexpr int readTransfer = 0;
constexpr int writeTransfer = 1;

/// Failure sites of the steps that both directions take.
struct stepSites {
    std::uint32_t open, lock, query, config, seek;
};
constexpr stepSites writeSites{.open = 519, .lock = 543, .query = 567, .config = 587, .seek = 604};
constexpr stepSites readSites{.open = 280, .lock = 306, .query = 330, .config = 349, .seek = 369};

/// One transfer and how far it has come.
struct hubTransfer {
    const kest_deviceInfo& device;
    const kest_attributeValue* attributes;
    const char* path;
    ErrlEntry*& errl;
    unsigned int size; ///< bytes to move, then bytes moved

    reportedCall report{transferRoutine, errl, 0};
    iicSession session{errl};
    const kest_deviceAddress& hub = *device.addressList;
    std::uint32_t position = 0; ///< port, device address and offset in one seek value
    int deviceMode = 0; ///< offset format: bytes of the offset, 0 for a device that has none
    bool locked = false;
    unsigned char subBusReset = 0;
    mern_iic_lock lock{};
    mern_iic_block block{};
    std::unique_ptr<std::uint8_t[]> buffer{};
};

void setPosition(hubTransfer& transfer, unsigned int offset)
{
    transfer.deviceMode = kest_typeOf(kest_lastNode(&transfer.hub)->type).offsetLength;
    if (transfer.deviceMode != 0) {
        const int bits = 8 * transfer.deviceMode;
        const std::uint32_t routing = (std::uint32_t{transfer.hub.port} << 8) | transfer.hub.next->address;
        transfer.position = (routing << bits) | (offset & ((1U << bits) - 1));
    }
}

/// Ends a step. @param done  true when there is no entry
bool passed(hubTransfer& transfer, bool done, std::uint32_t site)
{
    return done || transfer.report.passed(traceHash("step of a hub transfer failed"), site);
}
bool passed(hubTransfer& transfer, std::uint32_t site) { return passed(transfer, transfer.errl == nullptr, site); }

/// Makes the zeroed transfer buffer, of the transfer's size and `extra` bytes.
bool allocateBuffer(hubTransfer& transfer, unsigned int extra)
{
    const unsigned int bytes = transfer.size + extra;
    // smaller when the sum has wrapped
    if (bytes >= extra) {
        transfer.buffer.reset(new (std::nothrow) std::uint8_t[bytes]());
    }
    if (!transfer.buffer) {
        KEST_TRACE(traceHash("no buffer for a hub transfer"), ",%x", transferRoutine.name, transfer.size);
        transfer.report.describe(KEST_REASON_MISSING, transfer.size);
    }
    return transfer.buffer != nullptr;
}

bool openDevice(hubTransfer& transfer, std::uint32_t site)
{
    if (!transfer.session.open(transfer.device)) {
        KEST_TRACE_AT(static_cast<int>(site), traceHash("device of a hub transfer not opened"), ",%s",
                      transferRoutine.name, transfer.path);
    }
    return transfer.report.noted(site);
}

/// All steps before the data: open the device, lock the hub, query its status, configure it, seek.
bool prepare(hubTransfer& transfer, bool isRead, const stepSites& at)
{
    const mern_t& handle = transfer.session.handle;
    ErrlEntry*& errl = transfer.errl;
    if (!openDevice(transfer, at.open)) {
        return false;
    }
    kest_922lockDeviceAddress(handle, &transfer.hub, transfer.size, isRead, &transfer.lock, transfer.attributes, errl);
    transfer.locked = passed(transfer, at.lock);
    if (!transfer.locked) {
        return false;
    }
    kest_922HubQueryErrStatus(handle, transfer.hub.address, errl, transfer.path);
    if (!passed(transfer, at.query)) {
        return false;
    }
    kest_922setHubConfig(handle, &transfer.hub, transfer.size, &transfer.block, transfer.attributes, isRead, errl,
                         transfer.deviceMode);
    return passed(transfer, at.config) && passed(transfer, transfer.session.seek(transfer.position), at.seek);
}

/// Asks the hub how the transfer ended; its verdict comes back in `errl`. It may repeat the transfer with the same
/// size.
void checkHub(hubTransfer& transfer, int direction, ErrlEntry*& errl)
{
    const unsigned int size = transfer.size;
    kest_checkAndHandle922HubErr(transfer.session.handle, errl, &transfer.size, direction, &transfer.subBusReset,
                                 transfer.path, transfer.hub.address, &transfer.block, transfer.buffer.get(),
                                 transfer.position);
    if (errl == nullptr) {
        // a failure that was committed can leave any count here
        transfer.size = std::min(transfer.size, size);
    }
}

void writeThroughHub(hubTransfer& transfer, const void* data)
{
    const unsigned int asked = transfer.size;
    if (!allocateBuffer(transfer, 0) || !prepare(transfer, false, writeSites)) {
        return;
    }
    std::copy_n(static_cast<const std::uint8_t*>(data), asked, transfer.buffer.get());
    kest_wobuWrite(transfer.session.handle, transfer.errl, &transfer.size, transfer.buffer.get());
    if (passed(transfer, 690)) {
        // a failure that was committed can leave any count here, and the hub's check repeats that many bytes
        transfer.size = std::min(transfer.size, asked);
        usleep(static_cast<useconds_t>(transfer.attributes[KEST_ATTR_WRITE_CYCLE] * 1000));
        checkHub(transfer, writeTransfer, transfer.errl);
        passed(transfer, 726);
    }
}

/// A hub that does not answer is reset. A hub that answered with an error may recover, and the read is then repeated.
/// The data of a successful repeat stay in the transfer's buffer.
void handleFailedRead(hubTransfer& transfer, unsigned int asked)
{
    KEST_TRACE_AT(392, traceHash("read through a hub failed"), "", transferRoutine.name);
    const auto error = kest_failedErrno(transfer.errl);
    kest_resetSilentHub(transfer.errl, transfer.path, transfer.session.handle, transfer.hub.address);
    if (error != ENODATA) {
        passed(transfer, 456);
        return;
    }
    ErrlEntry* secondary = nullptr;
    transfer.size = asked + 1;
    checkHub(transfer, readTransfer, secondary);
    kest_922HubHandlePrimSecErrLogs(transfer.errl, secondary, transfer.subBusReset);
    passed(transfer, 446);
}

/// The caller gets the data. Then the hub reports whether they are valid.
void takeData(hubTransfer& transfer, unsigned int asked, void* data)
{
    // a failure that was committed can leave any count here
    transfer.size = std::clamp(transfer.size, 1U, asked + 1) - 1;
    std::copy_n(transfer.buffer.get() + 1, transfer.size, static_cast<std::uint8_t*>(data));
    checkHub(transfer, readTransfer, transfer.errl);
    passed(transfer, 495);
}

/// The hub sends its status before the data: one byte more is read than the caller gets.
void readThroughHub(hubTransfer& transfer, void* data)
{
    const unsigned int asked = transfer.size;
    if (!prepare(transfer, true, readSites) || !allocateBuffer(transfer, 1)) {
        return;
    }
    transfer.size = asked + 1;
    kest_wobuRead(transfer.session.handle, transfer.errl, &transfer.size, transfer.buffer.get(), 0);
    if (transfer.errl == nullptr) {
        takeData(transfer, asked, data);
    } else {
        handleFailedRead(transfer, asked);
    }
}

void commitLate(ErrlEntry* secondary)
{
    if (secondary != nullptr) {
        KEST_TRACE(traceHash("release or close of a hub failed"), ",%x", transferRoutine.name, secondary->plid());
        kest_commitSecondary(secondary);
    }
}

void releaseAndClose(hubTransfer& transfer)
{
    ErrlEntry* secondary = nullptr;
    if (transfer.locked) {
        kest_922releaseDeviceAddressLock(transfer.session.handle, &transfer.hub, transfer.size, &transfer.lock,
                                         transfer.attributes, secondary);
        commitLate(secondary);
    }
    commitLate(transfer.session.close());
}

} // namespace

void kest_922lockDeviceAddress(mern_t handle, const kest_deviceAddress* address, unsigned int length, bool isRead,
                               kest_922AddressLock* lock, const kest_attributeValue* attributes, ErrlEntry*& errl)
{
    reportedCall report{lockRoutine, errl};
    *lock = {.kind = MERN_LOCK_HUB,
             .address = address->address,
             .timeoutMs = kest_timeoutCalc(address, length, isRead, attributes)};
    kest_wobuConfig(handle, errl, kest_configSet, WOBU_IIC_LOCK, lock, sizeof *lock);
    report.passed(0x9C262F5A, 986, 985);
    report.finish();
}

void kest_922setHubConfig(mern_t handle, const kest_deviceAddress* address, unsigned int length, void* configBlock,
                          const kest_attributeValue* attributes, bool isRead, ErrlEntry*& errl, int deviceMode)
{
    reportedCall report{configRoutine, errl};
    iicSession session{.entry = errl, .handle = handle};
    auto* const block = static_cast<mern_iic_block*>(configBlock);
    kest_wobuBuildConfig(address, length, isRead, block, attributes, deviceMode);
    session.setBlock(*block);
    if (report.passed(0x30DD11C9, 864, 863)) {
        session.setSpeed(attributes[KEST_ATTR_BUS_SPEED]);
        if (report.passed(0x0B8F87C3, 882, 881) && isRead) {
            session.setDmaOption();
        }
    }
    report.finish();
}

void kest_922releaseDeviceAddressLock(mern_t handle, const kest_deviceAddress* address, unsigned int /*length*/,
                                      kest_922AddressLock* lock, const kest_attributeValue* /*attributes*/,
                                      ErrlEntry*& errl)
{
    reportedCall report{releaseRoutine, errl};
    lock->address = address->address;
    kest_wobuConfig(handle, errl, kest_configSet, WOBU_IIC_UNLOCK, lock, sizeof *lock);
    report.passed(0x4389D153, 1052, 1051);
    report.finish();
}

void kest_922HubSupport(kest_deviceInfo* device, unsigned int* length, int operation, void** data, unsigned int offset,
                        const kest_attributeValue* attributes, ErrlEntry*& errl, const char* path)
{
    hubTransfer transfer{.device = *device, .attributes = attributes, .path = path, .errl = errl, .size = *length};
    setPosition(transfer, offset);
    if (operation == writeTransfer) {
        writeThroughHub(transfer, *data);
    } else if (operation == readTransfer) {
        readThroughHub(transfer, *data);
    }
    releaseAndClose(transfer);
    *length = transfer.size;
    transfer.report.finish();
}

void kest_922HubQueryErrStatus(mern_t handle, unsigned int hubAddress, ErrlEntry*& errl, const char* path)
{
    reportedCall report{queryRoutine, errl};
    iicSession session{.entry = errl, .handle = handle};
    std::uint8_t status = 0;
    mern_iic_block block{};
    block.speedKhz = 400;
    block.address = static_cast<std::uint16_t>(hubAddress);
    block.timeoutMs = 20000;
    block.flags = 0xFFFF0001;
    block.busyWaitMs = 1000;
    session.setBlock(block);
    if (report.passed(traceHash("hub not configured for its error status"), 1283, 1207)) {
        unsigned int length = 1;
        kest_wobuRead(handle, errl, &length, &status, 0);
        kest_resetSilentHub(errl, path, handle, hubAddress);
    }
    // 15: the hub has just come out of reset
    if (status != 0) {
        kest_setReturnCode(report.details, (status == 15 ? kest_classHubRefused : kest_classHubFailed) |
                                               (errl != nullptr ? errl->getRC() : 0U));
    }
    if (!report.noted(1283)) {
        kest_requestSrc(report.details, queryRoutine.module, KEST_REASON_HUB_QUERY, EPUB_SUBSYSTEM_IIC_DEVICE, status);
        kest_addCallout(report.details);
    }
    report.finish();
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
        KEST_TRACE_AT(1125, traceHash("hub without further error"), "", name);
    }
}

} // namespace kest
