#include "kestseeprom.h"

#include "kestattribute.h"
#include "kesterrorlog.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestseeprom";
constexpr char readName[] = "KEST_seepromRead";
constexpr char writeName[] = "KEST_seepromWrite";
constexpr char persistencyRoot[] = "qorn/P3_Root";

constexpr std::uint32_t readModule = 6;
constexpr std::uint32_t writeModule = 7;

/// The software error of a hardware failure names module 6 in both directions.
constexpr std::uint32_t hardwareModule = 6;
constexpr std::uint32_t hardwareReadSite = 369;
constexpr std::uint32_t hardwareWriteSite = 1097;

unsigned int modeOf(kest_attributeValue selector)
{
    unsigned int mode = kest_modeHardware;
    switch (selector) {
    case 1:
    case 2:
        mode = kest_detectMode(selector);
        break;
    case 3:
        mode = kest_modeFile;
        break;
    case 5:
        mode = kest_modeMixed;
        break;
    default:
        break;
    }
    return mode;
}

void describeCopyFailure(kest_errorDetails& details, std::uint32_t moduleId, std::uint32_t reason, std::uint32_t device,
                         std::uint32_t userData2, std::uint32_t userData3, unsigned int mode)
{
    kest_requestSrc(details, moduleId, reason, EPUB_SUBSYSTEM_SOFTWARE, device, userData2, userData3, mode);
    kest_setReturnCode(details, 0x80000000 | reason);
}

/// A copy that is not there is nobody's fault: the code is informational.
void describeMissingCopy(kest_errorDetails& details, std::uint32_t moduleId, std::uint32_t device)
{
    kest_requestSrc(details, moduleId, 0x1306, EPUB_SUBSYSTEM_SOFTWARE, device);
    kest_setReturnCode(details, 0x40001306);
}

void describeHardwareFailure(kest_errorDetails& details, const ErrlEntry* entry, unsigned int mode,
                             std::uint32_t device, std::uint32_t site)
{
    if (entry != nullptr) {
        kest_attachSoftwareError(details, entry->getRC(), hardwareModule, site);
        if (mode == kest_modeHardware && device != 0) {
            kest_attachFruCallout(details, device);
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

ErrlEntry* readCopy(std::uint32_t device, unsigned int offset, unsigned int* length, unsigned char** data,
                    unsigned int mode, kest_errorDetails& details)
{
    ErrlEntry* const entry = tavo_read_data_persistancy(persistencyRoot, device, nullptr, data, length, offset);
    if (entry != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("persisted copy not read"), " %s,%x", __LINE__, 0, readName, device);
        describeCopyFailure(details, readModule, 0x1305, device, *length, offset, mode);
    } else if (*length == 0 && mode == kest_modeFile) {
        trace_wobu_write_all(kest_trace, traceHash("no persisted copy"), " %s,%x", __LINE__, 0, readName, device);
        describeMissingCopy(details, readModule, device);
    }
    return entry;
}

ErrlEntry* readInMode(const tavo_deviceaddress& address, unsigned int offset, unsigned int* length,
                      unsigned char** data, const kest_attributeValue* attributes, kest_errorDetails& details)
{
    ErrlEntry* entry = nullptr;
    const unsigned int mode = modeOf(attributes[KEST_ATTR_READ_MODE]);
    if (mode != kest_modeHardware) {
        entry = readCopy(address.number, offset, length, data, mode, details);
    }
    if (entry == nullptr && (mode == kest_modeHardware || (mode == kest_modeMixed && *length == 0))) {
        // the copy's reader left an empty buffer
        if (*data != nullptr) {
            freeBuffer(*data);
            *data = nullptr;
        }
        kest_seepromHardwareRead(entry, address, offset, length, data, attributes);
        describeHardwareFailure(details, entry, mode, address.number, hardwareReadSite);
    }
    return entry;
}

/// Asks for one byte of the persisted copy. @param[out] found  whether there is one
ErrlEntry* probeCopy(std::uint32_t device, unsigned int mode, bool& found, kest_errorDetails& details)
{
    unsigned int probeLength = 1;
    unsigned char* probe = nullptr;
    ErrlEntry* const entry = tavo_read_data_persistancy(persistencyRoot, device, nullptr, &probe, &probeLength, 0);
    if (entry != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("persisted copy not probed"), " %s,%x", __LINE__, 0, writeName,
                             device);
        describeCopyFailure(details, writeModule, 0x1305, device, 0, 0, mode);
    } else if (probeLength == 0 && mode == kest_modeFile) {
        trace_wobu_write_all(kest_trace, traceHash("no persisted copy"), " %s,%x", __LINE__, 0, writeName, device);
        describeMissingCopy(details, writeModule, device);
    }
    if (probe != nullptr) {
        freeBuffer(probe);
    }
    found = probeLength != 0;
    return entry;
}

ErrlEntry* writeCopy(std::uint32_t device, unsigned int offset, unsigned int* length, const unsigned char* data,
                     unsigned int mode, kest_errorDetails& details)
{
    ErrlEntry* const entry = tavo_write_data_persistancy(persistencyRoot, device, nullptr, data, length, offset);
    if (entry != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("persisted copy not written"), " %s,%x", __LINE__, 0, writeName,
                             device);
        describeCopyFailure(details, writeModule, 0x1308, device, *length, offset, mode);
    }
    return entry;
}

