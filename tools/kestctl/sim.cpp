#include "tools/kestctl/sim.h"

#include "tools/common/failure.h"
#include "tools/common/machine.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/simbus.h"
#include "tools/kestctl/simfault.h"
#include "tools/kestctl/simnew.h"
#include "tools/kestctl/simplay.h"
#include "tools/kestctl/simshow.h"
#include "tools/kestctl/simwave.h"

namespace kest::tools
{
namespace
{

int runSimPowerCycle(const context& shared)
{
    const auto machine = openConfiguredMachine();
    if (preferred().dryRun) {
        machine->checkBuses();
        reportWould(shared, {{"power_cycled", false}}, "registers would be at their defaults, hubs out of reset");
        return exitDone;
    }
    if (!machine->powerCycle()) {
        throw failure{.what = "a bus was left out or is not done: it cannot be used, or the image of a page in a write "
                              "cycle cannot be read or written",
                      .tryThis = "see to the machine's folder, and repeat it"};
    }
    reportDone(shared, {{"power_cycled", true}},
               "registers are at their defaults, hubs are out of reset; images are as they were, but for pages whose "
               "write cycles ran");
    return exitDone;
}

} // namespace

void addSim(command program, context& shared)
{
    const command area = addArea(program, "sim", "the simulated machine: make one, look into it, break it");
    addSimNew(area, shared);
    addSimShow(area, shared);
    addSimFault(area, shared);
    addSimWave(area, shared);
    addSimPlay(area, shared);
    const command cycle =
        addVerb(area, "power-cycle", "registers to their defaults, hubs out of reset, held lines free",
                "Images stay, but for pages whose write cycles run: these are torn.");
    addDryRun(cycle);
    runs(cycle, shared, runSimPowerCycle);
}

} // namespace kest::tools
