#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "kestattribute.h"
#include "kestdevicetypes.h"
#include "kestfailure.h"
#include "kesthubsupport.h"
#include "kestmisc.h"
#include "kestseeprom.h"
#include "kestsession.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestseeprom";

/// Failure sites of a transfer's steps.
struct stepSites {
    std::uint32_t hub, open, block, speed, seek;
};
constexpr stepSites readSites{.hub = 609, .open = 633, .block = 652, .speed = 670, .seek = 708};
constexpr stepSites writeSites{.hub = 1327, .open = 1348, .block = 1367, .speed = 1385, .seek = 1400};

/// Failure sites of what follows them.
struct endSites {
    std::uint32_t transfer, retry, close;
};
constexpr endSites readEnds{.transfer = 751, .retry = 744, .close = 770};
constexpr endSites writeEnds{.transfer = 1441, .retry = 1435, .close = 1470};

/// One direction of transfer.
struct direction {
    routine self;
    bool read;
    int operation; ///< of the hub support and the retry
    const stepSites& at;
    const endSites& end;
};
constexpr routine readRoutine{"kest_seepromHardwareRead", KEST_MODULE_HARDWARE_READ, sourceId};
constexpr routine writeRoutine{"kest_seepromHardwareWrite", KEST_MODULE_HARDWARE_WRITE, sourceId};
constexpr direction reading{.self = readRoutine, .read = true, .operation = 0, .at = readSites, .end = readEnds};
constexpr direction writing{.self = writeRoutine, .read = false, .operation = 1, .at = writeSites, .end = writeEnds};

/// Text of a location field, which has no terminator when it fills the field.
class locationText
{
public:
    explicit locationText(const tavo_deviceaddress& address)
    {
        if (std::memchr(address.location, '\0', sizeof address.location) == nullptr) {
            std::memcpy(m_copy, address.location, sizeof address.location);
            m_copy[sizeof address.location] = '\0';
            m_text = m_copy;
        } else {
            m_text = address.location;
        }
    }
    locationText(const locationText&) = delete;
    locationText& operator=(const locationText&) = delete;
    const char* text() const { return m_text; }

private:
    // set only when it is needed
    char m_copy[sizeof(tavo_deviceaddress::location) + 1];
    const char* m_text;
};

struct seepromTransfer {
    const direction& way;
    ErrlEntry*& error;
    const tavo_deviceaddress& address;
    unsigned int offset;
    const kest_attributeValue* attributes;
    locationText location{address};
    reportedCall report{way.self, error, 0};
    iicSession session{error};
    kest_deviceInfo device{};
    unsigned int lengthWanted = 0;
    unsigned int lengthMoved = 0;
    std::unique_ptr<kest_deviceAddress[]> flatList{}; ///< attached to the details, freed after they are logged
};

const deviceType& targetType(const seepromTransfer& transfer)
{
    return kest_typeOf(kest_lastNode(transfer.device.addressList)->type);
}

/// Attaches the flattened chain, or traces that there is none.
void attachChain(seepromTransfer& transfer)
{
    unsigned int bytes = 0;
    transfer.flatList.reset(KEST_flattenAddressList(transfer.device.addressList, &bytes));
    if (transfer.flatList != nullptr) {
        kest_attachUserDetails(transfer.report.details, transfer.flatList.get(), bytes, kest_dtlsAddressList, false);
    } else {
        KEST_TRACE(traceHash("no flat address list"), "", transfer.way.self.name);
    }
}

bool understandLocation(seepromTransfer& transfer)
{
    char* const wrong = kest_miscConvertTokensToAddress(&transfer.device, transfer.location.text());
    if (wrong != nullptr) {
        KEST_TRACE(traceHash("location not understood"), ",%s", transfer.way.self.name, wrong);
        transfer.report.describe(KEST_REASON_TEXT_MALFORMED);
        kest_attachText(transfer.report.details, wrong, kest_dtlsDeviceText, true);
    }
    return wrong == nullptr;
}

bool checkChain(seepromTransfer& transfer)
{
    const std::uint32_t code = kest_checkAddressList(transfer.device.addressList);
    if (code != 0) {
        KEST_TRACE(traceHash("chain invalid"), ",%x", transfer.way.self.name, code);
        transfer.report.describe(KEST_REASON_CHAIN_INVALID, code);
        attachChain(transfer);
    }
    return code == 0;
}

bool checkType(seepromTransfer& transfer)
{
    const deviceType& type = targetType(transfer);
    if (type.capacity == 0) {
        KEST_TRACE(traceHash("not a SEEPROM"), ",%x", transfer.way.self.name, static_cast<std::uint32_t>(type.type));
        transfer.report.describe(KEST_REASON_NO_SEEPROM, type.type);
    }
    return type.capacity != 0;
}

bool understandDevice(seepromTransfer& transfer)
{
    return understandLocation(transfer) && checkChain(transfer) && checkType(transfer);
}

