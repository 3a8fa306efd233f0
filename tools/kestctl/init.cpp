#include "tools/kestctl/init.h"

#include <algorithm>
#include <filesystem>
#include <fmt/core.h>
#include <string>
#include <vector>

#include "platform/host/configuration/configuration.h"
#include "tools/common/busparts.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/operation.h"
#include "tools/common/output.h"
#include "tools/common/outputfile.h"
#include "tools/common/preferences.h"
#include "tools/common/proposal.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

struct initOptions {
    std::vector<std::string> buses;
    std::string node;
    std::string output; ///< file; empty: standard output
    bool hubs = false;
    bool yes = false;
    std::uint32_t speedKhz = 0;
    std::uint64_t waitNs = usualWaitNs; ///< for others who have a part
};

/// The buses, each once.
std::vector<busName> busesOf(const initOptions& options)
{
    std::vector<busName> buses;
    for (const std::string& name : options.buses) {
        const busName bus = findBus(name, options.node);
        const auto isIt = [&bus](const busName& other) { return other.path == bus.path && other.node == bus.node; };
        if (std::ranges::none_of(buses, isIt)) {
            buses.push_back(bus);
        }
    }
    return buses;
}

/// Asks before a file is replaced, and before anything goes over a bus.
void confirmFile(const initOptions& options)
{
    std::error_code none;
    if (!preferred().dryRun && !options.output.empty() && std::filesystem::exists(options.output, none)) {
        confirm(fmt::format("replace {}?", escaped(options.output)), options.yes);
    }
}

void writeFile(const std::string& name, const std::string& text)
{
    outputFile file(name);
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    file.write({bytes, text.size()});
    file.finish();
}

void report(const context& shared, const initOptions& options, const proposal& proposed)
{
    if (shared.json) {
        jsonValue result{{"file", options.output.empty() ? jsonValue() : jsonValue(options.output)},
                         {"buses", proposed.buses()},
                         {"ready", proposed.readyRows()},
                         {"to_decide", proposed.rowsToDecide()},
                         {"configuration", proposed.text()}};
        addDryRunField(result);
        standardOutput().json(result);
    } else if (options.output.empty()) {
        standardOutput().text(proposed.text());
    } else {
        const std::string hint =
            preferred().quiet || preferred().dryRun
                ? ""
                : fmt::format("; read it, then use it by\n  export KEST_CONFIG={}",
                              escaped(shellWord(std::filesystem::absolute(options.output).string())));
        standardOutput().text(fmt::format("{}: {}{} rows are ready, {} wait for a decision{}\n",
                                          escaped(options.output), preferred().dryRun ? "would be written; " : "",
                                          proposed.readyRows(), proposed.rowsToDecide(), hint));
    }
}

int runInit(const context& shared, const initOptions& options)
{
    const std::vector<busName> buses = busesOf(options);
    confirmFile(options);
    proposal proposed(host::currentConfiguration());
    for (const busName& bus : buses) {
        proposed.add(bus, findParts(bus, host::iic::sysfs(),
                                    {.hubsAreCertain = options.hubs,
                                     .asking = {.speedKhz = options.speedKhz, .waitNs = options.waitNs}}));
    }
    if (!options.output.empty()) {
        writeFile(options.output, proposed.text());
    }
    report(shared, options, proposed);
    return exitDone;
}

} // namespace

void addInit(command program, context& shared)
{
    const auto options = std::make_shared<initOptions>();
    command verb = addVerb(program, "init", "propose a kest.toml from what answers on buses",
                           "The kernel's names and the width proof of memory parts give rows that are\n"
                           "ready. Parts that can't be told apart without writing to them become comments.\n"
                           "The file says what is proved and what is a guess. Nothing is written to any\n"
                           "part. --hubs sends bytes to 80 = 0x40, 82 = 0x41, 88 = 0x44 and 8A = 0x45 that\n"
                           "are a question to a 922 hub and data to another part: use it where you know\n"
                           "that these are hubs.");
    verb.texts("BUS", options->buses, "/dev/i2c-N, i2c-N, sim:NAME, or devices on the buses", "").required();
    addNode(verb, options->node);
    verb.text("-o,--output", options->output, "file to write (default: standard output)", "FILE");
    verb.flag("--hubs", options->hubs, "parts at the addresses of hubs are 922 hubs: look behind them");
    addDryRun(verb);
    verb.flag("-y,--yes", options->yes, "replace the file without a question");
    addSpeed(verb, options->speedKhz, usualSpeed);
    addWait(verb, options->waitNs);
    runs(verb, shared, options, runInit);
}

} // namespace kest::tools
