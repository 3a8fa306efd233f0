#include "tools/kestctl/topology.h"

#include <algorithm>
#include <cerrno>
#include <fmt/core.h>

#include "tools/common/advice.h"
#include "tools/common/bus.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/inventory.h"
#include "tools/common/json.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/presence.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

struct topologyOptions {
    bool probe = false; ///< check whether each device is present
};

/// A bus, a device, or a port of a hub, and what is connected to it.
struct branch {
    std::string label;
    jsonValue row;
    bool isDevice = false;
    std::vector<branch> branches;
};

std::string trimmed(const std::string& text) { return text.substr(0, text.find_last_not_of(' ') + 1); }

bool sameBus(const busName& one, const busName& other) { return one.path == other.path && one.node == other.node; }

/// The state of something without a device text. An adapter may be unable to ask it.
const char* stateAt(const busName& bus, std::uint8_t address)
{
    const int error = errnoAt(bus, address);
    return error == 0 ? "present" : error == ENXIO ? "absent" : "failed";
}

/// The state shown after a device with --probe.
const char* answer(const inventoryItem& item, const std::string& text)
{
    try {
        // no device text: a hub, or a chip of the machine on the bus itself
        if (text.empty()) {
            return item.hubs.empty() ? stateAt(item.bus, item.address) : "";
        }
        checkPresence(parseDeviceText(text));
        return "present";
    } catch (const failure& why) {
        return why.code == exitAbsent ? "absent" : why.code == exitWrongUse ? "" : "failed";
    }
}

class treeBuilder
{
public:
    explicit treeBuilder(bool probe) : m_probe(probe) {}

    /// The devices of one bus that are reached through `hubs`.
    [[nodiscard]] std::vector<branch> devices(const busName& bus, const std::vector<hubStep>& hubs) const
    {
        std::vector<branch> found;
        for (const inventoryItem& item : m_all.items()) {
            if (sameBus(item.bus, bus) && item.hubs == hubs) {
                found.push_back(deviceBranch(item));
            }
        }
        return found;
    }

    [[nodiscard]] branch bus(const busName& which) const
    {
        branch result{.label = escaped(busText(which)),
                      .row = {{"path", which.path}, {"node", which.node}},
                      .branches = devices(which, {})};
        if (const std::string limits = adapterText(which); !limits.empty()) {
            result.label += "  (" + limits + ")";
            result.row.add("adapter", limits);
        }
        return result;
    }

    /// Existing buses, and those that the device table names.
    [[nodiscard]] std::vector<busName> buses() const
    {
        std::vector<busName> found = allBuses();
        for (const inventoryItem& item : m_all.items()) {
            if (std::ranges::none_of(found, [&item](const busName& bus) { return sameBus(bus, item.bus); })) {
                found.push_back(item.bus);
            }
        }
        return found;
    }

    [[nodiscard]] const std::vector<std::string>& trouble() const { return m_all.trouble(); }

private:
    [[nodiscard]] branch deviceBranch(const inventoryItem& item) const
    {
        branch result;
        std::string label = fmt::format("{}  {:<8} {}", addressText(item.address), item.chip, escaped(item.name));
        result.row = {{"address", item.address}, {"address7", item.address >> 1U}, {"type", item.chip},
                      {"name", item.name},       {"number", item.number},          {"text", item.text}};
        const std::string state = m_probe ? answer(item, item.text) : "";
        if (!state.empty()) {
            label =
                trimmed(label) + "  " + standardOutput().paint(state == "present" ? colour::green : colour::red, state);
            result.row.add("state", state);
        }
        result.label = trimmed(label);
        result.isDevice = true;
        addPorts(item, result);
        return result;
    }

    void addPorts(const inventoryItem& hub, branch& result) const
    {
        std::vector<hubStep> way = hub.hubs;
        way.push_back({hub.address, 0});
        for (unsigned port = 0; port <= 0xFF; ++port) {
            way.back().port = static_cast<std::uint8_t>(port);
            branch behind{
                .label = fmt::format("port {}", port), .row = {{"port", port}}, .branches = devices(hub.bus, way)};
            if (!behind.branches.empty()) {
                result.branches.push_back(std::move(behind));
            }
        }
    }

    inventory m_all;
    bool m_probe;
};

void show(const branch& what, const std::string& indent)
{
    for (const branch& below : what.branches) {
        const bool last = &below == &what.branches.back();
        standardOutput().text(indent + (last ? "`-- " : "|-- ") + below.label + "\n");
        show(below, indent + (last ? "    " : "|   "));
    }
}

jsonValue asJson(const branch& what)
{
    jsonValue row = what.row;
    jsonList below;
    for (const branch& next : what.branches) {
        below.push_back(asJson(next));
    }
    if (!what.isDevice) {
        row.add("devices", below);
    } else if (!below.empty()) {
        row.add("ports", below);
    }
    return row;
}

/// Shows buses, hubs with their ports, and devices: those of the device table and of the simulated machine.
int runTopology(const context& shared, const topologyOptions& options)
{
    const treeBuilder builder(options.probe);
    jsonList rows;
    for (const busName& name : builder.buses()) {
        const branch bus = builder.bus(name);
        rows.push_back(asJson(bus));
        if (!shared.json) {
            standardOutput().text(standardOutput().paint(colour::bold, bus.label) + "\n");
            show(bus, "");
        }
    }
    if (shared.json) {
        standardOutput().json({{"buses", rows}});
    }
    for (const std::string& what : builder.trouble()) {
        std::fputs((failureLine("kestctl", wrongUse(what)) + "\n").c_str(), stderr);
    }
    return builder.trouble().empty() ? exitDone : exitWrongUse;
}

} // namespace

void addTopology(command program, context& shared)
{
    const auto options = std::make_shared<topologyOptions>();
    command verb = addVerb(program, "topology", "show buses, hubs with their ports, and devices as a tree",
                           "Devices come from the device table and the simulated machine.");
    verb.flag("--probe", options->probe, "check whether each device is present");
    runs(verb, shared, options, runTopology);
}

} // namespace kest::tools
