#include "tools/kestctl/topology.h"

#include <algorithm>
#include <cerrno>
#include <fmt/core.h>
#include <set>
#include <span>
#include <utility>

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

/// Devices that follow one another in the inventory.
using itemRange = std::span<const inventoryItem>;

/// The first items, as long as they are alike.
/// @param key  gets an item; items with the same result are alike
template <typename Key>
itemRange firstRun(itemRange items, Key key)
{
    const auto isOther = [&](const inventoryItem& item) { return key(item) != key(items.front()); };
    return items.first(static_cast<std::size_t>(std::ranges::find_if(items, isOther) - items.begin()));
}

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

    /// @param items  a whole bus, or all that is behind one port
    /// @param depth  how many hubs they are behind
    [[nodiscard]] std::vector<branch> devices(itemRange items, std::size_t depth) const
    {
        std::vector<branch> found;
        while (!items.empty()) {
            const itemRange here = firstRun(items, [depth](const inventoryItem& item) {
                return item.hubs.size() == depth ? item.address : item.hubs[depth].address;
            });
            // what is behind a hub that is not known is not shown
            if (here.front().hubs.size() == depth) {
                found.push_back(deviceBranch(here));
            }
            items = items.subspan(here.size());
        }
        return found;
    }

    [[nodiscard]] branch bus(const busName& which) const
    {
        branch result{.label = escaped(busText(which)),
                      .row = {{"path", which.path}, {"node", which.node}},
                      .branches = devices(m_all.on(which), 0)};
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
        std::set<std::pair<std::string, std::string>> known;
        for (const busName& bus : found) {
            known.emplace(bus.path, bus.node);
        }
        for (const inventoryItem& item : m_all.items()) {
            if (known.emplace(item.bus.path, item.bus.node).second) {
                found.push_back(item.bus);
            }
        }
        return found;
    }

    [[nodiscard]] const std::vector<std::string>& trouble() const { return m_all.trouble(); }

private:
    /// @param items  a device, and what is behind it
    [[nodiscard]] branch deviceBranch(itemRange items) const
    {
        const inventoryItem& item = items.front();
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
        result.branches = ports(items.subspan(1), item.hubs.size());
        return result;
    }

    /// @param items  all that is behind a device
    /// @param depth  how many hubs the device is behind
    [[nodiscard]] std::vector<branch> ports(itemRange items, std::size_t depth) const
    {
        std::vector<branch> found;
        while (!items.empty()) {
            const itemRange behind =
                firstRun(items, [depth](const inventoryItem& item) { return item.hubs[depth].port; });
            const unsigned port = behind.front().hubs[depth].port;
            branch result{
                .label = fmt::format("port {}", port), .row = {{"port", port}}, .branches = devices(behind, depth + 1)};
            if (!result.branches.empty()) {
                found.push_back(std::move(result));
            }
            items = items.subspan(behind.size());
        }
        return found;
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
