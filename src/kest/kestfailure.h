/// How a function reports its failures: what it says of each, and the one way out of it.
#pragma once

#include <cstdint>

#include "kesterrorlog.h"
#include "platform/errl.h"

namespace kest
{

/// A function that reports failures, as traces, SRCs and software errors name it.
struct routine {
    const char* name;
    std::uint32_t module;
    const char* sourceId; ///< of its source unit
};

/// What one call of a routine knows of its failures. The entry alone says whether a step failed: one whose failure was
/// committed below, or for whose entry there was no memory, has passed.
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

    /// Describes a failure of the routine itself, after its trace: the usual one, see kest_describeFailure().
    void describe(std::uint32_t reason, std::uint32_t userData1 = 0, std::uint32_t userData2 = 0,
                  std::uint32_t userData3 = 0);
    /// The same, with the trace. @return false
    bool fail(std::uint32_t hash, std::uint32_t reason, std::uint32_t userData1 = 0, std::uint32_t userData2 = 0,
              int line = __builtin_LINE());

    /// Adds the site of the step that failed and logs. @return the entry
    ErrlEntry* finish();
};

/// Who is blamed for an errno of the IIC layer, and the class of the return code.
struct errnoRule {
    epubSubSystem subsystem;
    std::uint32_t classBits;
};
constexpr errnoRule softwareRule{EPUB_SUBSYSTEM_SOFTWARE, kest_classFailure};
constexpr errnoRule absentRule{EPUB_SUBSYSTEM_IIC_DEVICE, kest_classInformational};
constexpr errnoRule deviceRule{EPUB_SUBSYSTEM_IIC_DEVICE, 0};

/// @return the rule of an errno that says nothing special: software's or the device's
const errnoRule& kest_ruleOfErrno(int error);

/// Describes a failed call of the IIC layer.
void kest_describeErrno(kest_errorDetails& details, std::uint32_t module, std::uint32_t reason, const errnoRule& rule,
                        int error, std::uint32_t userData2 = 0, std::uint32_t userData3 = 0);

} // namespace kest
