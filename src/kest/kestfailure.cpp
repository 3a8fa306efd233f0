#include "kestfailure.h"

#include "kesttrace.h"

namespace kest
{

bool failureReport::passed(std::uint32_t hash, std::uint32_t atSite, std::uint32_t line)
{
    if (entry != nullptr) {
        trace_wobu_write_all(kest_trace, hash, " %s", static_cast<int>(line), 0, self.name);
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

void failureReport::describe(std::uint32_t reason, std::uint32_t userData1, std::uint32_t userData2,
                             std::uint32_t userData3)
{
    kest_describeFailure(details, self.module, reason, userData1, userData2, userData3);
}

bool failureReport::fail(std::uint32_t hash, std::uint32_t reason, std::uint32_t userData1, std::uint32_t userData2,
                         int line)
{
    trace_wobu_write_all(kest_trace, hash, " %s", line, 0, self.name);
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

const errnoRule& kest_ruleOfErrno(int error) { return kest_isSoftwareErrno(error) ? softwareRule : deviceRule; }

void kest_describeErrno(kest_errorDetails& details, std::uint32_t module, std::uint32_t reason, const errnoRule& rule,
                        int error, std::uint32_t userData2, std::uint32_t userData3)
{
    kest_requestSrc(details, module, reason, rule.subsystem, static_cast<std::uint32_t>(error), userData2, userData3);
    kest_addCallout(details);
    kest_setReturnCode(details, rule.classBits | reason);
}

} // namespace kest
