/// What is known to be on the buses: the device table's devices, and the chips of the simulated machine.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/common/device.h"

namespace kest::tools
{

/// A hub on the way to a device, and the port that leads to the device.
struct hubStep {
    std::uint8_t address = 0;
    std::uint8_t port = 0;
    bool operator==(const hubStep&) const = default;
};

/// A device of the table, a hub before one, or a chip of the machine that the table doesn't have.
struct inventoryItem {
    busName bus;
    std::vector<hubStep> hubs;
    std::uint8_t address = 0;
    std::string chip; ///< "24C256"
    std::string name; ///< of the device table, or empty
    std::uint32_t number = 0; ///< of the device table, or 0
    std::string text; ///< of the device table, or empty
};

/// All that is known from the current configuration.
class inventory
{
public:
    inventory();

    /// The device at an address of the bus itself; null when none is known.
    [[nodiscard]] const inventoryItem* find(const busName& bus, std::uint8_t address) const;

    /// In the order of bus, way and address: what is behind a hub follows the hub. No two are at one place.
    [[nodiscard]] const std::vector<inventoryItem>& items() const { return m_items; }
    /// Those of one bus, in the same order.
    [[nodiscard]] std::span<const inventoryItem> on(const busName& bus) const;
    /// Why something is left out: rows of the table that are not valid, or a machine that can't be opened.
    [[nodiscard]] const std::vector<std::string>& trouble() const { return m_trouble; }

private:
    void addTable();
    void addMachine();
    void addDevice(const device& which, const std::string& name);
    void sort();

    std::vector<inventoryItem> m_items;
    std::vector<std::string> m_trouble;
};

} // namespace kest::tools
