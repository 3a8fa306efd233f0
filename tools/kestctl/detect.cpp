#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "kest/detect.h"
#include "kest/seeprom.h"
#include "platform/host/configuration/configuration.h"
#include "tools/common/attributes.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/machine.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/presence.h"
#include "tools/kestctl/busareas.h"

namespace kest::tools
{
namespace
{

/// What was found out about one device.
struct finding {
    device which;
    failure why; ///< exitDone: it is there
};

/// A machine that can't be opened fails all its devices alike: that is said once, as a `failure`.
void checkMachineOf(const std::vector<std::string>& names)
{
    const auto isSimulated = [](const std::string& name) {
        try {
            return findDevice(name).bus.starts_with("sim:");
        } catch (const failure&) {
            // which its own line says
            return false;
        }
    };
    if (std::ranges::any_of(names, isSimulated)) {
        checkConfiguredMachine();
    }
}

finding look(const std::string& name, std::uint32_t speedKhz)
{
    finding result;
    result.which.label = name;
    try {
        result.which = findDevice(name);
        result.why = {.code = exitDone, .what = ""};
        checkPresence(result.which, speedKhz);
    } catch (const failure& why) {
        result.why = why;
    }
    return result;
}

nlohmann::ordered_json asJson(const finding& found)
{
    nlohmann::ordered_json row{
        {"device", found.which.label}, {"text", found.which.text}, {"present", found.why.code == exitDone}};
    if (!found.which.links.empty()) {
        row["type"] = found.which.end().type->chip;
        row["address"] = found.which.end().address;
    }
    if (found.why.code != exitDone) {
        row["error"] = errorJson(found.why);
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

} // namespace

int runDetect(const context& shared, const detectOptions& options)
{
    int code = exitDone;
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    const std::vector<std::string> names = options.devices.empty() ? allDevices() : options.devices;
    checkMachineOf(names);
    for (const std::string& name : names) {
        const finding found = look(name, options.speedKhz);
        if (found.why.code != exitDone) {
            std::fputs((failureLine("kestctl", found.why) + "\n").c_str(), stderr);
        } else if (!shared.json) {
            standardOutput().text(fmt::format("{}: {} at {}: {}\n", escaped(found.which.label),
                                              found.which.end().type->chip, addressText(found.which.end().address),
                                              standardOutput().paint(colour::green, "present")));
        }
        rows.push_back(asJson(found));
        code = code == exitDone ? found.why.code : code;
    }
    if (shared.json) {
        standardOutput().json({{"devices", rows}});
    }
    return code;
}

} // namespace kest::tools
