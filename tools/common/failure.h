/// How the programs end: exit codes, and failures as one line that says which device, which step and what to try.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/host/iic/operationrecord.h"

namespace kest::tools
{

/// Exit codes of the programs. Documented; the numbers stay.
enum exitCode : int {
    exitDone = 0,
    exitFailed = 1,
    exitWrongUse = 2,
    exitRefused = 3, ///< not permitted, or not confirmed
    exitAbsent = 4, ///< the device, or the bus it is on, does not answer
    exitVerifyFailed = 5,
    exitBusy = 6, ///< somebody else holds it
    // 128 and the signal's number, as shells have it
    exitHungUp = 129, ///< ended by SIGHUP
    exitInterrupted = 130, ///< by SIGINT
    exitTerminated = 143, ///< by SIGTERM
};

/// Why a command ends early; thrown, and reported by runGuarded(). Texts may come from devices and clients: they are
/// escaped when shown.
struct failure {
    exitCode code = exitFailed;
    std::string what; ///< what happened
    std::string tryThis = {}; ///< what to try; may be empty
    std::string device = {}; ///< as the user named it; may be empty
    std::string step = {}; ///< what was being done; may be empty
    std::uint32_t logId = 0; ///< of the committed error entry; 0 when there is none
    std::uint32_t returnCode = 0; ///< of that entry
    /// What a diagnosis found: one of the words in docs/kestctl.md. Empty when there was none.
    const char* verdict = "";
    std::vector<host::iic::operationRecord> holders = {}; ///< who has the device, when others do
    int signal = 0; ///< that ended the work; see interruption()
};

/// A wrong use: the failure with exit code 2. The caller may fill in the rest.
[[nodiscard]] inline failure wrongUse(std::string what, std::string tryThis = {})
{
    return {.code = exitWrongUse, .what = std::move(what), .tryThis = std::move(tryThis)};
}

/// The failure for a system call.
[[nodiscard]] failure systemFailure(int error, const std::string& step, const std::string& object);

/// "PROGRAM: DEVICE: STEP: WHAT; TRY [log ID]", one line, escaped, without its end.
[[nodiscard]] std::string failureLine(const std::string& program, const failure& why);

} // namespace kest::tools
