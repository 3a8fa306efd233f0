#include "tools/kestctl/simwave.h"

#include <cerrno>
#include <filesystem>
#include <fmt/core.h>
#include <string>

#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/machine.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/simbus.h"

namespace kest::tools
{
namespace
{

struct waveOptions {
    std::string bus;
    std::string node; ///< empty: `bus` says all
    std::string file; ///< to start
};

int runWaveStart(const context& shared, const waveOptions& options)
{
    const auto machine = openConfiguredMachine();
    const auto bus = busOnNode(*machine, options.bus, options.node);
    requireBus(*machine, bus);
    const std::filesystem::path file = std::filesystem::absolute(options.file);
    if (preferred().dryRun ? !machine->mayStartWave(bus, file) : !machine->startWave(bus, file)) {
        if (errno == EEXIST) {
            throw failure{.code = exitRefused,
                          .what = "what is there is no waveform, and is not overwritten",
                          .tryThis = "name a new file",
                          .device = file.string(),
                          .step = "record"};
        }
        throw systemFailure(errno, "record", file.string());
    }
    if (preferred().dryRun) {
        reportWould(shared, {{"bus", bus}, {"file", file.string()}},
                    fmt::format("sim:{} would be recorded into {}", escaped(bus), escaped(file.string())));
        return exitDone;
    }
    reportDone(shared, {{"bus", bus}, {"file", file.string()}},
               fmt::format("recording sim:{} into {} until 'kestctl sim wave stop {}'", escaped(bus),
                           escaped(file.string()), escaped(bus)));
    return exitDone;
}

int runWaveStop(const context& shared, const waveOptions& options)
{
    const auto machine = openConfiguredMachine();
    const auto bus = busOnNode(*machine, options.bus, options.node);
    requireBus(*machine, bus);
    const bool rehearses = preferred().dryRun;
    const bool stopped = rehearses ? machine->isRecording(bus) : machine->stopWave(bus);
    if (!stopped) {
        if (rehearses || errno == ENOENT) {
            throw failure{.what = "nothing is being recorded", .device = "sim:" + bus, .step = "sim wave stop"};
        }
        throw systemFailure(errno, "sim wave stop", "sim:" + bus);
    }
    if (rehearses) {
        reportWould(shared, {{"bus", bus}, {"stopped", false}}, "sim:" + escaped(bus) + ": recording would end");
        return exitDone;
    }
    reportDone(shared, {{"bus", bus}, {"stopped", true}}, "sim:" + escaped(bus) + ": recording ended");
    return exitDone;
}

} // namespace

void addSimWave(command area, context& shared)
{
    command wave = addVerb(area, "wave", "record a bus's waveform as a VCD file (SCL, SDA)");
    wave.requireSubcommand();

    const auto starting = std::make_shared<waveOptions>();
    command start = addVerb(wave, "start", "record what all processes send until stopped");
    start.text("BUS", starting->bus, "name of the bus", "").required();
    start.text("FILE", starting->file, "VCD file to write", "").required();
    addMachineNode(start, starting->node, "the bus's node");
    addDryRun(start);
    runs(start, shared, starting, runWaveStart);

    const auto stopping = std::make_shared<waveOptions>();
    command stop = addVerb(wave, "stop", "end the recording");
    stop.text("BUS", stopping->bus, "name of the bus", "").required();
    addMachineNode(stop, stopping->node, "the bus's node");
    addDryRun(stop);
    runs(stop, shared, stopping, runWaveStop);
}

} // namespace kest::tools
