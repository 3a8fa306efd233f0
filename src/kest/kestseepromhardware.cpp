#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "kestattribute.h"
#include "kesterrorlog.h"
#include "kesthubsupport.h"
#include "kestmisc.h"
#include "kestseeprom.h"
#include "kesttrace.h"
#include "kestwobu.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestseeprom";

/// One direction of transfer: who reports its failures, and the mark that each failing step leaves in the entry.
struct direction {
    const char* name;
    std::uint32_t moduleId;
    bool read;
    int operation; ///< of the hub support and the retry
    std::uint32_t hubMark;
    std::uint32_t openMark;
    std::uint32_t blockMark;
    std::uint32_t speedMark;
    std::uint32_t seekMark;
    std::uint32_t retryMark;
    std::uint32_t transferMark;
    std::uint32_t closeMark;
};
constexpr direction reading{"kest_seepromHardwareRead", 15, true, 0, 609, 633, 652, 670, 708, 744, 751, 770};
constexpr direction writing{"kest_seepromHardwareWrite", 17, false, 1, 1327, 1348, 1367, 1385, 1400, 1435, 1441, 1470};

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
    // left unset unless it is needed
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
    kest_errorDetails details{};
    kest_deviceInfo device{};
    unsigned int lengthWanted = 0;
    unsigned int lengthMoved = 0;
    std::unique_ptr<kest_deviceAddress[]> flatList{}; ///< attached to the details, freed after they are logged
    std::uint32_t mark = 0; ///< the step that failed last
    bool opened = false;
    mern_t handle = MERN_INVALID;
};

void fail(seepromTransfer& transfer, std::uint32_t reason, std::uint32_t userData1 = 0)
{
    kest_describeFailure(transfer.details, transfer.way.moduleId, reason, userData1);
}

/// Attaches the flattened chain, or traces that there is none.
void attachChain(seepromTransfer& transfer)
{
    unsigned int bytes = 0;
    transfer.flatList.reset(KEST_flattenAddressList(transfer.device.addressList, &bytes));
    if (transfer.flatList != nullptr) {
        kest_attachUserDetails(transfer.details, transfer.flatList.get(), bytes, kest_dtlsAddressList, false);
    } else {
        trace_wobu_write_all(kest_trace, traceHash("no flat address list"), " %s", __LINE__, 0, transfer.way.name);
    }
}

bool understandLocation(seepromTransfer& transfer)
{
    char* const wrong = kest_miscConvertTokensToAddress(&transfer.device, transfer.location.text());
    if (wrong != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("location not understood"), " %s,%s", __LINE__, 0, transfer.way.name,
                             wrong);
        fail(transfer, 0x1315);
        kest_attachUserDetails(transfer.details, wrong, static_cast<std::uint32_t>(std::strlen(wrong)),
                               kest_dtlsDeviceText, true);
    }
    return wrong == nullptr;
}

bool checkChain(seepromTransfer& transfer)
{
    const std::uint32_t code = kest_checkAddressList(transfer.device.addressList);
    if (code != 0) {
        trace_wobu_write_all(kest_trace, traceHash("chain invalid"), " %s,%x", __LINE__, 0, transfer.way.name, code);
        fail(transfer, 0x1302, code);
        attachChain(transfer);
    }
    return code == 0;
}

bool checkType(seepromTransfer& transfer)
{
    const kest_deviceType type = kest_lastNode(transfer.device.addressList)->type;
    const bool served = kest_isSeeprom(type) || type == KEST_DEV_172;
    if (!served) {
        trace_wobu_write_all(kest_trace, traceHash("not a SEEPROM"), " %s,%x", __LINE__, 0, transfer.way.name,
                             static_cast<std::uint32_t>(type));
        fail(transfer, 0x1330, type);
    }
    return served;
}

bool understandDevice(seepromTransfer& transfer)
{
    return understandLocation(transfer) && checkChain(transfer) && checkType(transfer);
}

/// Traces and marks a step when it left an error. @return whether it succeeded
bool stepDone(seepromTransfer& transfer, std::uint32_t mark)
{
    if (transfer.error != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("transfer step failed"), " %s,%d", __LINE__, 0, transfer.way.name,
                             mark);
        transfer.mark = mark;
    }
    return transfer.error == nullptr;
}

