#include "tools/kestctl/simbus.h"

#include <algorithm>
#include <fmt/core.h>
#include <string_view>
#include <vector>

#include "base/guess.h"
#include "platform/host/configuration/configuration.h"
#include "tools/common/failure.h"
#include "tools/common/output.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{

std::string simBusName(const std::string& name)
{
    constexpr std::string_view simulated = "sim:";
    return name.starts_with(simulated) ? name.substr(simulated.size()) : name;
}

std::string machineNode(sim::machine& machine, const std::string& node)
{
    const std::vector<std::string> known = machine.nodes();
    if (std::ranges::find(known, node) != known.end()) {
        return node;
    }
    if (node == "L") {
        return "";
    }
    const auto& mapped = host::currentConfiguration().nodes;
    const bool isNumber = node.size() == 1 && node[0] >= '0' && node[0] <= '7';
    if (isNumber && !mapped.at(static_cast<std::size_t>(node[0] - '0')).simNode.empty()) {
        return mapped.at(static_cast<std::size_t>(node[0] - '0')).simNode;
    }
    std::string names;
    for (const std::string& name : known) {
        names += (names.empty() ? "" : ", ") + (name.empty() ? "L" : name);
    }
    throw failure{
        .code = exitAbsent, .what = "the simulated machine has no such node; it has " + names, .device = node};
}

std::string busOnNode(sim::machine& machine, const std::string& name, const std::string& node)
{
    const std::string bus = simBusName(name);
    const std::string on = node.empty() ? node : machineNode(machine, node);
    return on.empty() ? bus : on + ":" + bus;
}

void addMachineNode(command verb, std::string& node, const std::string& help)
{
    verb.text("--node", node, help + ": its name in the machine, or L or 0 to 7", "NODE");
}

void requireBus(sim::machine& machine, const std::string& name)
{
    const std::size_t colon = name.find(':');
    const bool local = colon == std::string::npos;
    if (colon != 0 &&
        machine.findBus(local ? name : name.substr(colon + 1), local ? "" : name.substr(0, colon)) != nullptr) {
        return;
    }
    std::string known;
    std::vector<std::string> names;
    for (const std::string& node : machine.nodes()) {
        for (const std::string& bus : machine.busNames(node)) {
            names.push_back(node.empty() ? bus : fmt::format("{}:{}", node, bus));
            known.append(known.empty() ? "" : ", ").append(names.back());
        }
    }
    throw failure{.code = exitAbsent,
                  .what = "the simulated machine has no such bus; it has " + known,
                  .tryThis = didYouMean(name, names),
                  .device = name};
}

void reportDone(const context& shared, const jsonValue& json, const std::string& text)
{
    if (shared.json) {
        standardOutput().json(json);
    } else {
        standardOutput().text(text + "\n");
    }
}

} // namespace kest::tools
