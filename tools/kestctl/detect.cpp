#include "tools/kestctl/detect.h"

#include <algorithm>
#include <fmt/core.h>

#include "platform/host/configuration/configuration.h"
#include "tools/common/buslines.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/guard.h"
#include "tools/common/interrupt.h"
#include "tools/common/json.h"
#include "tools/common/machine.h"
#include "tools/common/number.h"
#include "tools/common/operation.h"
#include "tools/common/output.h"
#include "tools/common/presence.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

struct detectOptions {
    std::vector<std::string> devices; ///< empty: those of the device table
    std::uint32_t speedKhz = 0;
    std::uint64_t waitNs = usualWaitNs; ///< for others who have a device
    bool force = false; ///< reads a device behind a hub as the type that its text has
};

/// The result for one device.
struct finding {
    device which;
    failure why; ///< exitDone: it is present
};

/// A machine that can't be opened makes all its devices fail. Reports that once, as a `failure`.
void checkMachineOf(const std::vector<std::string>& names)
{
    const auto isSimulated = [](const std::string& name) {
        try {
            return findDevice(name).bus.starts_with("sim:");
        } catch (const failure&) {
            // its own line reports it
            return false;
        }
    };
    if (std::ranges::any_of(names, isSimulated)) {
        checkConfiguredMachine();
    }
}

finding look(const std::string& name, const detectOptions& options)
{
    finding result;
    result.which.label = name;
    try {
        result.which = findDevice(name);
        result.why = {.code = exitDone, .what = ""};
        refuseUnservedChain(result.which);
        if (result.which.behindHub()) {
            // it is detected by a read, which its type decides on
            refuseOtherType(result.which, options.force);
        }
        const deviceOperation held(result.which,
                                   {.use = operationUse::read, .doing = "detect", .waitNs = options.waitNs});
        checkPresence(result.which, options.speedKhz);
    } catch (const failure& why) {
        if (isInterruption(why)) {
            throw;
        }
        result.why = why;
    }
    return result;
}

jsonValue asJson(const finding& found)
{
    jsonValue row{{"device", found.which.label}, {"text", found.which.text}, {"present", found.why.code == exitDone}};
    if (!found.which.links.empty()) {
        row.add("type", found.which.end().type->chip);
        row.add("address", found.which.end().address);
        row.add("address7", found.which.end().address >> 1U);
    }
    if (found.why.code != exitDone) {
        row.add("error", errorJson(found.why));
    }
    return row;
}

std::vector<std::string> allDevices()
{
    std::vector<std::string> names;
    for (const host::deviceEntry& entry : host::currentConfiguration().devices) {
        names.push_back(entry.name.empty() ? std::to_string(entry.number) : entry.name);
    }
    if (names.empty()) {
        throw wrongUse("the device table is empty", "name a device, or give its device text");
    }
    return names;
}

/// Reports for each device whether it is present. The exit code is that of the first one that is not. A signal ends it
/// behind the device that is under way.
int runDetect(const context& shared, const detectOptions& options)
{
    const interruptWatch signals;
    int code = exitDone;
    jsonList rows;
    const std::vector<std::string> names = options.devices.empty() ? allDevices() : options.devices;
    checkMachineOf(names);
    for (const std::string& name : names) {
        const finding found = look(name, options);
        if (found.why.code != exitDone) {
            showBusesRest();
            std::fputs((failureLine("kestctl", found.why) + "\n").c_str(), stderr);
        } else if (!shared.json) {
            standardOutput().text(fmt::format("{}: {} at {}: {}\n", escaped(found.which.label),
                                              found.which.end().type->chip, addressText(found.which.end().address),
                                              standardOutput().paint(colour::green, "present")));
        }
        rows.push_back(asJson(found));
        code = code == exitDone ? found.why.code : code;
        throwIfInterrupted(found.which.label, "detect");
    }
    if (shared.json) {
        standardOutput().json({{"devices", rows}});
    }
    return code;
}

} // namespace

void addDetect(command program, context& shared)
{
    const auto options = std::make_shared<detectOptions>();
    command verb = addVerb(program, "detect", "check whether devices are present",
                           "A SEEPROM behind a hub is detected by reading one of its bytes. The exit code is\n"
                           "0 when all devices are present, else that of the first one that is not: 4 when\n"
                           "nothing answers.");
    verb.texts("DEVICE", options->devices, "names, numbers or device texts; none: the whole device table", "");
    addSpeed(verb, options->speedKhz, "default: the bus's own");
    addWait(verb, options->waitNs);
    verb.flag("--force", options->force, forcedType + ", for a device behind a hub");
    runs(verb, shared, options, runDetect);
}

} // namespace kest::tools