ErrlEntry* writeInMode(const tavo_deviceaddress& address, unsigned int offset, unsigned int* length,
                       const unsigned char* data, const kest_attributeValue* attributes, kest_errorDetails& details)
{
    ErrlEntry* entry = nullptr;
    bool found = false;
    const unsigned int mode = modeOf(attributes[KEST_ATTR_READ_MODE]);
    if (mode != kest_modeHardware) {
        entry = probeCopy(address.number, mode, found, details);
        if (entry == nullptr && found) {
            entry = writeCopy(address.number, offset, length, data, mode, details);
        }
    }
    if (entry == nullptr && (mode == kest_modeHardware || (mode == kest_modeMixed && !found))) {
        kest_seepromHardwareWrite(entry, address, offset, length, data, attributes);
        describeHardwareFailure(details, entry, mode, address.number, hardwareWriteSite);
    }
    return entry;
}

} // namespace

ErrlEntry* KEST_seepromRead(tavo_deviceaddress address, const char* /*spare*/, unsigned int offset,
                            unsigned int* length, unsigned char** data, const kest_attributeValue* attributes)
{
    const traceScope scope(readName);
    kest_errorDetails details{};
    ErrlEntry* entry = nullptr;
    if (data != nullptr && *data != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("buffer pointer in use"), " %s", __LINE__, 0, readName);
        kest_describeFailure(details, readModule, 0x1307);
    } else if (length == nullptr || data == nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("null argument"), " %s,%d,%d", __LINE__, 0, readName,
                             length == nullptr, data == nullptr);
        kest_describeFailure(details, readModule, 0x132B);
    } else {
        entry = readInMode(address, offset, length, data, kest_attributesOrDefaults(attributes), details);
    }
    kest_logError(entry, &details, sourceId);
    return entry;
}

ErrlEntry* KEST_seepromWrite(tavo_deviceaddress address, const char* /*spare*/, unsigned int offset,
                             unsigned int* length, const unsigned char* data, const kest_attributeValue* attributes)
{
    const traceScope scope(writeName);
    kest_errorDetails details{};
    ErrlEntry* entry = nullptr;
    if (length == nullptr || data == nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("null argument"), " %s,%d,%d", __LINE__, 0, writeName,
                             length == nullptr, data == nullptr);
        kest_describeFailure(details, writeModule, 0x132B, lowWordOf(length), lowWordOf(data));
    } else {
        entry = writeInMode(address, offset, length, data, kest_attributesOrDefaults(attributes), details);
    }
    kest_logError(entry, &details, sourceId);
    return entry;
}

} // namespace kest
