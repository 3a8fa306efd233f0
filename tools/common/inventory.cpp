#include "tools/common/inventory.h"

#include <algorithm>
#include <fmt/core.h>
#include <tuple>

#include "platform/host/configuration/configuration.h"
#include "tools/common/failure.h"
#include "tools/common/machine.h"

namespace kest::tools
{
namespace
{

auto place(const inventoryItem& item)
{
    std::vector<unsigned> way;
    for (const hubStep& step : item.hubs) {
        way.insert(way.end(), {step.address, step.port});
    }
    way.push_back(item.address);
    return std::tuple(item.bus.node == "L" ? "" : item.bus.node, item.bus.path, way);
}

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
    std::ranges::stable_sort(m_items, {}, place);
}

const inventoryItem* inventory::find(const busName& bus, std::uint8_t address) const
{
    const auto found = std::ranges::find_if(m_items, [&](const inventoryItem& item) {
        return item.bus.path == bus.path && item.bus.node == bus.node && item.hubs.empty() && item.address == address;
    });
    return found == m_items.end() ? nullptr : &*found;
}

void inventory::add(inventoryItem item)
{
    const auto same = std::ranges::find(m_items, place(item), place);
    if (same == m_items.end()) {
        m_items.push_back(std::move(item));
    } else if (same->name.empty() && !item.name.empty()) {
        *same = std::move(item);
    }
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
        add(std::move(item));
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
                add({.bus = {"sim:" + chip.bus, node},
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
