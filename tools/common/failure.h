/// How the programs end: exit codes, and failures as one line that says which device, which step and what to try.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "platform/errl.h"

namespace kest::host
{
struct loggedEntry;
}

namespace kest::tools
{

struct busName;
struct device;

/// Exit codes of the programs. Documented; the numbers stay.
enum exitCode : int {
    exitDone = 0,
    exitFailed = 1,
    exitWrongUse = 2,
    exitRefused = 3, ///< not permitted, or not confirmed
    exitAbsent = 4, ///< the device, or the bus it is on, does not answer
    exitVerifyFailed = 5,
    exitBusy = 6, ///< somebody else holds it
};

/// Why a command ends early; thrown, and told by runGuarded(). Texts may come from devices and clients: they are
/// escaped when shown.
struct failure {
    exitCode code = exitFailed;
    std::string what; ///< what happened
    std::string tryThis = {}; ///< what to try; may be empty
    std::string device = {}; ///< as the user named it; may be empty
    std::string step = {}; ///< what was being done; may be empty
    std::uint32_t logId = 0; ///< of the committed error entry; 0 when there is none
    std::uint32_t returnCode = 0; ///< of that entry
};

/// A failure of the caller's own making, with the rest left to the caller to fill in.
[[nodiscard]] inline failure wrongUse(std::string what, std::string tryThis = {})
{
    return {.code = exitWrongUse, .what = std::move(what), .tryThis = std::move(tryThis)};
}

/// What an `errno` of the IIC layer or the system means to the user of a program.
struct errnoAdvice {
    exitCode code;
    std::string what;
    std::string tryThis;
};
/// @param bus  that it happened on: hints name it, and a simulated one is looked up for what is wrong with it
[[nodiscard]] errnoAdvice adviceFor(int error, const busName& bus);

/// The failure for a system call.
[[nodiscard]] failure systemFailure(int error, const std::string& step, const std::string& object);

/// Commits an entry that the library returned, so that it can be looked up later, and tells what it means. Where
/// nothing answers it probes for an address in the wrong form.
/// @param entry  not null; gone afterwards
[[nodiscard]] failure entryFailure(std::unique_ptr<ErrlEntry> entry, const device& which, const std::string& step);

/// Throws entryFailure() when there is an entry.
void throwEntry(ErrlEntry* entry, const device& which, const std::string& step);

/// The `errno` that the IIC layer gave for the entry's first failed call; 0 when no SRC of the entry carries one.
[[nodiscard]] int errnoOf(const host::loggedEntry& entry);

/// Fills in exit code, what happened and what to try, as an entry tells it: what the return code says is the whole
/// transfer's verdict; else the failed call of the IIC layer is the cause, else the first reason known. Leaves `why` as
/// it is when nothing is known.
void describeEntry(const host::loggedEntry& entry, const device& which, failure& why);

/// The same by the return code alone, for those who do not have the entry. @return false when it tells nothing
bool describeReturnCode(std::uint32_t returnCode, failure& why);

/// Reason codes of the tools' own failures.
enum toolReason : std::uint16_t {
    reasonVerifyDiffers = 0x1701, ///< words: offset, byte written, byte read
    reasonUndoUnsaved = 0x1702, ///< words: errno
};

/// What the error log keeps of a failure that no function of the library made an entry for.
struct toolEntry {
    toolReason reason;
    std::array<std::uint32_t, 4> words = {}; ///< user data 1 to 4
    std::string text = {}; ///< device text
};
/// Commits an entry and puts its log id and return code into `why`.
void logFailure(failure& why, const toolEntry& what);

/// Puts a hint in the place of what to try when nothing answers there and the address looks like one in the wrong form.
/// Probes.
void hintAtWrongForm(failure& why, const device& which);

/// "PROGRAM: DEVICE: STEP: WHAT; TRY [log ID]", one line, escaped, without its end.
[[nodiscard]] std::string failureLine(const std::string& program, const failure& why);

/// The value of an "error" field.
[[nodiscard]] nlohmann::ordered_json errorJson(const failure& why);

/// Runs `action` and turns what it throws into one line on standard error (and with `json` also an "error" object on
/// standard output) and an exit code. Also makes sure that everything written to standard output arrived.
/// @param json  asked after the action, since only parsing the command line tells
int runGuarded(const std::string& program, const bool& json, const std::function<int()>& action);

} // namespace kest::tools
