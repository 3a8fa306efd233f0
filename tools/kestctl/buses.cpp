#include "tools/kestctl/buses.h"

#include <cstdio>

#include "tools/common/buslist.h"
#include "tools/common/failure.h"
#include "tools/common/output.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

int runBuses(const context& shared)
{
    std::vector<failure> trouble;
    jsonList rows;
    for (const busDescription& bus : describeBuses(host::iic::sysfs(), trouble)) {
        if (shared.json) {
            rows.push_back(busJson(bus));
        } else {
            standardOutput().text(busLines(bus));
        }
    }
    if (shared.json) {
        standardOutput().json({{"buses", rows}});
    }
    for (const failure& why : trouble) {
        std::fputs((failureLine("kestctl", why) + "\n").c_str(), stderr);
    }
    return trouble.empty() ? exitDone : trouble.front().code;
}

} // namespace

void addBuses(command program, context& shared)
{
    runs(addVerb(program, "buses", "list the kernel's adapters and the simulated buses",
                 "With name, clock where the device tree has it, functions, and the devices and\n"
                 "drivers that the kernel knows. Nothing goes over any bus."),
         shared, runBuses);
}

} // namespace kest::tools
