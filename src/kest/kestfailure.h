/// How a function describes and logs its failures.
#pragma once

#include <cstdint>

#include "kesterrorlog.h"
#include "kesttrace.h"
#include "platform/errl.h"

namespace kest
{

/// A function's names in traces, SRCs and software errors.
struct routine {
    const char* name;
    std::uint32_t module;
    const char* sourceId; ///< of its source unit
};

/// Who is blamed for a failure, and the class of its return code.
struct blame {
    epubSubSystem subsystem;
    std::uint32_t classBits;
};
constexpr blame blamesSoftware{EPUB_SUBSYSTEM_SOFTWARE, kest_classFailure};
constexpr blame blamesAbsence{EPUB_SUBSYSTEM_IIC_DEVICE, kest_classInformational};
constexpr blame blamesDevice{EPUB_SUBSYSTEM_IIC_DEVICE, 0};

/// @return who is blamed for an errno of the IIC layer that has no rule of its own
const blame& kest_blameOf(int error);

/// What one call of a routine knows of its failures. A step failed only if there is an entry. A failure that was
/// already committed, or one without memory for an entry, counts as passed.
struct failureReport {
    static constexpr std::uint32_t noSite = 0xFFFFFFFF;

    const routine& self;
    ErrlEntry*& entry;
    std::uint32_t site = noSite; ///< of the step that failed last
    kest_errorDetails details{};

    /// Ends a step: traces a failure and notes its site.
    /// @param hash  of the trace
    /// @param line  of the trace
    /// @return whether there is no entry
    bool passed(std::uint32_t hash, std::uint32_t atSite, std::uint32_t line);
    bool passed(std::uint32_t hash, std::uint32_t atSite) { return passed(hash, atSite, atSite); }
    /// Notes a failed step that has a trace of its own. @return whether there is no entry
    bool noted(std::uint32_t atSite);

    /// Describes a failure of the routine itself, after its trace: an SRC, one procedure callout, and the return code.
    void describe(kest_reason reason, const blame& who, std::uint32_t userData1, std::uint32_t userData2 = 0,
                  std::uint32_t userData3 = 0);
    /// The usual failure: see kest_describeFailure().
    void describe(kest_reason reason, std::uint32_t userData1 = 0, std::uint32_t userData2 = 0,
                  std::uint32_t userData3 = 0);
    /// The same, with the trace. @return false
    bool fail(std::uint32_t hash, kest_reason reason, std::uint32_t userData1 = 0, std::uint32_t userData2 = 0,
              int line = __builtin_LINE());

    /// Adds the site of the step that failed and logs. @return the entry
    ErrlEntry* finish();
    /// The same, for an entry that no caller gets: commits and deletes it.
    void commit(std::uint16_t action);
};

/// The report of a whole call, which also traces the routine's entry and exit. Declare it first, so that its exit trace
/// is the last.
class reportedCall : private traceScope, public failureReport
{
public:
    /// @param callersEntry  takes the failure
    /// @param firstSite  the site to log when there is an entry but no step of this call failed; noSite: none
    reportedCall(const routine& function, ErrlEntry*& callersEntry, std::uint32_t firstSite = noSite,
                 int line = __builtin_LINE())
        : traceScope(function.name, line), failureReport{function, callersEntry, firstSite}
    {
    }
    /// A call that makes an entry of its own.
    explicit reportedCall(const routine& function, int line = __builtin_LINE())
        : traceScope(function.name, line), failureReport{function, m_own}
    {
    }

private:
    ErrlEntry* m_own = nullptr;
};

} // namespace kest
