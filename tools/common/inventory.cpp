#include "tools/common/inventory.h"

#include <algorithm>
#include <fmt/core.h>
#include <string_view>
#include <utility>

#include "platform/host/configuration/configuration.h"
#include "tools/common/failure.h"
#include "tools/common/machine.h"

namespace kest::tools
{
namespace
{

// The local node comes first.
auto placeOf(const busName& bus)
{
    return std::pair(bus.node == "L" ? std::string_view() : std::string_view(bus.node), std::string_view(bus.path));
}

auto busOf(const inventoryItem& item) { return placeOf(item.bus); }

/// A byte for each address and port on the way, and the address.
std::string wayTo(const inventoryItem& item)
{
    std::string way;
    for (const hubStep& step : item.hubs) {
        way += {static_cast<char>(step.address), static_cast<char>(step.port)};
    }
    return way + static_cast<char>(item.address);
}

auto place(const inventoryItem& item) { return std::pair(busOf(item), wayTo(item)); }

/// The node of a device text that the configuration maps to a node of the machine; empty when none does.
std::string nodeOf(const std::string& simNode)
{
    const auto& nodes = host::currentConfiguration().nodes;
    const auto found = std::ranges::find(nodes, simNode, &host::nodeMapping::simNode);
    if (simNode.empty()) {
        return "L";
    }
    return found == nodes.end() ? "" : std::to_string(found - nodes.begin());
}

std::string chipName(const std::string& machineType)
{
    return machineType == "HUB922" ? findType(KEST_DEV_922HUB)->chip : machineType;
}

} // namespace

inventory::inventory()
{
    addTable();
    addMachine();
    sort();
}

// Of several at one place the first is kept, or the first with a name.
void inventory::sort()
{
    std::ranges::stable_sort(m_items, {}, place);
    std::vector<inventoryItem> kept;
    for (inventoryItem& item : m_items) {
        if (kept.empty() || place(kept.back()) != place(item)) {
            kept.push_back(std::move(item));
        } else if (kept.back().name.empty() && !item.name.empty()) {
            kept.back() = std::move(item);
        }
    }
    m_items = std::move(kept);
}

std::span<const inventoryItem> inventory::on(const busName& bus) const
{
    return {std::ranges::lower_bound(m_items, placeOf(bus), {}, busOf),
            std::ranges::upper_bound(m_items, placeOf(bus), {}, busOf)};
}

const inventoryItem* inventory::find(const busName& bus, std::uint8_t address) const
{
    const std::span<const inventoryItem> here = on(bus);
    const auto found = std::ranges::find_if(
        here, [address](const inventoryItem& item) { return item.hubs.empty() && item.address == address; });
    return found == here.end() ? nullptr : &*found;
}

void inventory::addDevice(const device& which, const std::string& name)
{
    std::vector<hubStep> way;
    for (const deviceLink& link : which.links) {
        inventoryItem item{.bus = {which.bus, which.node},
                           .hubs = way,
                           .address = link.address,
                           .chip = link.type->chip,
                           .name = {},
                           .number = 0,
                           .text = {}};
        if (&link == &which.end()) {
            item.name = name;
            item.number = which.number;
            item.text = which.text;
        }
        m_items.push_back(std::move(item));
        way.push_back({link.address, link.port});
    }
}

void inventory::addTable()
{
    for (const host::deviceEntry& entry : host::currentConfiguration().devices) {
        try {
            device which = parseDeviceText(entry.location);
            which.number = entry.number;
            if (which.node == "l") {
                which.node = "L";
            }
            addDevice(which, entry.name);
        } catch (const failure& why) {
            m_trouble.push_back(
                fmt::format("device {}: {}", entry.name.empty() ? std::to_string(entry.number) : entry.name, why.what));
        }
    }
}

void inventory::addMachine()
{
    if (host::currentConfiguration().machineFolder.empty()) {
        return;
    }
    try {
        for (const sim::chipInfo& chip : openConfiguredMachine()->chips()) {
            const std::string node = nodeOf(chip.node);
            std::vector<hubStep> way;
            if (chip.behindHub) {
                way.push_back({chip.hubAddress, chip.port});
            }
            if (!node.empty()) {
                m_items.push_back({.bus = {"sim:" + chip.bus, node},
                                   .hubs = way,
                                   .address = chip.address,
                                   .chip = chipName(chip.type),
                                   .name = {},
                                   .number = 0,
                                   .text = {}});
            }
        }
    } catch (const failure& why) {
        m_trouble.push_back(why.what);
    }
}

} // namespace kest::tools