bool headIsHub(const seepromTransfer& transfer) { return transfer.device.addressList->type == KEST_DEV_922HUB; }

bool openDevice(seepromTransfer& transfer)
{
    kest_wobuOpen(transfer.handle, transfer.error, transfer.device.devicePath, transfer.device.nodeName);
    transfer.opened = stepDone(transfer, transfer.way.openMark);
    return transfer.opened;
}

bool configureBlock(seepromTransfer& transfer)
{
    kest_iicConfigBlock block;
    kest_wobuBuildConfig(transfer.device.addressList, transfer.lengthWanted, transfer.way.read, &block,
                         transfer.attributes, 0);
    kest_wobuConfig(transfer.handle, transfer.error, kest_configSet, WOBU_IIC_BLOCK, &block, sizeof block);
    return stepDone(transfer, transfer.way.blockMark);
}

bool configureSpeed(seepromTransfer& transfer)
{
    kest_attributeValue speed = transfer.attributes[KEST_ATTR_BUS_SPEED];
    kest_wobuConfig(transfer.handle, transfer.error, kest_configSet, WOBU_IIC_SPEED, &speed, sizeof speed);
    return stepDone(transfer, transfer.way.speedMark);
}

/// The layer's DMA option. A refusal ends the read as a success, with nothing but a line on standard error.
bool configureDma(seepromTransfer& transfer)
{
    std::uint32_t value = 2;
    const bool accepted = mern_iic_config(transfer.handle, kest_configSet, WOBU_IIC_DMA_OPTION, &value, 4) == 0;
    if (!accepted) {
        std::fprintf(stderr, "DMA workaround error\n");
    }
    return accepted;
}

bool seek(seepromTransfer& transfer)
{
    if (transfer.offset != 0) {
        // unsigned to long: a position with its top bit set is a large one
        kest_wobuSeek(transfer.handle, transfer.error, static_cast<long>(transfer.offset), 0);
    }
    return stepDone(transfer, transfer.way.seekMark);
}

/// What follows the one transfer: a time-out, and nothing else, is worth a bus reset and a second attempt.
void retryTimeout(seepromTransfer& transfer, void* buffer)
{
    if (kest_failedErrno(transfer.error) == static_cast<std::uint32_t>(ETIME)) {
        trace_wobu_write_all(kest_trace, traceHash("transfer timed out"), " %s,%d", __LINE__, 0, transfer.way.name,
                             ETIME);
        transfer.lengthMoved = transfer.lengthWanted;
        kest_wobuResetRetry(transfer.handle, transfer.error, &transfer.lengthMoved, buffer, transfer.way.operation);
        stepDone(transfer, transfer.way.retryMark);
    } else {
        stepDone(transfer, transfer.way.transferMark);
    }
}

void readDevice(seepromTransfer& transfer, unsigned char* buffer)
{
    if (openDevice(transfer) && configureBlock(transfer) && configureSpeed(transfer) && configureDma(transfer) &&
        seek(transfer)) {
        kest_wobuRead(transfer.handle, transfer.error, &transfer.lengthMoved, buffer, 1);
        retryTimeout(transfer, buffer);
    }
}

void writeDevice(seepromTransfer& transfer, void* data)
{
    if (openDevice(transfer) && configureBlock(transfer) && configureSpeed(transfer) && seek(transfer)) {
        kest_wobuWrite(transfer.handle, transfer.error, &transfer.lengthMoved, data);
        retryTimeout(transfer, data);
        if (transfer.error == nullptr) {
            // the last page's write cycle, ms to us
            usleep(transfer.attributes[KEST_ATTR_WRITE_CYCLE] * 1000);
        }
    }
}

/// The whole transfer, when the chain begins with a 922 hub.
void transferThroughHub(seepromTransfer& transfer, void* buffer)
{
    kest_922HubSupport(&transfer.device, &transfer.lengthMoved, transfer.way.operation, &buffer, transfer.offset,
                       transfer.attributes, transfer.error, transfer.location.text());
    stepDone(transfer, transfer.way.hubMark);
}