/// Ends a step: traces a failure with its site and notes it.
/// @param done  true when there is no entry
bool passed(seepromTransfer& transfer, bool done, std::uint32_t site)
{
    if (!done) {
        KEST_TRACE(traceHash("transfer step failed"), ",%d", transfer.way.self.name, site);
        transfer.report.site = site;
    }
    return done;
}
bool passed(seepromTransfer& transfer, std::uint32_t site) { return passed(transfer, transfer.error == nullptr, site); }

bool setBlock(seepromTransfer& transfer)
{
    mern_iic_block block;
    kest_wobuBuildConfig(transfer.device.addressList, transfer.lengthWanted, transfer.way.read, &block,
                         transfer.attributes, 0);
    return transfer.session.setBlock(block);
}

/// Opens and configures the device and sets the position. A layer that refuses the DMA option ends a read as a success.
bool prepare(seepromTransfer& transfer)
{
    const direction& way = transfer.way;
    iicSession& session = transfer.session;
    return passed(transfer, session.open(transfer.device), way.at.open) &&
           passed(transfer, setBlock(transfer), way.at.block) &&
           passed(transfer, session.setSpeed(transfer.attributes[KEST_ATTR_BUS_SPEED]), way.at.speed) &&
           (!way.read || session.setDmaOption()) &&
           passed(transfer, transfer.offset == 0 || session.seek(transfer.offset), way.at.seek);
}

/// After the transfer. Only a time-out is retried, once, after a bus reset.
void retryTimeout(seepromTransfer& transfer, void* buffer)
{
    if (kest_failedErrno(transfer.error) != static_cast<std::uint32_t>(ETIME)) {
        passed(transfer, transfer.way.end.transfer);
        return;
    }
    KEST_TRACE(traceHash("transfer timed out"), ",%d", transfer.way.self.name, ETIME);
    transfer.lengthMoved = transfer.lengthWanted;
    kest_wobuResetRetry(transfer.session.handle, transfer.error, &transfer.lengthMoved, buffer, transfer.way.operation);
    passed(transfer, transfer.way.end.retry);
}

/// Reads or writes, through the hub when the chain begins with one.
void moveData(seepromTransfer& transfer, void* buffer)
{
    const direction& way = transfer.way;
    mern_t& handle = transfer.session.handle;
    if (transfer.device.addressList->type == KEST_DEV_922HUB) {
        kest_922HubSupport(&transfer.device, &transfer.lengthMoved, way.operation, &buffer, transfer.offset,
                           transfer.attributes, transfer.error, transfer.location.text());
        passed(transfer, way.at.hub);
        return;
    }
    if (!prepare(transfer)) {
        return;
    }
    if (way.read) {
        kest_wobuRead(handle, transfer.error, &transfer.lengthMoved, buffer, 1);
    } else {
        kest_wobuWrite(handle, transfer.error, &transfer.lengthMoved, buffer);
    }
    retryTimeout(transfer, buffer);
    if (!way.read && transfer.error == nullptr) {
        // the last page's write cycle, ms to us
        usleep(transfer.attributes[KEST_ATTR_WRITE_CYCLE] * 1000);
    }
}

bool takeBuffer(seepromTransfer& transfer, unsigned int length, unsigned char** data)
{
    const unsigned int wanted = length != 0 ? length : targetType(transfer).capacity;
    *data = static_cast<unsigned char*>(tavo_malloc(wanted));
    if (*data == nullptr) {
        KEST_TRACE(traceHash("no memory"), ",%x", transfer.way.self.name, wanted);
        transfer.report.describe(KEST_REASON_MISSING, wanted);
        return false;
    }
    transfer.lengthWanted = transfer.lengthMoved = wanted;
    return true;
}

/// A failing close gets an entry of its own, which never reaches the caller.
void closeDevice(seepromTransfer& transfer)
{
    ErrlEntry* closeError = transfer.session.close();
    if (closeError != nullptr) {
        transfer.report.site = transfer.way.end.close;
        KEST_TRACE(traceHash("close failed"), ",%x", transfer.way.self.name, closeError->getRC());
        kest_commitSecondary(closeError);
    }
}

/// The end of both directions: sets the length, closes, adds the chain to the entry of a failed transfer, and logs.
void finish(seepromTransfer& transfer, unsigned int* length)
{
    // With an entry: the layer's count, unchanged. Without one: at most the buffer's size, since a failure that was
    // committed can leave any count and a hub one that is too high
    *length = transfer.error == nullptr ? std::min(transfer.lengthMoved, transfer.lengthWanted) : transfer.lengthMoved;
    closeDevice(transfer);
    if (transfer.error != nullptr) {
        attachChain(transfer);
        KEST_TRACE(traceHash("transfer failed"), ",%s,%x,%x,%x,%x", transfer.way.self.name, transfer.location.text(),
                   transfer.address.number, transfer.lengthWanted, *length, transfer.offset);
    }
    kest_miscReleaseDeviceInfo(transfer.device);
    transfer.report.finish();
    const kest_errorDetails& details = transfer.report.details;
    if (details.usrDtlsInUse != 0 && details.usrDtlsOwned != 0) {
        // without memory there is no entry that has taken it
        delete[] details.usrDtlsData;
    }
}

