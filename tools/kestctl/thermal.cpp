#include "tools/kestctl/thermal.h"

#include <cerrno>
#include <fmt/core.h>
#include <optional>

#include "kest/thermal.h"
#include "tools/common/device.h"
#include "tools/common/duration.h"
#include "tools/common/entryfailure.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/guard.h"
#include "tools/common/interrupt.h"
#include "tools/common/json.h"
#include "tools/common/operation.h"
#include "tools/common/output.h"
#include "tools/common/when.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

struct thermalReadOptions {
    std::string device;
    std::optional<std::uint64_t> intervalNs; ///< --watch
    std::uint64_t count = 0; ///< of samples with --watch; 0 until stopped
    bool force = false; ///< also where the device table has another type
    std::uint64_t waitNs = usualWaitNs; ///< for others who have the sensor
};

std::uint16_t readSample(const device& which, std::uint64_t waitNs)
{
    KEST_thermal_sensor_info info{.devicePath = which.text.c_str(), .temperature = 0, .status = 0};
    whileHeld(which, {.use = operationUse::read, .doing = "thermal read", .waitNs = waitNs},
              [&] { throwEntry(KEST_thermal_sensor_read_temperature_data(&info), which, "thermal read"); });
    if (info.status != KEST_THERMAL_VALID) {
        throw failure{
            .code = exitFailed, .what = "the reading is not valid", .device = which.label, .step = "thermal read"};
    }
    return info.temperature;
}

/// Degrees Celsius of a sensor's raw word: an LM75's has 9 or 11 bits at the top, an LM92's 13 with alarms below.
double celsius(kest_deviceType type, std::uint16_t raw)
{
    // Two's complement at the top of the word: 13 bits of 1/16 degree, alarms below; or 11 bits of 1/8 degree, of which
    // a part with 9 bits leaves the last two 0.
    const auto word = static_cast<std::int16_t>(raw);
    return type == KEST_DEV_92 ? (word >> 3) / 16.0 : (word >> 5) / 8.0;
}

void show(const context& shared, const device& which, std::uint16_t raw, bool oneLine)
{
    const double degrees = celsius(which.end().type->type, raw);
    if (shared.json) {
        standardOutput().json({{"time", timeText(nowMs())},
                               {"device", which.label},
                               {"type", which.end().type->chip},
                               {"raw", raw},
                               {"celsius", degrees}},
                              oneLine ? -1 : 2);
    } else {
        standardOutput().text(fmt::format("{}{}: {} C (0x{:04X})\n", oneLine ? timeText(nowMs()) + " " : "",
                                          escaped(which.label), degrees, raw));
    }
    standardOutput().flush();
}

/// One sample of many. A failure is reported, and the next sample is taken all the same.
int watchedSample(const context& shared, const device& which, std::uint64_t waitNs)
{
    try {
        show(shared, which, readSample(which, waitNs), true);
    } catch (const failure& why) {
        // stopped while it waited for others
        if (isInterruption(why)) {
            return exitDone;
        }
        // a full disk: no further sample could be written
        if (standardOutput().broken()) {
            throw;
        }
        std::fputs((failureLine("kestctl", why) + "\n").c_str(), stderr);
        if (shared.json) {
            standardOutput().json({{"time", timeText(nowMs())}, {"device", which.label}, {"error", errorJson(why)}},
                                  -1);
        }
        return why.code;
    }
    return exitDone;
}

int watch(const context& shared, const device& which, const thermalReadOptions& options)
{
    const interruptWatch signals;
    int code = exitDone;
    std::uint64_t left = options.count;
    do {
        const int sample = watchedSample(shared, which, options.waitNs);
        code = sample == exitDone ? code : sample;
    } while ((options.count == 0 || --left != 0) && !standardOutput().broken() &&
             pauseUnlessInterrupted(*options.intervalNs));
    return code;
}

/// Prints the sensor's raw word and degrees; with an interval until SIGINT, SIGTERM or SIGHUP, one line (of JSON) for each
/// sample.
int runThermalRead(const context& shared, const thermalReadOptions& options)
{
    const device which = findDevice(options.device);
    refuseUnservedChain(which);
    requireKind(which, {deviceKind::sensor}, "thermal read");
    refuseOtherType(which, options.force);
    if (options.intervalNs) {
        return watch(shared, which, options);
    }
    show(shared, which, readSample(which, options.waitNs), false);
    return exitDone;
}

} // namespace

void addThermal(command program, context& shared)
{
    const command area = addArea(program, "thermal", "temperature sensors (LM75, LM92)");
    const auto options = std::make_shared<thermalReadOptions>();
    command read = addVerb(area, "read", "read a sensor: degrees Celsius and its raw word");
    addDevice(read, options->device);
    read.flag("--force", options->force, forcedType);
    const option watch = read.read(
        "--watch", [options](const std::string& text) { options->intervalNs = parseDuration(text, "--watch"); },
        "read again after this time, in seconds, or with a unit: 500ms; until interrupted, one line per reading",
        "TIME");
    read.number("--count", options->count, "stop after N readings", 1).needs(watch);
    addWait(read, options->waitNs);
    runs(read, shared, options, runThermalRead);
}

} // namespace kest::tools
