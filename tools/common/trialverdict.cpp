#include "tools/common/trialverdict.h"

#include <fmt/core.h>
#include <string_view>

#include "tools/common/diagnosis.h"
#include "tools/common/failure.h"
#include "tools/common/readback.h"
#include "tools/common/widthproof.h"
#include "tools/common/widthrefusal.h"

namespace kest::tools
{
namespace
{

/// The part took the byte as one with one offset byte, and its type is another one.
[[noreturn]] void refuse(const seeprom& chip, const trialResult& result, const std::string& hint,
                         const widthFinding& finding, const std::string& what)
{
    throw widthRefusal(chip.target(), fmt::format("{}; {}", what, backText(result.isBack)),
                       fittingHint(finding) + (result.isBack ? "" : "; " + hint));
}

/// The trial left the width open.
[[noreturn]] void throwOpen(const seeprom& chip, const trialByte& trial, const trialResult& result,
                            const std::string& hint)
{
    const std::string byte =
        result.isBack
            ? backText(true)
            : fmt::format("whether the byte of the trial at offset 0x{:X} is changed is not known", trial.offset);
    if (!result.trouble) {
        throw widthRefusal(chip.target(), fmt::format("the offset width is not known: {}; {}", result.seen, byte),
                           result.isBack ? unprovedHint : hint);
    }
    failure why = *result.trouble;
    if (result.isBack && why.verdict == std::string_view(verdictRefusedByte) && !chip.target().behindHub()) {
        why.what = "the chip is write-protected: it refused a data byte, and holds the old bytes";
        why.tryThis = checkProtection;
        why.verdict = "write-protected";
        throw why;
    }
    why.what = fmt::format("a trial write for the offset width failed: {}; {}", why.what, byte);
    why.tryThis = result.isBack ? why.tryThis : hint;
    throw why;
}

} // namespace

bool settleTrial(const seeprom& chip, const trialByte& trial, const trialResult& result, const std::string& hint,
                 widthFinding& finding)
{
    const deviceTypeInfo& type = *chip.target().end().type;
    const std::string readsBack = fmt::format("a byte written at offset 0x{:X} as a trial reads back", trial.offset);
    switch (result.end) {
    case trialEnd::asClaimed:
        finding.verdict = offsetBytesOf(type) == 1 ? widthVerdict::oneByte : widthVerdict::twoBytes;
        finding.end = result.reach;
        finding.seen = readsBack;
        if (finding.verdict == widthVerdict::oneByte && finding.end == partEnd::notKnown) {
            finding.seen += ", but not whether it goes on at the next address";
        }
        break;
    case trialEnd::goesOn:
        finding.verdict = widthVerdict::oneByte;
        finding.end = result.reach;
        finding.seen = readsBack;
        refuse(chip, result, hint, finding, fmt::format("the part is no {}: {}", type.chip, widthText(finding)));
    case trialEnd::inOther:
        finding.verdict = widthVerdict::oneByte;
        finding.end = result.reach;
        refuse(chip, result, hint, finding,
               finding.end == partEnd::nextAddress
                   ? result.seen + ", and it goes on at the next address (24C04 to 24C16)"
                   : result.seen);
    case trialEnd::unchanged:
        finding.verdict = widthVerdict::notDecidable;
        finding.seen = result.seen;
        return false;
    case trialEnd::notKnown:
        throwOpen(chip, trial, result, hint);
    }
    return true;
}

} // namespace kest::tools