constexpr routine retryRoutine{"kest_wobuResetRetry", KEST_MODULE_RESET_RETRY, sourceId};
constexpr std::uint32_t retrySite = 1641;
constexpr std::uint32_t timeoutBehindHub = 1200; ///< ms for each 256 bytes

bool resetBus(mern_t& handle, ErrlEntry*& error)
{
    const int result = mern_iic_reset(handle, MERN_RESET_BUS);
    const int reason = errno;
    if (result < 0) {
        failureReport report{retryRoutine, error};
        KEST_TRACE(traceHash("bus reset failed"), ",%d", retryRoutine.name, reason);
        report.describe(KEST_REASON_BUS_RESET, static_cast<std::uint32_t>(reason));
        report.finish();
        kest_miscExtractFFDCAndUnlock(error, handle);
    }
    return result >= 0;
}

void repeatTransfer(mern_t handle, ErrlEntry*& error, unsigned int* length, void* buffer, int operation)
{
    unsigned int count = *length;
    if (operation == 0) {
        kest_wobuRead(handle, error, &count, buffer, 1);
    } else if (operation == 1) {
        kest_wobuWrite(handle, error, &count, buffer);
    }
    if (error != nullptr) {
        KEST_TRACE(traceHash("retry failed"), ",%d", retryRoutine.name, operation);
    }
    *length = count;
}

} // namespace

std::uint32_t kest_timeoutCalc(const kest_deviceAddress* chain, unsigned int length, bool read,
                               const kest_attributeValue* attributes)
{
    const std::uint32_t speed = attributes[KEST_ATTR_BUS_SPEED];
    const std::uint32_t factor = attributes[KEST_ATTR_TIMEOUT_FACTOR];
    const std::uint32_t blockTime = speed == 400 ? 16 : 64;
    if (chain == nullptr) {
        KEST_TRACE(traceHash("time-out of no chain"), "", "kest_timeoutCalc");
        return blockTime;
    }
    if (chain->next != nullptr) {
        return std::max(length / 256, 1u) * timeoutBehindHub;
    }
    const std::uint32_t pageSize = read ? 0 : kest_pageSize(chain->type);
    std::uint32_t base = std::max(length, 32u) / 32 * blockTime;
    if (pageSize != 0) {
        base += std::max(pageSize, length) / pageSize * attributes[KEST_ATTR_WRITE_CYCLE];
    }
    switch (attributes[KEST_ATTR_TRANSFER_MODE]) {
    case 1:
        return (2 * base + 1000) * factor;
    case 2:
        return base * factor;
    default:
        return (base * (speed / 100) + 2 * base + 2000) * factor;
    }
}

void kest_wobuResetRetry(mern_t& handle, ErrlEntry*& error, unsigned int* length, void* buffer, int operation)
{
    reportedCall report{retryRoutine, error};
    ErrlEntry* retryError = nullptr;
    const bool reset = resetBus(handle, retryError);
    if (reset) {
        repeatTransfer(handle, retryError, length, buffer, operation);
    }
    if (retryError != nullptr) {
        kest_attachSoftwareError(report.details, retryError->getRC(), retryRoutine.module, retrySite);
        kest_mergeFirstSrc(*error, *retryError);
        KEST_TRACE(traceHash("not rescued"), ",%x", retryRoutine.name, retryError->getRC());
        delete retryError;
    } else if (!reset) {
        // the reset failed, without memory for its entry: the transfer was not repeated
        kest_attachSoftwareError(report.details, kest_classFailure | KEST_REASON_BUS_RESET, retryRoutine.module,
                                 retrySite);
    } else {
        error->setSev(ERRL_SEV_RECOVERED);
        error->commit(kest_component, ERRL_ACTION_KEEP_FOR_SERVICE);
        KEST_TRACE(traceHash("rescued by a bus reset"), ",%x", retryRoutine.name, error->getRC());
        delete error;
        error = nullptr;
    }
    report.finish();
}

void kest_seepromHardwareRead(ErrlEntry*& error, tavo_deviceaddress address, unsigned int offset, unsigned int* length,
                              unsigned char** data, const kest_attributeValue* attributes)
{
    seepromTransfer transfer{reading, error, address, offset, attributes};
    if (understandDevice(transfer) && takeBuffer(transfer, *length, data)) {
        moveData(transfer, *data);
    }
    finish(transfer, length);
}

void kest_seepromHardwareWrite(ErrlEntry*& error, tavo_deviceaddress address, unsigned int offset, unsigned int* length,
                               const unsigned char* data, const kest_attributeValue* attributes)
{
    seepromTransfer transfer{writing, error, address, offset, attributes};
    transfer.lengthWanted = transfer.lengthMoved = *length;
    if (understandDevice(transfer)) {
        // hub support and retry take one buffer for both directions; a write only reads it
        moveData(transfer, const_cast<unsigned char*>(data));
    }
    finish(transfer, length);
}

} // namespace kest
