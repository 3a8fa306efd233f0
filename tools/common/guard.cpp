#include "tools/common/guard.h"

#include <cstdio>
#include <exception>
#include <new>

#include "tools/common/operation.h"
#include "tools/common/output.h"

namespace kest::tools
{
namespace
{

void tell(const std::string& program, bool json, const failure& why)
{
    std::fputs((failureLine(program, why) + "\n").c_str(), stderr);
    if (!json) {
        return;
    }
    try {
        standardOutput().json({{"error", errorJson(why)}});
    } catch (const failure&) {
        // the line on standard error is enough
    }
}

/// Runs a step and turns every exception into a failure. @return its exit code, or the failure's
int guarded(const std::string& program, const bool& json, const std::function<int()>& step)
{
    try {
        return step();
    } catch (const failure& why) {
        tell(program, json, why);
        return why.code;
    } catch (const std::bad_alloc&) {
        tell(program, json, {.code = exitFailed, .what = "out of memory"});
    } catch (const std::exception& why) {
        tell(program, json, {.code = exitFailed, .what = why.what()});
    }
    return exitFailed;
}

} // namespace

jsonValue errorJson(const failure& why)
{
    jsonValue error{{"message", why.what},    {"device", why.device},
                    {"step", why.step},       {"try", why.tryThis},
                    {"log_id", why.logId},    {"return_code", why.returnCode},
                    {"verdict", why.verdict}, {"exit_code", static_cast<int>(why.code)}};
    if (!why.holders.empty()) {
        error.add("holders", holdersJson(why.holders));
    }
    return error;
}

int runGuarded(const std::string& program, const bool& json, const std::function<int()>& action)
{
    // from now on a closed pipe ends nothing
    standardOutput();
    const int code = guarded(program, json, action);
    const int arrived = standardOutput().broken() ? exitDone : guarded(program, json, [] {
        standardOutput().flush();
        return static_cast<int>(exitDone);
    });
    return code == exitDone ? arrived : code;
}

} // namespace kest::tools
