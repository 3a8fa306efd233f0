#include "kestfailure.h"

#include "kesttrace.h"

namespace kest
{

bool failureReport::passed(std::uint32_t hash, std::uint32_t atSite, std::uint32_t line)
{
    if (entry != nullptr) {
        KEST_TRACE_AT(static_cast<int>(line), hash, "", self.name);
    }
    return noted(atSite);
}

bool failureReport::noted(std::uint32_t atSite)
{
    if (entry != nullptr) {
        site = atSite;
    }
    return entry == nullptr;
}

void failureReport::describe(kest_reason reason, const blame& who, std::uint32_t userData1, std::uint32_t userData2,
                             std::uint32_t userData3)
{
    kest_requestSrc(details, self.module, reason, who.subsystem, userData1, userData2, userData3);
    kest_addCallout(details);
    kest_setReturnCode(details, who.classBits | reason);
}

void failureReport::describe(kest_reason reason, std::uint32_t userData1, std::uint32_t userData2,
                             std::uint32_t userData3)
{
    describe(reason, blamesSoftware, userData1, userData2, userData3);
}

bool failureReport::fail(std::uint32_t hash, kest_reason reason, std::uint32_t userData1, std::uint32_t userData2,
                         int line)
{
    KEST_TRACE_AT(line, hash, "", self.name);
    describe(reason, userData1, userData2);
    return false;
}

ErrlEntry* failureReport::finish()
{
    if (entry != nullptr && site != noSite) {
        kest_attachSoftwareError(details, entry->getRC(), self.module, site);
    }
    kest_logError(entry, &details, self.sourceId);
    return entry;
}

void failureReport::commit(std::uint16_t action)
{
    details.commitEntry = 1;
    details.commitAction = action;
    finish();
}

const blame& kest_blameOf(int error) { return kest_isSoftwareErrno(error) ? blamesSoftware : blamesDevice; }

} // namespace kest
