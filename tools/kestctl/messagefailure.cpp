#include "tools/kestctl/messagefailure.h"

#include <algorithm>
#include <cerrno>
#include <fmt/core.h>

#include "platform/host/errorlog/store.h"
#include "tools/common/entryfailure.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"

namespace kest::tools
{
namespace
{

/// Describes a failure of the library: from its entry when this user can read the service's error log, else from the
/// return code alone.
void describeAnswer(const client::answer& answer, const device& which, failure& why)
{
    const auto entries = host::listEntries({.plid = answer.logId}).entries;
    const auto logged = std::ranges::find(entries, answer.returnCode, &host::loggedEntry::returnCode);
    if (answer.logId != 0 && logged != entries.end()) {
        describeEntry(*logged, which, why);
    } else {
        describeReturnCode(answer.returnCode, why);
    }
    hintAtWrongForm(why, which);
}

exitCode codeOfRefusal(std::uint32_t returnCode)
{
    switch (returnCode) {
    case client::codeForbidden:
    case client::codeNotLocked:
    case client::codeOtherPart:
        return exitRefused;
    case client::codeLengthTooLarge:
    case client::codePastTheEnd:
        return exitWrongUse;
    case client::codeTooManyClients:
    case client::codeBusy:
        return exitBusy;
    default:
        return exitFailed;
    }
}

/// Describes a service that is not running, or that this user may not use.
void describeUnreachable(const client::answer& answer, failure& why)
{
    const bool forbidden = answer.error == EACCES || answer.error == EPERM;
    why.code = forbidden ? exitRefused : answer.error == EAGAIN ? exitBusy : exitFailed;
    why.tryThis = forbidden                ? "run it as a user who may use the service's socket"
                  : answer.error == EAGAIN ? "try again in a moment"
                                           : "start kestd, or name its socket with --socket";
}

} // namespace

void requireServed(const client::answer& answer, const device& which, const std::string& step)
{
    if (answer) {
        return;
    }
    const bool stopped = answer.what == client::outcome::notSent || answer.what == client::outcome::stopped;
    if (stopped) {
        throw interruption(interruptSignal(), which.label, step);
    }
    failure why{.what = answer.message, .device = which.label, .step = step};
    why.logId = answer.logId;
    why.returnCode = answer.returnCode;
    switch (answer.what) {
    case client::outcome::refused:
        why.code = codeOfRefusal(answer.returnCode);
        if (answer.returnCode == client::codeOtherPart) {
            why.tryThis = "is it another part? 'kestctl seeprom write --force' writes all the same";
        }
        break;
    case client::outcome::wrongUse:
        why.code = exitWrongUse;
        break;
    case client::outcome::failed:
        describeAnswer(answer, which, why);
        break;
    case client::outcome::unreachable:
        describeUnreachable(answer, why);
        break;
    default:
        break;
    }
    if (why.tryThis.empty() && why.logId != 0) {
        why.tryThis = fmt::format("'kestctl errors show 0x{:08X}' has the details", why.logId);
    }
    throw why;
}

} // namespace kest::tools
