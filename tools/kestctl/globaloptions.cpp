#include "tools/kestctl/globaloptions.h"

#include <csignal>
#include <string>

#include "platform/host/configuration/configuration.h"
#include "tools/common/deadline.h"
#include "tools/common/duration.h"
#include "tools/common/guard.h"
#include "tools/common/interrupt.h"
#include "tools/common/preferences.h"

namespace kest::tools
{
namespace
{

void startTime(const context& shared)
{
    const failure why = interruption(SIGALRM, "", "");
    const std::string json = shared.json ? jsonValue{{"error", errorJson(why)}}.dump(2) + "\n" : "";
    const int error = endAfter(*shared.timeoutNs, {failureLine("kestctl", why) + "\n", json});
    if (error != 0) {
        throw systemFailure(error, "start", "the time of --timeout");
    }
}

} // namespace

void addGlobalOptions(command program, context& shared)
{
    program.flag("--json", shared.json, "JSON on standard output instead of text");
    program.flag("-q,--quiet", preferred().quiet, "results and failures alone: no progress, no notes");
    program.read(
        "--timeout", [&shared](const std::string& text) { shared.timeoutNs = parseDuration(text, "--timeout"); },
        "end the whole command after TIME, such as 500ms, 2s or 5min; a number alone is seconds; 0: no end (default)",
        "TIME");
    program.read(
        "--config", [](const std::string& file) { kest::host::useConfigurationFile(file); },
        "configuration to use instead of $KEST_CONFIG or /etc/kest/kest.toml", "FILE");
}

void useGlobalOptions(const context& shared)
{
    if (shared.timeoutNs.value_or(0) != 0 && !shared.timesItself) {
        startTime(shared);
    }
}

} // namespace kest::tools