/// What the caller is told. Beside an entry it is the layer's own count, whatever that is. Without one the caller goes
/// by it, and it stays within the buffer: a failure that was committed below leaves any count, and
/// a hub's can be one too high.
unsigned int lengthToTell(const seepromTransfer& transfer)
{
    return transfer.error == nullptr ? std::min(transfer.lengthMoved, transfer.lengthWanted) : transfer.lengthMoved;
}

/// Capacity in bytes: the type's low 16 bits are decimal digits that count kilobits.
unsigned int capacityOf(kest_deviceType type)
{
    unsigned int kilobits = 0;
    for (int shift = 12; shift >= 0; shift -= 4) {
        kilobits = kilobits * 10 + ((static_cast<unsigned int>(type) >> shift) & 0xF);
    }
    return kilobits * 128;
}

bool takeBuffer(seepromTransfer& transfer, unsigned int length, unsigned char** data)
{
    const unsigned int wanted = length != 0 ? length : capacityOf(kest_lastNode(transfer.device.addressList)->type);
    *data = static_cast<unsigned char*>(tavo_malloc(wanted));
    if (*data != nullptr) {
        transfer.lengthWanted = wanted;
        transfer.lengthMoved = wanted;
    } else {
        trace_wobu_write_all(kest_trace, traceHash("no memory"), " %s,%x", __LINE__, 0, transfer.way.name, wanted);
        fail(transfer, 0x132B, wanted);
    }
    return *data != nullptr;
}

/// A failing close gets an entry of its own, which never reaches the caller.
void closeDevice(seepromTransfer& transfer)
{
    if (transfer.opened) {
        ErrlEntry* closeError = nullptr;
        kest_wobuClose(transfer.handle, closeError);
        if (closeError != nullptr) {
            transfer.mark = transfer.way.closeMark;
            trace_wobu_write_all(kest_trace, traceHash("close failed"), " %s,%x", __LINE__, 0, transfer.way.name,
                                 closeError->getRC());
            kest_commitSecondary(closeError);
        }
    }
}

/// Adds what the caller of a failed transfer wants to know, and logs. An entry that is made only here carries its own
/// description.
void finish(seepromTransfer& transfer, unsigned int lengthWanted, unsigned int lengthMoved)
{
    if (transfer.error != nullptr) {
        attachChain(transfer);
        trace_wobu_write_all(kest_trace, traceHash("transfer failed"), " %s,%s,%x,%x,%x,%x", __LINE__, 0,
                             transfer.way.name, transfer.location.text(), transfer.address.number, lengthWanted,
                             lengthMoved, transfer.offset);
        kest_attachSoftwareError(transfer.details, transfer.error->getRC(), transfer.way.moduleId, transfer.mark);
    }
    kest_miscReleaseDeviceInfo(transfer.device);
    kest_logError(transfer.error, &transfer.details, sourceId);
    if (transfer.details.usrDtlsInUse != 0 && transfer.details.usrDtlsOwned != 0) {
        // no memory for an entry that would have taken it
        delete[] transfer.details.usrDtlsData;
    }
}

constexpr char retryName[] = "kest_wobuResetRetry";
constexpr std::uint32_t retryModule = 31;
constexpr std::uint32_t retrySite = 1641;
constexpr std::uint32_t resetReason = 0x1328;
constexpr std::uint32_t timeoutBehindHub = 1200; ///< ms for each 256 bytes

bool resetBus(mern_t& handle, ErrlEntry*& error)
{
    const int result = mern_iic_reset(handle, 1);
    const int reason = errno;
    if (result < 0) {
        kest_errorDetails details{};
        trace_wobu_write_all(kest_trace, traceHash("bus reset failed"), " %s,%d", __LINE__, 0, retryName, reason);
        kest_describeFailure(details, retryModule, resetReason, static_cast<std::uint32_t>(reason));
        kest_logError(error, &details, sourceId);
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
        trace_wobu_write_all(kest_trace, traceHash("retry failed"), " %s,%d", __LINE__, 0, retryName, operation);
    }
    *length = count;
}

} // namespace

