#include "tools/common/advice.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/core.h>
#include <string_view>

#include "platform/host/configuration/configuration.h"
#include "platform/host/iic/tools.h"
#include "tools/common/escape.h"
#include "tools/common/machine.h"

namespace kest::tools
{
namespace
{

struct adviceRow {
    int error;
    exitCode code;
    const char* what;
    const char* tryThis;
};

const std::array adviceRows{
    adviceRow{ENXIO, exitAbsent, "nothing answers", "check address and power; 'kestctl scan BUS' shows what does"},
    adviceRow{EIO, exitFailed, "a byte was not acknowledged, or the transfer ended short",
              "try again; a write-protected chip refuses data bytes"},
    adviceRow{ETIME, exitFailed, "no answer in time: the bus is held, the chip stayed busy, or there is none",
              "'kestctl reset BUS' frees a held bus, 'kestctl scan BUS' shows what answers"},
    adviceRow{ENODATA, exitFailed, "the hub reports an error", ""},
    adviceRow{ENODEV, exitAbsent, "the bus is gone, or its node is not mapped", "check the node map in kest.toml"},
    adviceRow{ENOENT, exitAbsent, "there is no such bus", "'kestctl topology' shows the buses"},
    adviceRow{EBUSY, exitBusy, "somebody else holds it", "try again in a moment"},
    adviceRow{EACCES, exitRefused, "not permitted", "run it as a user who may use the bus or file"},
    adviceRow{EPERM, exitRefused, "not permitted", "run it as a user who may use the bus or file"},
    adviceRow{ENOMEM, exitFailed, "no memory or open file is left", "try again when less is running"},
    adviceRow{EROFS, exitRefused, "read-only file system", ""},
    adviceRow{ENOSYS, exitFailed, "the adapter or the chain of devices can't do that", ""},
};

/// The bus as the words of a command.
std::string busWords(const busName& bus)
{
    if (bus.path.empty()) {
        return "BUS";
    }
    return shellWord(bus.path) + (isLocal(bus.node) ? "" : " --node " + bus.node);
}

/// What to do about a missing kernel bus. kestctl itself knows only the adapters in /dev.
std::string linuxBusHint(const busName& bus)
{
    const std::int32_t node = nodeNumber(bus.node);
    const std::string prefix =
        node < 0 ? "" : host::currentConfiguration().nodes.at(static_cast<std::size_t>(node)).pathPrefix;
    return fmt::format("'ls {}i2c-*' shows the adapters; the kernel's module i2c-dev makes them",
                       shellWord(prefix + "/dev/"));
}

} // namespace

std::string adapterText(const busName& bus)
{
    const std::vector<std::string> limits =
        bus.path.empty() ? std::vector<std::string>{} : host::iic::adapterLimits(bus.path, nodeNumber(bus.node));
    std::string text;
    for (const std::string& limit : limits) {
        text += (text.empty() ? "adapter: " : "; ") + limit;
    }
    return text;
}

void nameBus(std::string& advice, const busName& bus)
{
    constexpr std::string_view placeholder = " BUS'";
    const std::string words = " " + busWords(bus) + "'";
    for (std::size_t at = 0; (at = advice.find(placeholder, at)) != std::string::npos; at += words.size()) {
        advice.replace(at, placeholder.size(), words);
    }
}

errnoAdvice adviceFor(int error, const busName& bus)
{
    const auto* row = std::ranges::find(adviceRows, error, &adviceRow::error);
    errnoAdvice advice = row == adviceRows.end() ? errnoAdvice{exitFailed, std::strerror(error), ""}
                                                 : errnoAdvice{row->code, row->what, row->tryThis};
    const bool lost = error == ENOENT || error == ENODEV;
    if (const auto trouble = lost ? simulatedBusTrouble(bus.path, bus.node) : std::nullopt) {
        return {trouble->code, trouble->what, trouble->tryThis};
    }
    if (const auto trouble =
            error == EACCES ? host::iic::lockFolderTrouble(bus.path, nodeNumber(bus.node)) : std::string();
        !trouble.empty()) {
        return {advice.code, trouble, ""};
    }
    if (error == ENOENT && bus.path.starts_with("/dev/")) {
        advice.tryThis = linuxBusHint(bus);
    }
    // which needs no row in the node map
    if (error == ENODEV && !bus.node.empty() && isLocal(bus.node)) {
        advice = {advice.code, "the bus is gone",
                  bus.path.starts_with("sim:") ? "'kestctl sim fault list' shows whether a fault holds it"
                                               : "'kestctl topology' shows the buses"};
    }
    if (const std::string limits = error == ENOSYS || error == ETIME ? adapterText(bus) : ""; !limits.empty()) {
        advice.what += " (" + limits + ")";
    }
    nameBus(advice.tryThis, bus);
    return advice;
}

} // namespace kest::tools
