#include "tools/kestctl/sim.h"

#include "tools/common/failure.h"
#include "tools/common/machine.h"
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
    openConfiguredMachine()->powerCycle();
    reportDone(shared, {{"power_cycled", true}},
               "registers are at their defaults, hubs are out of reset; images are as they were");
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
    runs(addVerb(area, "power-cycle", "registers to their defaults, hubs out of reset, held lines free; images stay"),
         shared, runSimPowerCycle);
}

} // namespace kest::tools
