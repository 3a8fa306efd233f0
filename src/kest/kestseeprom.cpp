#include "kestseeprom.h"

#include "kestattribute.h"
#include "kestfailure.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestseeprom";
constexpr routine readRoutine{"KEST_seepromRead", KEST_MODULE_SEEPROM_READ, sourceId};
constexpr routine writeRoutine{"KEST_seepromWrite", KEST_MODULE_SEEPROM_WRITE, sourceId};
constexpr char persistencyRoot[] = "qorn/P3_Root";

/// The software error of a hardware failure names the read's module in both directions.
constexpr std::uint32_t hardwareModule = KEST_MODULE_SEEPROM_READ;
constexpr std::uint32_t hardwareReadSite = 369;
constexpr std::uint32_t hardwareWriteSite = 1097;

/// One call: how it goes, and what is known of its failure.
struct seepromCall {
    failureReport& report;
    const tavo_deviceaddress& address;
    unsigned int offset;
    unsigned int* length;
    const kest_attributeValue* attributes;
    unsigned int mode;

    ErrlEntry*& entry = report.entry;
    std::uint32_t device = address.number;
};

unsigned int modeOf(kest_attributeValue selector)
{
    switch (selector) {
    case 1:
    case 2:
        return kest_detectMode(selector);
    case 3:
        return kest_modeFile;
    case 5:
        return kest_modeMixed;
    default:
        return kest_modeHardware;
    }
}

void describeCopyFailure(seepromCall& call, kest_reason reason, std::uint32_t userData2, std::uint32_t userData3)
{
    kest_requestSrc(call.report.details, call.report.self.module, reason, EPUB_SUBSYSTEM_SOFTWARE, call.device,
                    userData2, userData3, call.mode);
    kest_setReturnCode(call.report.details, kest_classFailure | reason);
}

/// In file mode, reports a missing copy. The code is informational.
void checkCopy(seepromCall& call, unsigned int length)
{
    if (length == 0 && call.mode == kest_modeFile) {
        KEST_TRACE(traceHash("no persisted copy"), ",%x", call.report.self.name, call.device);
        kest_requestSrc(call.report.details, call.report.self.module, KEST_REASON_COPY_ABSENT, EPUB_SUBSYSTEM_SOFTWARE,
                        call.device);
        kest_setReturnCode(call.report.details, kest_classInformational | KEST_REASON_COPY_ABSENT);
    }
}

void describeHardwareFailure(seepromCall& call, std::uint32_t site)
{
    if (call.entry != nullptr) {
        kest_errorDetails& details = call.report.details;
        kest_attachSoftwareError(details, call.entry->getRC(), hardwareModule, site);
        if (call.mode == kest_modeHardware && call.device != 0) {
            kest_attachFruCallout(details, call.device);
        }
        kest_addCallout(details, EPUB_PROCEDURE_SOFTWARE);
        kest_addCallout(details, EPUB_PROCEDURE_IIC);
    }
}

std::uint32_t lowWordOf(const void* pointer)
{
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pointer));
}

void freeBuffer(void* buffer) { tavo_util_free(&buffer); }

void readCopy(seepromCall& call, unsigned char** data)
{
    call.entry = tavo_read_data_persistancy(persistencyRoot, call.device, nullptr, data, call.length, call.offset);
    if (call.entry != nullptr) {
        KEST_TRACE(traceHash("persisted copy not read"), ",%x", readRoutine.name, call.device);
        describeCopyFailure(call, KEST_REASON_COPY_UNREAD, *call.length, call.offset);
    } else {
        checkCopy(call, *call.length);
    }
}

void readInMode(seepromCall call, unsigned char** data)
{
    if (call.mode != kest_modeHardware) {
        readCopy(call, data);
        if (call.entry != nullptr || call.mode != kest_modeMixed || *call.length != 0) {
            return;
        }
    }
    // the copy's reader left an empty buffer
    if (*data != nullptr) {
        freeBuffer(*data);
        *data = nullptr;
    }
    kest_seepromHardwareRead(call.entry, call.address, call.offset, call.length, data, call.attributes);
    describeHardwareFailure(call, hardwareReadSite);
}

/// Asks for one byte of the persisted copy. @return whether there is one
bool probeCopy(seepromCall& call)
{
    unsigned int probeLength = 1;
    unsigned char* probe = nullptr;
    call.entry = tavo_read_data_persistancy(persistencyRoot, call.device, nullptr, &probe, &probeLength, 0);
    if (call.entry != nullptr) {
        KEST_TRACE(traceHash("persisted copy not probed"), ",%x", writeRoutine.name, call.device);
        describeCopyFailure(call, KEST_REASON_COPY_UNREAD, 0, 0);
    } else {
        checkCopy(call, probeLength);
    }
    if (probe != nullptr) {
        freeBuffer(probe);
    }
    return probeLength != 0;
}

void writeCopy(seepromCall& call, const unsigned char* data)
{
    call.entry = tavo_write_data_persistancy(persistencyRoot, call.device, nullptr, data, call.length, call.offset);
    if (call.entry != nullptr) {
        KEST_TRACE(traceHash("persisted copy not written"), ",%x", writeRoutine.name, call.device);
        describeCopyFailure(call, KEST_REASON_COPY_UNWRITTEN, *call.length, call.offset);
    }
}

void writeInMode(seepromCall call, const unsigned char* data)
{
    if (call.mode != kest_modeHardware) {
        const bool found = probeCopy(call);
        if (call.entry == nullptr && found) {
            writeCopy(call, data);
        }
        if (call.entry != nullptr || call.mode != kest_modeMixed || found) {
            return;
        }
    }
    kest_seepromHardwareWrite(call.entry, call.address, call.offset, call.length, data, call.attributes);
    describeHardwareFailure(call, hardwareWriteSite);
}

} // namespace

ErrlEntry* KEST_seepromRead(tavo_deviceaddress address, const char* /*spare*/, unsigned int offset,
                            unsigned int* length, unsigned char** data, const kest_attributeValue* attributes)
{
    reportedCall report{readRoutine};
    if (data != nullptr && *data != nullptr) {
        report.fail(traceHash("buffer pointer in use"), KEST_REASON_POINTER_IN_USE);
    } else if (length == nullptr || data == nullptr) {
        KEST_TRACE(traceHash("null argument"), ",%d,%d", readRoutine.name, length == nullptr, data == nullptr);
        report.describe(KEST_REASON_MISSING);
    } else {
        const kest_attributeValue* const values = kest_attributesOrDefaults(attributes);
        readInMode({report, address, offset, length, values, modeOf(values[KEST_ATTR_READ_MODE])}, data);
    }
    return report.finish();
}

ErrlEntry* KEST_seepromWrite(tavo_deviceaddress address, const char* /*spare*/, unsigned int offset,
                             unsigned int* length, const unsigned char* data, const kest_attributeValue* attributes)
{
    reportedCall report{writeRoutine};
    if (length == nullptr || data == nullptr) {
        KEST_TRACE(traceHash("null argument"), ",%d,%d", writeRoutine.name, length == nullptr, data == nullptr);
        report.describe(KEST_REASON_MISSING, lowWordOf(length), lowWordOf(data));
    } else {
        const kest_attributeValue* const values = kest_attributesOrDefaults(attributes);
        writeInMode({report, address, offset, length, values, modeOf(values[KEST_ATTR_READ_MODE])}, data);
    }
    return report.finish();
}

} // namespace kest
