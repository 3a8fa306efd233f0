#include "tools/kestctl/reset.h"

#include "tools/common/bus.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

struct resetOptions {
    std::string bus;
    std::string node;
};

int runReset(const context& shared, const resetOptions& options)
{
    const busName bus = findBus(options.bus, options.node);
    if (preferred().dryRun) {
        // what can't be opened can't be reset
        static_cast<void>(openBus(bus));
        reportWould(shared, {{"bus", bus.path}, {"node", bus.node}, {"reset", false}},
                    escaped(busText(bus)) + ": would be reset");
        return exitDone;
    }
    resetBus(bus);
    if (shared.json) {
        standardOutput().json({{"bus", bus.path}, {"node", bus.node}, {"reset", true}});
    } else {
        standardOutput().text(escaped(busText(bus)) + ": reset, the bus is free\n");
    }
    return exitDone;
}

} // namespace

void addReset(command program, context& shared)
{
    const auto options = std::make_shared<resetOptions>();
    command verb =
        addVerb(program, "reset", "free a held bus, by nine clocks and a STOP where the adapter can make them");
    addBus(verb, options->bus, options->node);
    addDryRun(verb);
    runs(verb, shared, options, runReset);
}

} // namespace kest::tools
