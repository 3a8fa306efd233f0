#include "tools/common/machine.h"

#include <fmt/format.h>
#include <stdexcept>

#include "platform/host/registry/configuration.h"
#include "tools/common/failure.h"

namespace kest::tools
{

std::shared_ptr<sim::machine> openConfiguredMachine()
{
    const host::configuration& settings = host::currentConfiguration();
    if (settings.machineFolder.empty())
        throw wrongUse("no simulated machine is configured",
                       "'kestctl sim new DIR' makes one; then set KEST_CONFIG=DIR/kest.toml");
    try {
        return sim::openMachine(settings.machineFolder, settings.machineRealTime);
    } catch (const std::runtime_error& why) {
        throw wrongUse(why.what(), "repair the machine's folder");
    }
}

std::string simulatedBusTrouble(const std::string& path, const std::string& node)
{
    constexpr std::string_view simulated = "sim:";
    if (!path.starts_with(simulated))
        return {};
    try {
        const auto        machine = openConfiguredMachine();
        const bool        local   = node == "L" || node == "l";
        const std::string simNode =
            local ? "" : host::currentConfiguration().nodes.at(static_cast<std::size_t>(node.front() - '0')).simNode;
        std::string known;
        for (const std::string& name : machine->busNames(simNode)) {
            if (name == path.substr(simulated.size()))
                return {};
            known += (known.empty() ? "" : ", ") + name;
        }
        return fmt::format("the simulated machine has no such bus{}{}", known.empty() ? "" : "; it has ", known);
    } catch (const failure& why) {
        return why.what;
    }
}

} // namespace kest::tools
