#include "tools/common/machine.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fmt/core.h>
#include <stdexcept>
#include <system_error>

#include "base/guess.h"
#include "platform/host/configuration/configuration.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

/// Errors that no change of the machine's files mends.
bool isShortage(int error)
{
    constexpr std::array shortages{ENOSPC, EDQUOT, EFBIG, ENOMEM, EMFILE, ENFILE};
    return std::ranges::find(shortages, error) != shortages.end();
}

} // namespace

failure machineFailure(const std::system_error& why)
{
    const int error = why.code().value();
    if (error == EACCES || error == EPERM || error == EROFS) {
        return {
            .code = exitRefused, .what = why.what(), .tryThis = "run it as a user who may use the machine's folder"};
    }
    const bool busIsUnusable = error == ENODEV;
    if (busIsUnusable || isShortage(error)) {
        return {.what = why.what()};
    }
    return wrongUse(why.what(), "repair the machine's folder");
}

std::shared_ptr<sim::machine> openConfiguredMachine()
{
    const host::configuration& settings = host::currentConfiguration();
    if (settings.machineFolder.empty()) {
        throw wrongUse("no simulated machine is configured",
                       "'kestctl sim new DIR' makes one; then set KEST_CONFIG=DIR/kest.toml");
    }
    try {
        auto machine = sim::openMachine(settings.machineFolder, settings.machineRealTime);
        machine->checkBuses();
        return machine;
    } catch (const std::system_error& why) {
        throw machineFailure(why);
    } catch (const std::runtime_error& why) {
        throw wrongUse(why.what(), "repair the machine's folder");
    }
}

void checkConfiguredMachine()
{
    if (!host::currentConfiguration().machineFolder.empty()) {
        (void)openConfiguredMachine();
    }
}

std::optional<failure> simulatedBusTrouble(const std::string& path, const std::string& node)
{
    constexpr std::string_view simulated = "sim:";
    if (!path.starts_with(simulated)) {
        return {};
    }
    try {
        const auto machine = openConfiguredMachine();
        const bool local = node == "L" || node == "l";
        const std::string simNode =
            local ? "" : host::currentConfiguration().nodes.at(static_cast<std::size_t>(node.front() - '0')).simNode;
        // not mapped
        if (!local && simNode.empty()) {
            return {};
        }
        std::string known;
        const std::vector<std::string> names = machine->busNames(simNode);
        for (const std::string& name : names) {
            if (name == path.substr(simulated.size())) {
                return {};
            }
            known += (known.empty() ? "" : ", ") + name;
        }
        return failure{
            .code = exitAbsent,
            .what = fmt::format("the simulated machine has no such bus{}{}", known.empty() ? "" : "; it has ", known),
            .tryThis = didYouMean(path.substr(simulated.size()), names)};
    } catch (const failure& why) {
        const bool none = host::currentConfiguration().machineFolder.empty();
        return failure{.code = none ? exitAbsent : why.code, .what = why.what, .tryThis = why.tryThis};
    }
}

} // namespace kest::tools
