#include <array>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "kest/version.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/commit.h"
#include "tools/common/buslines.h"
#include "tools/common/commandline.h"
#include "tools/common/failure.h"
#include "tools/common/guard.h"
#include "tools/common/output.h"
#include "tools/common/startup.h"
#include "tools/kestctl/buses.h"
#include "tools/kestctl/complete.h"
#include "tools/kestctl/context.h"
#include "tools/kestctl/copy.h"
#include "tools/kestctl/detect.h"
#include "tools/kestctl/devices.h"
#include "tools/kestctl/errors.h"
#include "tools/kestctl/globaloptions.h"
#include "tools/kestctl/init.h"
#include "tools/kestctl/message.h"
#include "tools/kestctl/port.h"
#include "tools/kestctl/reset.h"
#include "tools/kestctl/scan.h"
#include "tools/kestctl/seeprom.h"
#include "tools/kestctl/sim.h"
#include "tools/kestctl/thermal.h"
#include "tools/kestctl/topology.h"
#include "tools/kestctl/trace.h"

namespace
{

using namespace kest::tools;

KEST_STARTS_FIRST;

constexpr std::array areas{addSeeprom, addCopy, addMessage, addPort,  addDetect, addThermal, addScan, addTopology,
                           addBuses,   addInit, addDevices, addReset, addErrors, addTrace,   addSim};

constexpr const char* about =
    "Reads and drives IIC devices: serial EEPROMs, LED drivers, I/O expanders,\nsensors, hubs.";

constexpr const char* footer = R"(DEVICE is a name or number of the device table ('kestctl devices') or a device
text, whose types, addresses and ports are hexadecimal:
  PATH,NODE,TYPE,ADDRESS                  sim:planar,L,2C0256,A0
  PATH,NODE,922,HUB,PORT,TYPE,ADDRESS     /dev/i2c-1,L,922,80,3,2C0128,A2
PATH is /dev/i2c-N or sim:BUS; NODE is L (local) or 0 to 7. Addresses are in the
8-bit form: A0 is the chip that other tools call 0x50. On the local node their
form will do, with 7-bit addresses and parts by name (24c256, pca9552, lm75):
  BUS:PART@ADDR7                          i2c-1:24c256@50
  BUS:922@ADDR7/PORT:PART@ADDR7           sim:planar:922@40/3:24c128@51
Types: 1C0002 24C02, 2C0032 24C32, 2C0064 24C64, 2C0128 24C128, 2C0256 24C256,
2C0512 24C512, 9551 9552 9554 9555 PCA955x, 75 LM75, 92 LM92, 922 hub.

Try it without hardware:
  kestctl sim new demo && export KEST_CONFIG=$PWD/demo/kest.toml
  kestctl scan sim:planar
  kestctl seeprom read planar-vpd --length 64
  kestctl detect planar-vpd
  kestctl thermal read inlet-temp

Exit codes: 0 done, 1 failed, 2 wrong use, 3 refused (not permitted or not
confirmed), 4 device absent, 5 verify failed, 6 busy.)";

void setUp(commandLine& line, context& shared)
{
    line.useNarrowHelp();
    command program = line.root();
    program.requireSubcommand();
    program.fallThrough();
    program.footer(footer);
    program.versionFlag(std::string("kestctl ") + kest_version());
    addGlobalOptions(program, shared);
    for (const auto& add : areas) {
        add(program, shared);
    }
}

/// Prints one line for people in place of an entry's JSON. The failure itself, with its log id, is reported at the end.
void tellSpooledEntry(const std::string& problem)
{
    std::fputs((failureLine("kestctl", {.what = "the error log can't be used: " + problem,
                                        .tryThis = "entries wait in its spool"}) +
                "\n")
                   .c_str(),
               stderr);
}

/// Shows what is left of the transactions when a command ends, before its failure is told.
struct busShowing {
    busShowing() = default;
    busShowing(const busShowing&) = delete;
    busShowing& operator=(const busShowing&) = delete;
    ~busShowing() { showBusesRest(); }
};

int parseAndRun(int count, char** words, context& shared)
{
    commandLine line(about, "kestctl");
    setUp(line, shared);
    const commandLine::outcome parsed = line.parse(count, words);
    if (parsed.wrong) {
        throw wrongUse(parsed.complaint,
                       (parsed.meant.empty() ? "" : parsed.meant + " ") + "'" + parsed.command + " --help' shows how");
    }
    if (parsed.help) {
        standardOutput().text(*parsed.help);
        return exitDone;
    }
    if (shared.needsConfiguration && !kest::host::configurationError().empty()) {
        throw wrongUse(kest::host::configurationError(), "repair it, or name another file with --config");
    }
    useGlobalOptions(shared);
    const busShowing shown;
    return shared.action();
}

/// Prints the words that a shell asks for. Whatever goes wrong, there are none: somebody is typing.
int complete(int count, char** words)
{
    try {
        context shared;
        commandLine line(about, "kestctl");
        setUp(line, shared);
        for (const std::string& each : completionLines(line, std::vector<std::string>(words, words + count))) {
            standardOutput().text(each + "\n");
        }
        standardOutput().flush();
    } catch (const failure&) {
        return exitDone;
    } catch (const std::exception&) {
        return exitDone;
    }
    return exitDone;
}

} // namespace

int main(int count, char** words)
{
    // for the shells' scripts alone: not in the help
    constexpr std::string_view completionVerb = "complete";
    if (count > 1 && words[1] == completionVerb) {
        return complete(count - 2, words + 2);
    }
    context shared;
    kest::host::tellSpooled(tellSpooledEntry);
    return runGuarded("kestctl", shared.json, [&] { return parseAndRun(count, words, shared); });
}
