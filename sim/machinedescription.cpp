#include "sim/machinedescription.h"

#include "base/hash.h"
#include "base/hex.h"

#include <algorithm>
#include <bit>
#include <sstream>

namespace kest::sim
{

std::string placeText(const tablePlace& place)
{
    return std::to_string(place.line) + ":" + std::to_string(place.column);
}

std::string addressText(std::uint8_t address)
{
    std::string text{"0x"};
    appendHexByte(text, address, upperHexDigits);
    return text;
}

std::string fullName(const std::string& bus, const std::string& node) { return node.empty() ? bus : node + ":" + bus; }

std::string fullName(const busDescription& bus) { return fullName(bus.name, bus.node); }

std::optional<std::size_t> machineDescription::findBus(std::string_view name) const
{
    const auto found = std::ranges::find_if(buses, [name](const busDescription& bus) { return fullName(bus) == name; });
    return found == buses.end() ? std::nullopt : std::optional{static_cast<std::size_t>(found - buses.begin())};
}

std::vector<std::uint8_t> chipDescription::answers() const
{
    std::vector<std::uint8_t> all(addresses);
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = static_cast<std::uint8_t>(lowestAddress + 2 * i);
    }
    return all;
}

bool chipDescription::drivesProtectionOf(const chipDescription& other) const
{
    return kind == chipKind::pca955x && !behindHub && bus == other.bus && address == other.protectChip;
}

bool machineDescription::hasNode(std::string_view node) const
{
    return std::ranges::find(buses, node, &busDescription::node) != buses.end();
}

std::vector<std::string> machineDescription::nodes() const
{
    std::vector<std::string> all;
    for (const auto& bus : buses) {
        if (std::ranges::find(all, bus.node) == all.end()) {
            all.push_back(bus.node);
        }
    }
    return all;
}

std::vector<std::string> machineDescription::busNames(std::string_view node) const
{
    std::vector<std::string> names;
    for (const auto& bus : buses) {
        if (bus.node == node) {
            names.push_back(bus.name);
        }
    }
    return names;
}

bool machineDescription::concerns(const faultDescription& what, std::size_t bus) const
{
    return what.bus.empty() ? what.node.empty() || what.node == buses[bus].node : what.bus == fullName(buses[bus]);
}

chance machineDescription::choicesOf(const busDescription& bus) const { return chance{seed}.of(fullName(bus)); }

chance machineDescription::choicesOf(const chipDescription& chip) const
{
    const std::string behind = chip.behindHub ? addressText(chip.hub) + " " + std::to_string(chip.port) + " " : "";
    return choicesOf(buses[chip.bus]).of(behind + addressText(chip.address));
}

std::vector<busLayout> machineDescription::layouts() const
{
    std::vector<busLayout> all(buses.size());
    std::vector<std::ostringstream> texts(buses.size());
    for (const auto& chip : chips) {
        ++all[chip.bus].chips;
        texts[chip.bus] << chip.typeName << ' ' << +chip.address << ' ' << chip.behindHub << ' ' << +chip.hub << ' '
                        << +chip.port << ' ' << chip.ferroelectric << ' ' << chip.image << '\n';
    }
    for (std::size_t bus = 0; bus < all.size(); ++bus) {
        all[bus].mark = fnvHash64(texts[bus].str());
    }
    return all;
}

std::uint64_t machineDescription::layoutMark(const std::vector<busLayout>& layouts) const
{
    std::ostringstream text;
    for (std::size_t bus = 0; bus < buses.size(); ++bus) {
        text << fullName(buses[bus]) << ' ' << layouts[bus].chips << ' ' << layouts[bus].mark << '\n';
    }
    return fnvHash64(text.str());
}

std::uint64_t machineDescription::faultMark() const
{
    std::ostringstream text;
    text << seed << '\n';
    for (const auto& what : faults) {
        text << what.kind << ' ' << what.bus << ' ' << what.node << ' ' << +what.address << ' ' << what.way << ' '
             << what.nth << ' ' << std::bit_cast<std::uint64_t>(what.probability) << ' ' << what.seed << ' '
             << what.count << ' ' << what.value << ' ' << what.byte << ' ' << what.untilReset << ' ' << what.lastsMs
             << '\n';
    }
    return fnvHash64(text.str());
}

} // namespace kest::sim