std::uint32_t kest_timeoutCalc(const kest_deviceAddress* chain, unsigned int length, bool read,
                               const kest_attributeValue* attributes)
{
    const std::uint32_t speed = attributes[KEST_ATTR_BUS_SPEED];
    const std::uint32_t blockTime = speed == 400 ? 16 : 64;
    std::uint32_t result = blockTime;
    if (chain == nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("time-out of no chain"), " %s", __LINE__, 0, "kest_timeoutCalc");
    } else if (chain->next != nullptr) {
        result = std::max(length / 256, 1u) * timeoutBehindHub;
    } else {
        const std::uint32_t pageSize = read ? 0 : kest_pageSize(chain->type);
        std::uint32_t base = std::max(length, 32u) / 32 * blockTime;
        if (pageSize != 0) {
            base += std::max(pageSize, length) / pageSize * attributes[KEST_ATTR_WRITE_CYCLE];
        }
        switch (attributes[KEST_ATTR_TRANSFER_MODE]) {
        case 1:
            result = 2 * base + 1000;
            break;
        case 2:
            result = base;
            break;
        default:
            result = base * (speed / 100) + 2 * base + 2000;
            break;
        }
        result *= attributes[KEST_ATTR_TIMEOUT_FACTOR];
    }
    return result;
}

void kest_wobuResetRetry(mern_t& handle, ErrlEntry*& error, unsigned int* length, void* buffer, int operation)
{
    const traceScope scope(retryName);
    kest_errorDetails details{};
    ErrlEntry* retryError = nullptr;
    const bool reset = resetBus(handle, retryError);
    if (reset) {
        repeatTransfer(handle, retryError, length, buffer, operation);
    }
    if (retryError != nullptr) {
        kest_attachSoftwareError(details, retryError->getRC(), retryModule, retrySite);
        kest_mergeFirstSrc(*error, *retryError);
        trace_wobu_write_all(kest_trace, traceHash("not rescued"), " %s,%x", __LINE__, 0, retryName,
                             retryError->getRC());
        delete retryError;
    } else if (!reset) {
        // and no memory for an entry that says so: the transfer was not repeated all the same
        kest_attachSoftwareError(details, 0x80000000 | resetReason, retryModule, retrySite);
    } else {
        error->setSev(ERRL_SEV_RECOVERED);
        error->commit(kest_component, ERRL_ACTION_KEEP_FOR_SERVICE);
        trace_wobu_write_all(kest_trace, traceHash("rescued by a bus reset"), " %s,%x", __LINE__, 0, retryName,
                             error->getRC());
        delete error;
        error = nullptr;
    }
    kest_logError(error, &details, sourceId);
}

void kest_seepromHardwareRead(ErrlEntry*& error, tavo_deviceaddress address, unsigned int offset, unsigned int* length,
                              unsigned char** data, const kest_attributeValue* attributes)
{
    const traceScope scope(reading.name);
    seepromTransfer transfer{reading, error, address, offset, attributes};
    if (understandDevice(transfer) && takeBuffer(transfer, *length, data)) {
        if (headIsHub(transfer)) {
            transferThroughHub(transfer, *data);
        } else {
            readDevice(transfer, *data);
        }
    }
    // 0 when a check failed
    *length = lengthToTell(transfer);
    closeDevice(transfer);
    finish(transfer, transfer.lengthWanted, *length);
}

void kest_seepromHardwareWrite(ErrlEntry*& error, tavo_deviceaddress address, unsigned int offset, unsigned int* length,
                               const unsigned char* data, const kest_attributeValue* attributes)
{
    const traceScope scope(writing.name);
    seepromTransfer transfer{writing, error, address, offset, attributes};
    transfer.lengthWanted = transfer.lengthMoved = *length;
    if (understandDevice(transfer)) {
        // hub support and retry take one buffer for both directions; a write only reads it
        auto* const bytes = const_cast<unsigned char*>(data);
        if (headIsHub(transfer)) {
            transferThroughHub(transfer, bytes);
        } else {
            writeDevice(transfer, bytes);
        }
    }
    *length = lengthToTell(transfer);
    closeDevice(transfer);
    finish(transfer, transfer.lengthWanted, *length);
}

} // namespace kest
