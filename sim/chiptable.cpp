#include "sim/chiptable.h"

#include "base/clock.h"
#include "sim/bus.h"
#include "sim/bustable.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <string>
#include <string_view>

namespace kest::sim
{

namespace
{

// Of the longest write cycle. Measured parts spread over a fifth to a quarter.
constexpr double usualShortestCycle = 0.75;

// Whose keys they are, for error texts.
std::string keysOf(const chipDescription& chip) { return "[[chip]] of type " + chip.typeName; }

// A number, bit 0 pin 0, or a list of levels from pin 0 on.
std::uint16_t levels(const tableReader& table, unsigned pins)
{
    const auto* const list = table.table().get_as<toml::array>("inputs");
    if (list == nullptr) {
        return static_cast<std::uint16_t>(table.number("inputs", 0, (std::int64_t{1} << pins) - 1, 0xFFFF));
    }
    if (list->size() > pins) {
        table.failKey("inputs", "more levels than the chip's " + std::to_string(pins) + " pins");
    }
    unsigned result = 0xFFFF;
    for (std::size_t pin = 0; pin < list->size(); ++pin) {
        const auto level = (*list)[pin].value<std::int64_t>();
        if (!level || *level < 0 || *level > 1) {
            table.failAt((*list)[pin].source(), "key 'inputs': a level is 0 or 1");
        }
        if (*level == 0) {
            result &= ~(1U << pin);
        }
    }
    return static_cast<std::uint16_t>(result);
}

std::string imageOf(const tableReader& table)
{
    std::string image = table.text("image", nullptr);
    if (!tableReader::isWord(image) || image == "." || image == ".." || image.starts_with("machine.")) {
        table.failKey("image", "expected a file name in the machine's folder: letters, digits, '_', '.' and '-'");
    }
    return image;
}

// Finds the type's row, and checks that no key of another kind of chip is there.
void chipType(const tableReader& table, chipDescription& chip)
{
    chip.typeName = table.text("type", nullptr);
    const auto find = [&](const auto& types, chipKind kind) {
        const auto* const found = std::ranges::find(types, chip.typeName, [](const auto& type) { return type.name; });
        if (found == types.end()) {
            return false;
        }
        chip.kind = kind;
        chip.type = static_cast<std::size_t>(found - types.begin());
        return true;
    };
    if (chip.typeName == "HUB922") {
        chip.kind = chipKind::hub;
    } else if (!find(eepromTypes, chipKind::eeprom) && !find(pca955xTypes, chipKind::pca955x) &&
               !find(sensorTypes, chipKind::sensor)) {
        table.failKey("type", "unknown type of chip '" + chip.typeName + "'");
    }
}

void writeOptions(const tableReader& table, chipDescription& chip)
{
    const eepromType& type = eepromTypes.at(chip.type);
    const auto page = static_cast<std::uint32_t>(table.number("page", 4, longestPage, type.pageBytes));
    if (!std::has_single_bit(page)) {
        table.failKey("page", "expected 4, 8, 16, 32, 64, 128 or 256");
    }
    const double longest = table.real("write_cycle_ms", 0, 1000, 3.5);
    const double shortest = table.real("write_cycle_min_ms", 0, longest, longest * usualShortestCycle);
    chip.memory.pageBytes = page;
    chip.memory.writeCycleNs = static_cast<std::uint64_t>(longest * static_cast<double>(nsPerMs));
    chip.memory.shortestWriteCycleNs = static_cast<std::uint64_t>(shortest * static_cast<double>(nsPerMs));
}

void protectOptions(const tableReader& table, chipDescription& chip)
{
    const std::uint32_t sizeBytes = eepromTypes.at(chip.type).sizeBytes;
    chip.memory.protect = table.choice(
        "protect", tableReader::choices<protection, 3>{
                       {{"no", protection::none}, {"silent", protection::silent}, {"nak", protection::nak}}});
    chip.memory.area = table.choice("protect_area",
                                    tableReader::choices<protectedArea, 3>{{{"all", protectedArea::all},
                                                                            {"half", protectedArea::upperHalf},
                                                                            {"quarter", protectedArea::upperQuarter}}});
    chip.protectChip = table.address("protect_chip", false);
    chip.protectPin = static_cast<std::uint8_t>(table.number("protect_pin", 0, 15, 0));
    for (const std::string_view key : {"protect_area", "protect_chip", "protect_pin"}) {
        if (table.has(key) && chip.memory.protect == protection::none) {
            table.failKey(key, "needs 'protect', 'silent' or 'nak'");
        }
    }
    if (table.has("protect_chip") != table.has("protect_pin")) {
        table.failKey(table.has("protect_pin") ? "protect_pin" : "protect_chip",
                      "'protect_chip' and 'protect_pin' need each other");
    }
    if (chip.memory.pageBytes > sizeBytes - firstProtected(chip.memory.area, sizeBytes)) {
        table.failKey("page", "is larger than what 'protect_area' covers");
    }
}

void memoryOptions(const tableReader& table, chipDescription& chip)
{
    chip.ferroelectric = table.choice("kind", tableReader::choices<bool, 2>{{{"eeprom", false}, {"fram", true}}});
    if (chip.ferroelectric) {
        table.onlyKeys(keysOf(chip) + ", kind fram",
                       {"bus", "node", "hub", "port", "type", "address", "max_khz", "too_fast", "stretch_us",
                        "addresses", "image", "kind", "half_offset", "protect", "protect_area", "protect_chip",
                        "protect_pin", "hold_sda_after_cut"});
    } else {
        table.onlyKeys(keysOf(chip), {"bus",          "node",           "hub",
                                      "port",         "type",           "address",
                                      "max_khz",      "too_fast",       "stretch_us",
                                      "addresses",    "image",          "kind",
                                      "half_offset",  "protect",        "protect_area",
                                      "protect_chip", "protect_pin",    "hold_sda_after_cut",
                                      "page",         "write_cycle_ms", "write_cycle_min_ms"});
        writeOptions(table, chip);
    }
    protectOptions(table, chip);
    chip.image = imageOf(table);
    chip.memory.half = table.choice(
        "half_offset", tableReader::choices<halfOffset, 3>{
                           {{"low", halfOffset::low}, {"high", halfOffset::high}, {"keep", halfOffset::keep}}});
    if (table.has("half_offset") && eepromTypes.at(chip.type).offsetBytes == 1) {
        table.failKey("half_offset", "a " + chip.typeName + " has one offset byte");
    }
    chip.memory.holdSdaAfterCut = table.truth("hold_sda_after_cut");
}

// A part with block bits answers as many addresses as it has blocks.
void memoryAddresses(const tableReader& table, chipDescription& chip)
{
    constexpr std::uint8_t allAddresses = 8, firstOfAll = 0xA0;
    const std::uint32_t blocks = blocksOf(eepromTypes.at(chip.type));
    const bool all = table.has("addresses");
    if (all && table.text("addresses", nullptr) != "all") {
        table.failKey("addresses", "expected 'all'");
    }
    if (all && chip.typeName != "24C02") {
        table.failKey("addresses", "only a 24C02 may answer all addresses");
    }
    chip.addresses = all ? allAddresses : static_cast<std::uint8_t>(blocks);
    chip.lowestAddress = static_cast<std::uint8_t>(chip.address - chip.address % (2 * chip.addresses));
    if (all && chip.lowestAddress != firstOfAll) {
        table.failKey("address", "a chip that answers all addresses is at 0xA0 to 0xAE");
    }
    if (!all && chip.address != chip.lowestAddress) {
        table.failKey("address", "a " + chip.typeName + " answers " + std::to_string(blocks) +
                                     " addresses: the first is a multiple of " + std::to_string(2 * blocks));
    }
}

void sensorOptions(const tableReader& table, chipDescription& chip)
{
    const sensorType& type = sensorTypes.at(chip.type);
    const bool lm75 = type.name == "LM75";
    if (lm75) {
        table.onlyKeys(keysOf(chip), {"bus", "node", "hub", "port", "type", "address", "max_khz", "too_fast",
                                      "stretch_us", "celsius", "bits"});
    } else {
        table.onlyKeys(keysOf(chip), {"bus", "node", "hub", "port", "type", "address", "max_khz", "too_fast",
                                      "stretch_us", "celsius"});
    }
    chip.celsius = table.real("celsius", type.lowestCelsius, type.highestCelsius, 25.0);
    chip.temperatureBits = lm75 ? static_cast<unsigned>(table.number("bits", 9, 11, 9)) : 13;
    if (chip.temperatureBits == 10) {
        table.failKey("bits", "an LM75 has 9 or 11");
    }
}

void chipOptions(const tableReader& table, chipDescription& chip)
{
    switch (chip.kind) {
    case chipKind::eeprom:
        memoryOptions(table, chip);
        break;
    case chipKind::pca955x:
        table.onlyKeys(keysOf(chip), {"bus", "node", "hub", "port", "type", "address", "max_khz", "too_fast",
                                      "stretch_us", "inputs"});
        chip.inputs = levels(table, pca955xTypes.at(chip.type).pins);
        break;
    case chipKind::sensor:
        sensorOptions(table, chip);
        break;
    case chipKind::hub:
        table.onlyKeys(keysOf(chip), {"bus", "node", "type", "address", "max_khz"});
        break;
    }
}

// The default is what data sheets promise for the type; old parts follow 100 kHz.
chipPace paceOf(const tableReader& table, const chipDescription& chip)
{
    const std::uint32_t usual = chip.kind == chipKind::eeprom ? eepromTypes.at(chip.type).maxKhz : 400;
    return {.maxKhz = static_cast<std::uint32_t>(table.number("max_khz", 1, fastestKhz, usual)),
            .garbles = table.choice("too_fast", tableReader::choices<bool, 2>{{{"silent", false}, {"garbled", true}}}),
            .stretchUs = static_cast<std::uint32_t>(table.number("stretch_us", 0, longestStretchUs, 0))};
}

} // namespace

chipDescription readChip(const tableReader& table, const machineDescription& machine)
{
    chipDescription chip;
    chip.place = table.place();
    chipType(table, chip);
    chipOptions(table, chip);
    chip.bus = busOf(table, machine);
    chip.address = table.address("address", true);
    chip.pace = paceOf(table, chip);
    chip.lowestAddress = chip.address;
    if (chip.kind == chipKind::eeprom) {
        memoryAddresses(table, chip);
    }
    chip.behindHub = table.has("hub");
    chip.hub = table.address("hub", false);
    if (chip.behindHub != table.has("port")) {
        table.failKey("port", chip.behindHub ? "missing: 'hub' needs it" : "only together with 'hub'");
    }
    chip.port = static_cast<std::uint8_t>(table.number("port", 0, 7, 0));
    if (chip.kind == chipKind::hub && (chip.address & ~0x0A) != 0x80) {
        table.failKey("address", "a HUB922 is at 0x80, 0x82, 0x88 or 0x8A");
    }
    return chip;
}

} // namespace kest::sim
