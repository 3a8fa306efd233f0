#include "kesterrorlog.h"

#include <cerrno>
#include <cstring>

#include "kesttrace.h"

extern "C" {
int __cxa_atexit(void (*function)(void*), void* argument, void* library) noexcept; // NOLINT: the ABI's name
extern __attribute__((visibility("hidden"))) void* __dso_handle; // NOLINT: the ABI's name
}

namespace kest
{

trace_wobu_descriptor kest_trace = nullptr;

namespace
{

constexpr char traceName[] = "kest";
constexpr char driverName[] = "IIC"; ///< the IIC driver's own buffer
// not 8192
constexpr unsigned int traceBytes = 8092;
constexpr unsigned int collectedBytes = 500; ///< of each trace buffer, for each SRC
constexpr unsigned int collectedAtEnd = 250; ///< for a secondary failure
constexpr std::uint8_t detailsVersion = 1;
constexpr unsigned int errnoWordInSrc = 4; ///< user data 1 among an SRC's words

/// The buffer stays as it is at unload: late traces, and a dump of the dead process, still find it.
void keepTraceBuffer(void* /*argument*/) {}

[[maybe_unused]] const int traceBufferMade = [] {
    trace_wobu_init_buffer(&kest_trace, traceName, traceBytes);
    return __cxa_atexit(keepTraceBuffer, nullptr, &__dso_handle);
}();

std::uint8_t low8(std::uint32_t value) { return static_cast<std::uint8_t>(value & 0xFF); }
std::uint16_t low16(std::uint32_t value) { return static_cast<std::uint16_t>(value & 0xFFFF); }

/// Creates the entry or adds an SRC to it, with the current traces and the source unit's name.
void addSrc(ErrlEntry*& entry, const kest_errorDetails& details, const char* sourceId)
{
    if (entry == nullptr) {
        entry =
            new ErrlEntry(kest_component, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0,
                          low8(details.moduleId), SERVICE_CODE_KEST, low16(details.reasonCode), details.userData1,
                          details.userData2, details.userData3, details.userData4, details.subsystem, SRCI_TERM_NONE);
        if (entry != nullptr) {
            entry->CollectTrace(driverName, collectedBytes);
        }
    } else {
        entry->addSRC(kest_component, SRCI_TYPE_SERVICE_PROCESSOR, 0, low8(details.moduleId), SERVICE_CODE_KEST,
                      low16(details.reasonCode), details.userData1, details.userData2, details.userData3,
                      details.userData4, details.subsystem);
    }
    // null when the log has no memory for it
    if (entry != nullptr) {
        entry->CollectTrace(traceName, collectedBytes);
        if (sourceId != nullptr) {
            entry->addUsrDtls(sourceId, static_cast<unsigned short>(std::strlen(sourceId)), kest_component,
                              detailsVersion, kest_dtlsSourceId);
        }
    }
}

void addCallout(ErrlEntry& entry, std::uint8_t& inUse, srciPriority priority, epubProcedureID procedure)
{
    if (inUse != 0) {
        entry.addProcedureCallout(priority, procedure);
        inUse = 0;
    }
}

void addUserDetails(ErrlEntry& entry, kest_errorDetails& details)
{
    if (details.usrDtlsInUse != 0) {
        entry.addUsrDtls(details.usrDtlsData, low16(details.usrDtlsSize), kest_component, details.usrDtlsVersion,
                         details.usrDtlsSubsection);
        if (details.usrDtlsOwned != 0) {
            delete[] details.usrDtlsData;
            details.usrDtlsData = nullptr;
        }
        details.usrDtlsInUse = 0;
    }
}

/// The items after the SRC. The log shows them in this order.
void addItems(ErrlEntry& entry, kest_errorDetails& details)
{
    if (details.setReturnCode != 0) {
        entry.setRC(details.returnCode);
        details.setReturnCode = 0;
    }
    addCallout(entry, details.callout1InUse, details.callout1Priority, details.callout1Procedure);
    addCallout(entry, details.callout2InUse, details.callout2Priority, details.callout2Procedure);
    addCallout(entry, details.callout3InUse, details.callout3Priority, details.callout3Procedure);
    addUserDetails(entry, details);
    if (details.swErrInUse != 0) {
        entry.addSwErr(kest_component, details.swErrReturnCode, low16(details.swErrWord1), low16(details.swErrWord2),
                       0);
        details.swErrInUse = 0;
    }
    if (details.fruCalloutInUse != 0) {
        entry.addFruCallout(details.fruCalloutPriority, low16(details.fruCalloutId));
        details.fruCalloutInUse = 0;
    }
}

} // namespace

void kest_logError(ErrlEntry*& entry, kest_errorDetails* details, const char* sourceId)
{
    if (details->logSrc != 0) {
        addSrc(entry, *details, sourceId);
        details->logSrc = 0;
    }
    if (entry != nullptr) {
        addItems(*entry, *details);
        if (details->commitEntry != 0) {
            entry->commit(kest_component, details->commitAction);
            delete entry;
            details->commitEntry = 0;
            entry = nullptr;
        }
    }
}

void kest_requestSrc(kest_errorDetails& details, std::uint32_t moduleId, std::uint32_t reasonCode,
                     epubSubSystem subsystem, std::uint32_t userData1, std::uint32_t userData2, std::uint32_t userData3,
                     std::uint32_t userData4)
{
    details.logSrc = 1;
    details.moduleId = moduleId;
    details.reasonCode = reasonCode;
    details.subsystem = subsystem;
    details.userData1 = userData1;
    details.userData2 = userData2;
    details.userData3 = userData3;
    details.userData4 = userData4;
}

void kest_addCallout(kest_errorDetails& details, epubProcedureID procedure)
{
    if (details.callout1InUse == 0) {
        details.callout1InUse = 1;
        details.callout1Priority = SRCI_PRIORITY_HIGH;
        details.callout1Procedure = procedure;
    } else if (details.callout2InUse == 0) {
        details.callout2InUse = 1;
        details.callout2Priority = SRCI_PRIORITY_HIGH;
        details.callout2Procedure = procedure;
    } else if (details.callout3InUse == 0) {
        details.callout3InUse = 1;
        details.callout3Priority = SRCI_PRIORITY_HIGH;
        details.callout3Procedure = procedure;
    }
}

void kest_setReturnCode(kest_errorDetails& details, std::uint32_t returnCode)
{
    details.setReturnCode = 1;
    details.returnCode = returnCode;
}

void kest_attachUserDetails(kest_errorDetails& details, const void* data, std::uint32_t size, std::uint8_t subsection,
                            bool owned)
{
    details.usrDtlsInUse = 1;
    details.usrDtlsOwned = owned ? 1 : 0;
    details.usrDtlsData = static_cast<const std::uint8_t*>(data);
    details.usrDtlsSize = size;
    details.usrDtlsVersion = detailsVersion;
    details.usrDtlsSubsection = subsection;
}

void kest_attachText(kest_errorDetails& details, const char* text, std::uint8_t subsection, bool owned)
{
    kest_attachUserDetails(details, text, static_cast<std::uint32_t>(std::strlen(text)), subsection, owned);
}

void kest_attachSoftwareError(kest_errorDetails& details, std::uint32_t returnCode, std::uint32_t moduleId,
                              std::uint32_t site)
{
    details.swErrInUse = 1;
    details.swErrReturnCode = returnCode;
    details.swErrWord1 = moduleId;
    details.swErrWord2 = site;
}

void kest_attachFruCallout(kest_errorDetails& details, std::uint32_t fruId)
{
    details.fruCalloutInUse = 1;
    details.fruCalloutId = fruId;
    details.fruCalloutPriority = SRCI_PRIORITY_HIGH;
}

void kest_describeFailure(kest_errorDetails& details, std::uint32_t moduleId, std::uint32_t reasonCode,
                          std::uint32_t userData1, std::uint32_t userData2, std::uint32_t userData3,
                          std::uint32_t userData4)
{
    kest_requestSrc(details, moduleId, reasonCode, EPUB_SUBSYSTEM_SOFTWARE, userData1, userData2, userData3, userData4);
    kest_addCallout(details);
    kest_setReturnCode(details, 0x80000000 | reasonCode);
}

bool kest_isSoftwareErrno(int error)
{
    return error == EINTR || error == EBADF || error == EFAULT || error == ENODEV || error == EINVAL || error == ENOSYS;
}

std::optional<std::uint32_t> kest_failedErrno(const ErrlEntry* entry)
{
    std::optional<std::uint32_t> error;
    const SrciSrc* const src = entry == nullptr ? nullptr : entry->getSRC(0);
    if (src != nullptr) {
        unsigned int count = 0;
        const std::uint32_t* const words = src->getHexData(count);
        if (count > errnoWordInSrc) {
            error = words[errnoWordInSrc];
        }
    }
    return error;
}

void kest_commitSecondary(ErrlEntry*& entry)
{
    if (entry != nullptr) {
        entry->CollectTrace(traceName, collectedAtEnd);
        entry->commit(kest_component, ERRL_ACTION_KEEP_FOR_SERVICE);
        delete entry;
        entry = nullptr;
    }
}

ErrlEntry* kest_takeOver(ErrlEntry*& from)
{
    ErrlEntry* taken = new ErrlEntry(kest_component, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR,
                                     0, 0, SERVICE_CODE_KEST, 0, 0, 0, 0, 0, EPUB_SUBSYSTEM_SOFTWARE, SRCI_TERM_NONE);
    if (taken == nullptr) {
        taken = from;
    } else {
        *taken = *from;
        delete from;
    }
    from = nullptr;
    return taken;
}

void kest_mergeFirstSrc(ErrlEntry& to, const ErrlEntry& from)
{
    const SrciSrc* const src = from.getSRC(0);
    if (src != nullptr) {
        to.addSRC(from.creator(), *src);
    }
}

} // namespace kest
