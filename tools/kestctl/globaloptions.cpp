#include "tools/kestctl/globaloptions.h"

#include <array>
#include <csignal>
#include <fmt/core.h>
#include <string>

#include "platform/host/configuration/configuration.h"
#include "platform/host/iic/watch.h"
#include "tools/common/buslines.h"
#include "tools/common/deadline.h"
#include "tools/common/duration.h"
#include "tools/common/guard.h"
#include "tools/common/interrupt.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/defaults.h"

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

struct colourRow {
    const char* word;
    colourChoice choice;
};
constexpr std::array colourRows{
    colourRow{.word = "auto", .choice = colourChoice::automatic},
    colourRow{.word = "always", .choice = colourChoice::always},
    colourRow{.word = "never", .choice = colourChoice::never},
};

colourChoice colourOf(const std::string& word)
{
    for (const colourRow& row : colourRows) {
        if (word == row.word) {
            return row.choice;
        }
    }
    throw wrongUse(fmt::format("--colour '{}': expected auto, always or never", word));
}

} // namespace

void addGlobalOptions(command program, context& shared)
{
    elseByDefault({program.flag("--json", shared.json, "JSON on standard output instead of text"),
                   program.clearingFlag("--no-json", shared.json, "text instead of JSON").hidden()},
                  [&shared](const host::commandDefaults& defaults) { shared.json = defaults.json; });
    elseByDefault({program.flag("-q,--quiet", preferred().quiet, "results and failures alone: no progress, no notes"),
                   program.clearingFlag("--no-quiet", preferred().quiet, "progress and notes, too").hidden()},
                  [](const host::commandDefaults& defaults) { preferred().quiet = defaults.quiet; });
    elseByDefault({program.countedFlag("-v,--verbose", preferred().verbose,
                                       "show each transaction on the bus, on standard error; -vv: with all bytes, and "
                                       "every repeat"),
                   program
                       .actingFlag(
                           "--no-verbose", [] { preferred().verbose = 0; }, "show none")
                       .hidden()},
                  [](const host::commandDefaults& defaults) { preferred().verbose = defaults.verbose; });
    elseByDefault(
        {program.read(
            "--timeout", [&shared](const std::string& text) { shared.timeoutNs = parseDuration(text, "--timeout"); },
            "end the whole command after TIME, such as 500ms, 2s or 5min; a number alone is seconds; a day at "
            "most; 0: no end (default)",
            "TIME")},
        [&shared](const host::commandDefaults& defaults) {
            if (defaults.timeoutNs != 0) {
                shared.timeoutNs = defaults.timeoutNs;
            }
        });
    elseByDefault({program.clearingFlag("--no-retries", shared.retries,
                                        "send no transaction again that failed for a reason that may pass"),
                   program.flag("--retries", shared.retries, "send it again").hidden()},
                  [&shared](const host::commandDefaults& defaults) { shared.retries = defaults.retries; });
    const auto colour = [](const std::string& word) { preferred().colour = colourOf(word); };
    elseByDefault(
        {program.read("--colour", colour, "auto (on a terminal that has it; default), always or never", "WHEN"),
         program.read("--color", colour, "the same", "WHEN").hidden()},
        [](const host::commandDefaults& defaults) { preferred().colour = colourOf(defaults.colour); });
    program.read(
        "--config", [](const std::string& file) { kest::host::useConfigurationFile(file); },
        "configuration to use instead of $KEST_CONFIG or /etc/kest/kest.toml", "FILE");
}

void useGlobalOptions(context& shared)
{
    takeDefaults(host::currentConfiguration().defaults);
    if (!shared.retries) {
        host::iic::repeatNothing();
    }
    if (preferred().verbose != 0) {
        showBuses(preferred().verbose > 1);
    }
    if (shared.timeoutNs.value_or(0) != 0 && !shared.timesItself) {
        startTime(shared);
    }
}

} // namespace kest::tools
