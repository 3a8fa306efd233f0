#include "sim/machinefile.h"

#include "base/tomltext.h"
#include "sim/bustable.h"
#include "sim/chiptable.h"
#include "sim/faultrecord.h"
#include "sim/tablereader.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace kest::sim
{

namespace
{

faultDescription readFault(const tableReader& table, const machineDescription& machine)
{
    table.onlyKeys("[[fault]]", {"kind", "bus", "node", "address", "way", "nth", "probability", "seed", "count",
                                 "value", "byte", "until_reset", "lasts_ms"});
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    const auto size = [&](std::string_view key, std::int64_t highest, std::int64_t otherwise) {
        return static_cast<std::uint64_t>(table.number(key, 0, highest, otherwise));
    };
    faultDescription what;
    what.kind = table.text("kind", nullptr);
    what.address = table.address("address", false);
    what.way = table.text("way", "");
    what.nth = size("nth", most, 0);
    what.probability = table.real("probability", 0, 1, 1);
    what.seed = size("seed", most, 0);
    what.count = size("count", most, 0);
    what.value = static_cast<std::uint32_t>(size("value", 0xFFFFFFFF, 0));
    what.byte = size("byte", most, 0);
    what.untilReset = table.truth("until_reset");
    what.lastsMs = static_cast<std::uint32_t>(size("lasts_ms", 0xFFFFFFFF, 0));
    if (const std::string trouble = faultTrouble(what); !trouble.empty()) {
        table.fail(trouble);
    }
    if (table.has("bus")) {
        what.bus = fullName(machine.buses.at(busOf(table, machine)));
    } else if (what.node = table.word("node", ""); table.has("node") && !machine.hasNode(what.node)) {
        table.failKey("node", "no bus on node '" + what.node + "'");
    }
    if (machine.faults.size() == mostFaults) {
        table.fail("more than " + std::to_string(mostFaults) + " faults");
    }
    return what;
}

void checkPlace(const machineDescription& machine, const chipDescription& chip, const std::string& fileName)
{
    const auto hub = std::ranges::find_if(machine.chips, [&](const chipDescription& other) {
        return other.kind == chipKind::hub && other.bus == chip.bus && other.address == chip.hub;
    });
    if (chip.behindHub && hub == machine.chips.end()) {
        throw std::runtime_error{fileName + ":" + chip.place + ": key 'hub': no HUB922 at " + addressText(chip.hub) +
                                 " on bus '" + machine.buses[chip.bus].name + "'"};
    }
}

void checkProtection(const machineDescription& machine, const chipDescription& chip, const std::string& fileName)
{
    const auto expander = std::ranges::find_if(
        machine.chips, [&](const chipDescription& other) { return other.drivesProtectionOf(chip); });
    const std::string where = fileName + ":" + chip.place + ": key 'protect_chip': ";
    if (expander == machine.chips.end()) {
        throw std::runtime_error{where + "no PCA955x at " + addressText(chip.protectChip) + " on bus '" +
                                 machine.buses[chip.bus].name + "'"};
    }
    if (chip.protectPin >= pca955xTypes.at(expander->type).pins) {
        throw std::runtime_error{where + "a " + expander->typeName + " has no pin " + std::to_string(chip.protectPin)};
    }
}

void checkChips(const machineDescription& machine, const std::string& fileName)
{
    std::set<std::tuple<std::size_t, bool, unsigned, unsigned, unsigned>> places;
    std::set<std::string> images;
    for (const auto& chip : machine.chips) {
        checkPlace(machine, chip, fileName);
        if (chip.protectChip != 0) {
            checkProtection(machine, chip, fileName);
        }
        const auto fail = [&](const std::string& what) {
            throw std::runtime_error{std::string{fileName}.append(":").append(chip.place).append(": ").append(what)};
        };
        for (const std::uint8_t address : chip.answers()) {
            if (!places.emplace(chip.bus, chip.behindHub, chip.hub, chip.port, address).second) {
                fail("a second chip at " + addressText(address));
            }
        }
        if (!chip.image.empty() && !images.insert(chip.image).second) {
            fail("image '" + chip.image + "' belongs to another chip already");
        }
    }
}

/// @param read  makes a row of one table, and gets the machine as it is by then
template <typename Row>
void readRows(const tableReader& root, std::string_view key, machineDescription& machine, std::vector<Row>& rows,
              std::vector<tablePlace>& places, Row (*read)(const tableReader&, const machineDescription&))
{
    const auto* const node = root.table().get(key);
    if (node == nullptr) {
        return;
    }
    if (!node->is_array_of_tables()) {
        root.failKey(key, "expected tables, written [[" + std::string{key} + "]]");
    }
    for (const auto& entry : *node->as_array()) {
        const toml::table& table = *entry.as_table();
        rows.push_back(read(root.within(table), machine));
        places.push_back({table.source().begin.line, table.source().begin.column});
    }
}

void readTables(const tableReader& root, machineDescription& machine, const std::string& fileName)
{
    root.onlyKeys("a machine file", {"seed", "bus", "chip", "fault"});
    machine.seed = static_cast<std::uint64_t>(
        root.number("seed", 0, std::numeric_limits<std::int64_t>::max(), std::int64_t{chance::defaultSeed}));
    readRows(root, "bus", machine, machine.buses, machine.places[0], readBus);
    if (machine.buses.empty()) {
        root.fail("no [[bus]]");
    }
    readRows(root, "chip", machine, machine.chips, machine.places[1], readChip);
    checkChips(machine, fileName);
    readRows(root, "fault", machine, machine.faults, machine.places[2], readFault);
}

} // namespace

machineDescription parseMachine(std::string_view text, const std::string& fileName)
{
    machineDescription machine;
    if (const auto trouble = findTextTrouble(text)) {
        throw std::runtime_error{fileName + ":" + std::to_string(trouble->line) + ":" +
                                 std::to_string(trouble->column) + ": expected plain TOML, found " +
                                 std::string{trouble->what}};
    }
    try {
        const toml::table root = toml::parse(text, fileName);
        readTables({root, fileName}, machine, fileName);
    } catch (const toml::parse_error& error) {
        throw std::runtime_error{fileName + ":" + placeText({error.source().begin.line, error.source().begin.column}) +
                                 ": " + std::string{error.description()}};
    }
    return machine;
}

} // namespace kest::sim
