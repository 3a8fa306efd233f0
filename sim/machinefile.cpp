#include "sim/machinefile.h"

#include "base/clock.h"
#include "base/hash.h"
#include "base/hex.h"
#include "base/tomltext.h"
#include "sim/bus.h"
#include "sim/faultrecord.h"

#include <algorithm>
#include <array>
#include <bit>
#include <initializer_list>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <utility>

#include <toml++/toml.h>

namespace kest::sim
{

namespace
{

// the other addresses are reserved on every bus
constexpr std::int64_t lowestAddress = 0x10, highestAddress = 0xEE;

// Of the longest write cycle. Measured parts spread over a fifth to a quarter.
constexpr double usualShortestCycle = 0.75;

/// Reads a machine file, and fails with the place in the file and what is wrong there.
class reader
{
public:
    reader(const std::string& file, machineDescription& into) : m_fileName{file}, m_machine{into} {}
    void read(const toml::table& root);

private:
    using keys = std::initializer_list<std::string_view>;

    [[noreturn]] void fail(const toml::source_region& place, const std::string& what) const;
    [[noreturn]] void failKey(const toml::table& table, std::string_view key, const std::string& what) const;
    void onlyKeys(const toml::table& table, const std::string& where, keys allowed) const;
    void tables(const toml::table& root, std::string_view key, void (reader::*each)(const toml::table&),
                std::vector<tablePlace>& places);

    [[nodiscard]] std::string text(const toml::table& table, std::string_view key, const char* otherwise) const;
    [[nodiscard]] std::int64_t number(const toml::table& table, std::string_view key, std::int64_t lowest,
                                      std::int64_t highest, std::optional<std::int64_t> otherwise) const;
    [[nodiscard]] double real(const toml::table& table, std::string_view key, double lowest, double highest,
                              double otherwise) const;
    [[nodiscard]] bool truth(const toml::table& table, std::string_view key) const;
    [[nodiscard]] std::string word(const toml::table& table, std::string_view key, const char* otherwise) const;
    [[nodiscard]] std::uint8_t address(const toml::table& table, std::string_view key, bool required) const;
    [[nodiscard]] std::uint16_t levels(const toml::table& table, unsigned pins) const;
    [[nodiscard]] std::size_t busOf(const toml::table& table) const;
    [[nodiscard]] std::string imageOf(const toml::table& table) const;

    [[nodiscard]] adapterKind adapter(const toml::table& bus) const;
    [[nodiscard]] smbusCalls smbus(const toml::table& adapter) const;
    void bus(const toml::table& table);
    void chip(const toml::table& table);
    void chipType(const toml::table& table, chipDescription& chip) const;
    void chipOptions(const toml::table& table, chipDescription& chip) const;
    template <typename Value, std::size_t Count>
    using choices = std::array<std::pair<const char*, Value>, Count>;
    template <typename Value, std::size_t Count>
    Value choice(const toml::table& table, std::string_view key, const choices<Value, Count>& values) const;
    void memoryOptions(const toml::table& table, chipDescription& chip) const;
    void writeOptions(const toml::table& table, chipDescription& chip) const;
    [[nodiscard]] chipPace paceOf(const toml::table& table, const chipDescription& chip) const;
    void protectOptions(const toml::table& table, chipDescription& chip) const;
    void memoryAddresses(const toml::table& table, chipDescription& chip) const;
    void sensorOptions(const toml::table& table, chipDescription& chip) const;
    void fault(const toml::table& table);
    void checkChips() const;
    void checkPlace(const chipDescription& chip) const;
    void checkProtection(const chipDescription& chip) const;

    const std::string& m_fileName;
    machineDescription& m_machine;
};

std::string placeOf(const toml::source_region& region) { return placeText({region.begin.line, region.begin.column}); }

// Whose keys they are, for error texts.
std::string keysOf(const chipDescription& chip) { return "[[chip]] of type " + chip.typeName; }

bool isWord(std::string_view text)
{
    constexpr std::string_view letters{"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-"};
    return !text.empty() && text.size() <= 63 && text.find_first_not_of(letters) == std::string_view::npos;
}

void reader::fail(const toml::source_region& place, const std::string& what) const
{
    throw std::runtime_error{m_fileName + ":" + placeOf(place) + ": " + what};
}

// A missing key is reported at its table.
void reader::failKey(const toml::table& table, std::string_view key, const std::string& what) const
{
    const auto* node = table.get(key);
    fail(node != nullptr ? node->source() : table.source(), "key '" + std::string{key} + "': " + what);
}

void reader::onlyKeys(const toml::table& table, const std::string& where, keys allowed) const
{
    for (const auto& [key, value] : table) {
        if (std::ranges::find(allowed, key.str()) == allowed.end()) {
            fail(key.source(), "unknown key '" + std::string{key.str()} + "' in " + where);
        }
    }
}

void reader::tables(const toml::table& root, std::string_view key, void (reader::*each)(const toml::table&),
                    std::vector<tablePlace>& places)
{
    const auto* const node = root.get(key);
    if (node == nullptr) {
        return;
    }
    if (!node->is_array_of_tables()) {
        failKey(root, key, "expected tables, written [[" + std::string{key} + "]]");
    }
    for (const auto& entry : *node->as_array()) {
        const toml::table& table = *entry.as_table();
        (this->*each)(table);
        places.push_back({table.source().begin.line, table.source().begin.column});
    }
}

std::string reader::text(const toml::table& table, std::string_view key, const char* otherwise) const
{
    const auto* const node = table.get(key);
    if (node == nullptr) {
        if (otherwise == nullptr) {
            failKey(table, key, "missing");
        }
        return otherwise;
    }
    if (!node->is_string()) {
        failKey(table, key, "expected a text");
    }
    return node->as_string()->get();
}

std::string reader::word(const toml::table& table, std::string_view key, const char* otherwise) const
{
    std::string name = text(table, key, otherwise);
    if (table.contains(key) && !isWord(name)) {
        failKey(table, key, "expected a name of at most 63 letters, digits, '_', '.' and '-'");
    }
    return name;
}

std::int64_t reader::number(const toml::table& table, std::string_view key, std::int64_t lowest, std::int64_t highest,
                            std::optional<std::int64_t> otherwise) const
{
    const auto* const node = table.get(key);
    if (node == nullptr) {
        if (!otherwise) {
            failKey(table, key, "missing");
        }
        return *otherwise;
    }
    if (!node->is_integer()) {
        failKey(table, key, "expected a whole number");
    }
    const std::int64_t value = node->as_integer()->get();
    if (value < lowest || value > highest) {
        failKey(table, key, "must be from " + std::to_string(lowest) + " to " + std::to_string(highest));
    }
    return value;
}

double reader::real(const toml::table& table, std::string_view key, double lowest, double highest,
                    double otherwise) const
{
    const auto* node = table.get(key);
    if (node != nullptr && !node->is_number()) {
        failKey(table, key, "expected a number");
    }
    const double value = node != nullptr ? *node->value<double>() : otherwise;
    if (!(value >= lowest && value <= highest)) {
        std::ostringstream range;
        range << "must be from " << lowest << " to " << highest;
        failKey(table, key, range.str());
    }
    return value;
}

bool reader::truth(const toml::table& table, std::string_view key) const
{
    const auto* node = table.get(key);
    if (node != nullptr && !node->is_boolean()) {
        failKey(table, key, "expected true or false");
    }
    return node != nullptr && node->as_boolean()->get();
}

std::uint8_t reader::address(const toml::table& table, std::string_view key, bool required) const
{
    const std::int64_t value = number(table, key, 0, 0xFF, required ? std::nullopt : std::optional<std::int64_t>{0});
    if ((value & 1) != 0) {
        failKey(table, key, "addresses are in the 8-bit form, and even");
    }
    if (table.contains(key) && (value < lowestAddress || value > highestAddress)) {
        failKey(table, key, "reserved address: must be from 0x10 to 0xEE");
    }
    return static_cast<std::uint8_t>(value);
}

// A number, bit 0 pin 0, or a list of levels from pin 0 on.
std::uint16_t reader::levels(const toml::table& table, unsigned pins) const
{
    const auto* const list = table.get_as<toml::array>("inputs");
    if (list == nullptr) {
        return static_cast<std::uint16_t>(number(table, "inputs", 0, (std::int64_t{1} << pins) - 1, 0xFFFF));
    }
    if (list->size() > pins) {
        failKey(table, "inputs", "more levels than the chip's " + std::to_string(pins) + " pins");
    }
    unsigned result = 0xFFFF;
    for (std::size_t pin = 0; pin < list->size(); ++pin) {
        const auto level = (*list)[pin].value<std::int64_t>();
        if (!level || *level < 0 || *level > 1) {
            fail((*list)[pin].source(), "key 'inputs': a level is 0 or 1");
        }
        if (*level == 0) {
            result &= ~(1U << pin);
        }
    }
    return static_cast<std::uint16_t>(result);
}

std::size_t reader::busOf(const toml::table& table) const
{
    const std::string name = text(table, "bus", nullptr);
    const std::string node = word(table, "node", "");
    const auto found = std::ranges::find_if(
        m_machine.buses, [&](const busDescription& bus) { return bus.name == name && bus.node == node; });
    if (found == m_machine.buses.end()) {
        failKey(table, "bus", "no bus '" + name + "'" + (node.empty() ? "" : " on node '" + node + "'"));
    }
    return static_cast<std::size_t>(found - m_machine.buses.begin());
}

std::string reader::imageOf(const toml::table& table) const
{
    std::string image = text(table, "image", nullptr);
    if (!isWord(image) || image == "." || image == ".." || image.starts_with("machine.")) {
        failKey(table, "image", "expected a file name in the machine's folder: letters, digits, '_', '.' and '-'");
    }
    return image;
}

// What SMBus calls carry leaves no room for limits of plain messages.
smbusCalls reader::smbus(const toml::table& adapter) const
{
    const std::string calls = text(adapter, "smbus", "");
    if (!adapter.contains("smbus")) {
        return smbusCalls::none;
    }
    if (calls != "words" && calls != "blocks") {
        failKey(adapter, "smbus", "expected 'words' or 'blocks'");
    }
    for (const std::string_view key : {"message_bytes", "messages", "stop_between"}) {
        if (adapter.contains(key)) {
            failKey(adapter, key, "not together with 'smbus'");
        }
    }
    return calls == "words" ? smbusCalls::words : smbusCalls::blocks;
}

adapterKind reader::adapter(const toml::table& bus) const
{
    const auto* const node = bus.get("adapter");
    if (node == nullptr) {
        return {};
    }
    if (!node->is_table()) {
        failKey(bus, "adapter", "expected a table, written { KEY = VALUE, ... }");
    }
    const toml::table& table = *node->as_table();
    onlyKeys(table, "'adapter'",
             {"message_bytes", "messages", "smbus", "timeout_ms", "absent", "no_empty_messages", "stop_between",
              "stretch_limit_us", "stretching"});
    const auto limit = [&](std::string_view key, std::int64_t highest) {
        return table.contains(key) ? static_cast<std::uint32_t>(number(table, key, 1, highest, std::nullopt)) : 0U;
    };
    const std::string absent = text(table, "absent", "nack");
    if (absent != "nack" && absent != "timeout") {
        failKey(table, "absent", "expected 'nack' or 'timeout'");
    }
    return {.messageBytes = limit("message_bytes", mostMessageBytes),
            .messages = limit("messages", mostMessages),
            .smbus = smbus(table),
            .timeoutMs = limit("timeout_ms", longestAdapterTimeoutMs),
            .absentTimesOut = absent == "timeout",
            .noEmptyMessages = truth(table, "no_empty_messages"),
            .stretchLimitUs = static_cast<std::uint32_t>(
                number(table, "stretch_limit_us", 0, longestStretchLimitUs, adapterKind{}.stretchLimitUs)),
            .losesBits = choice(table, "stretching", choices<bool, 2>{{{"good", false}, {"loses-bits", true}}}),
            .stopBetween = truth(table, "stop_between")};
}

void reader::bus(const toml::table& table)
{
    onlyKeys(table, "[[bus]]", {"name", "node", "speed_khz", "adapter"});
    busDescription bus;
    bus.name = word(table, "name", nullptr);
    bus.node = word(table, "node", "");
    bus.speedKhz = static_cast<std::uint32_t>(number(table, "speed_khz", 1, fastestKhz, 400));
    bus.adapter = adapter(table);
    for (const auto& other : m_machine.buses) {
        if (other.name == bus.name && other.node == bus.node) {
            failKey(table, "name", "a second bus '" + bus.name + "'");
        }
    }
    m_machine.buses.push_back(bus);
}

// Finds the type's row, and checks that no key of another kind of chip is there.
void reader::chipType(const toml::table& table, chipDescription& chip) const
{
    chip.typeName = text(table, "type", nullptr);
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
        failKey(table, "type", "unknown type of chip '" + chip.typeName + "'");
    }
}

void reader::chipOptions(const toml::table& table, chipDescription& chip) const
{
    switch (chip.kind) {
    case chipKind::eeprom:
        memoryOptions(table, chip);
        break;
    case chipKind::pca955x:
        onlyKeys(table, keysOf(chip),
                 {"bus", "node", "hub", "port", "type", "address", "max_khz", "too_fast", "stretch_us", "inputs"});
        chip.inputs = levels(table, pca955xTypes.at(chip.type).pins);
        break;
    case chipKind::sensor:
        sensorOptions(table, chip);
        break;
    case chipKind::hub:
        onlyKeys(table, keysOf(chip), {"bus", "node", "type", "address", "max_khz"});
        break;
    }
}

// The first of the values is the default.
template <typename Value, std::size_t Count>
Value reader::choice(const toml::table& table, std::string_view key, const choices<Value, Count>& values) const
{
    const std::string name = text(table, key, values.front().first);
    std::string expected;
    for (std::size_t i = 0; i < Count; ++i) {
        if (name == values[i].first) {
            return values[i].second;
        }
        expected += (i == 0 ? "expected '" : i + 1 == Count ? " or '" : ", '") + std::string{values[i].first} + "'";
    }
    failKey(table, key, expected);
}

void reader::memoryOptions(const toml::table& table, chipDescription& chip) const
{
    chip.ferroelectric = choice(table, "kind", choices<bool, 2>{{{"eeprom", false}, {"fram", true}}});
    if (chip.ferroelectric) {
        onlyKeys(table, keysOf(chip) + ", kind fram",
                 {"bus", "node", "hub", "port", "type", "address", "max_khz", "too_fast", "stretch_us", "addresses",
                  "image", "kind", "half_offset", "protect", "protect_area", "protect_chip", "protect_pin",
                  "hold_sda_after_cut"});
    } else {
        onlyKeys(table, keysOf(chip), {"bus",          "node",           "hub",
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
    chip.memory.half = choice(
        table, "half_offset",
        choices<halfOffset, 3>{{{"low", halfOffset::low}, {"high", halfOffset::high}, {"keep", halfOffset::keep}}});
    if (table.contains("half_offset") && eepromTypes.at(chip.type).offsetBytes == 1) {
        failKey(table, "half_offset", "a " + chip.typeName + " has one offset byte");
    }
    chip.memory.holdSdaAfterCut = truth(table, "hold_sda_after_cut");
}

// The default is what data sheets promise for the type; old parts follow 100 kHz.
chipPace reader::paceOf(const toml::table& table, const chipDescription& chip) const
{
    const std::uint32_t usual = chip.kind == chipKind::eeprom ? eepromTypes.at(chip.type).maxKhz : 400;
    return {.maxKhz = static_cast<std::uint32_t>(number(table, "max_khz", 1, fastestKhz, usual)),
            .garbles = choice(table, "too_fast", choices<bool, 2>{{{"silent", false}, {"garbled", true}}}),
            .stretchUs = static_cast<std::uint32_t>(number(table, "stretch_us", 0, longestStretchUs, 0))};
}

void reader::writeOptions(const toml::table& table, chipDescription& chip) const
{
    const eepromType& type = eepromTypes.at(chip.type);
    const auto page = static_cast<std::uint32_t>(number(table, "page", 4, longestPage, type.pageBytes));
    if (!std::has_single_bit(page)) {
        failKey(table, "page", "expected 4, 8, 16, 32, 64, 128 or 256");
    }
    const double longest = real(table, "write_cycle_ms", 0, 1000, 3.5);
    const double shortest = real(table, "write_cycle_min_ms", 0, longest, longest * usualShortestCycle);
    chip.memory.pageBytes = page;
    chip.memory.writeCycleNs = static_cast<std::uint64_t>(longest * static_cast<double>(nsPerMs));
    chip.memory.shortestWriteCycleNs = static_cast<std::uint64_t>(shortest * static_cast<double>(nsPerMs));
}

void reader::protectOptions(const toml::table& table, chipDescription& chip) const
{
    const std::uint32_t sizeBytes = eepromTypes.at(chip.type).sizeBytes;
    chip.memory.protect = choice(
        table, "protect",
        choices<protection, 3>{{{"no", protection::none}, {"silent", protection::silent}, {"nak", protection::nak}}});
    chip.memory.area = choice(table, "protect_area",
                              choices<protectedArea, 3>{{{"all", protectedArea::all},
                                                         {"half", protectedArea::upperHalf},
                                                         {"quarter", protectedArea::upperQuarter}}});
    chip.protectChip = address(table, "protect_chip", false);
    chip.protectPin = static_cast<std::uint8_t>(number(table, "protect_pin", 0, 15, 0));
    for (const std::string_view key : {"protect_area", "protect_chip", "protect_pin"}) {
        if (table.contains(key) && chip.memory.protect == protection::none) {
            failKey(table, key, "needs 'protect', 'silent' or 'nak'");
        }
    }
    if (table.contains("protect_chip") != table.contains("protect_pin")) {
        failKey(table, table.contains("protect_pin") ? "protect_pin" : "protect_chip",
                "'protect_chip' and 'protect_pin' need each other");
    }
    if (chip.memory.pageBytes > sizeBytes - firstProtected(chip.memory.area, sizeBytes)) {
        failKey(table, "page", "is larger than what 'protect_area' covers");
    }
}

// A part with block bits answers as many addresses as it has blocks.
void reader::memoryAddresses(const toml::table& table, chipDescription& chip) const
{
    constexpr std::uint8_t allAddresses = 8, firstOfAll = 0xA0;
    const std::uint32_t blocks = blocksOf(eepromTypes.at(chip.type));
    const bool all = table.contains("addresses");
    if (all && text(table, "addresses", nullptr) != "all") {
        failKey(table, "addresses", "expected 'all'");
    }
    if (all && chip.typeName != "24C02") {
        failKey(table, "addresses", "only a 24C02 may answer all addresses");
    }
    chip.addresses = all ? allAddresses : static_cast<std::uint8_t>(blocks);
    chip.lowestAddress = static_cast<std::uint8_t>(chip.address - chip.address % (2 * chip.addresses));
    if (all && chip.lowestAddress != firstOfAll) {
        failKey(table, "address", "a chip that answers all addresses is at 0xA0 to 0xAE");
    }
    if (!all && chip.address != chip.lowestAddress) {
        failKey(table, "address",
                "a " + chip.typeName + " answers " + std::to_string(blocks) +
                    " addresses: the first is a multiple of " + std::to_string(2 * blocks));
    }
}

void reader::sensorOptions(const toml::table& table, chipDescription& chip) const
{
    const sensorType& type = sensorTypes.at(chip.type);
    const bool lm75 = type.name == "LM75";
    onlyKeys(table, keysOf(chip),
             {"bus", "node", "hub", "port", "type", "address", "max_khz", "too_fast", "stretch_us", "celsius",
              lm75 ? "bits" : "celsius"});
    chip.celsius = real(table, "celsius", type.lowestCelsius, type.highestCelsius, 25.0);
    chip.temperatureBits = lm75 ? static_cast<unsigned>(number(table, "bits", 9, 11, 9)) : 13;
    if (chip.temperatureBits == 10) {
        failKey(table, "bits", "an LM75 has 9 or 11");
    }
}

void reader::chip(const toml::table& table)
{
    chipDescription chip;
    chip.place = placeOf(table.source());
    chipType(table, chip);
    chipOptions(table, chip);
    chip.bus = busOf(table);
    chip.address = address(table, "address", true);
    chip.pace = paceOf(table, chip);
    chip.lowestAddress = chip.address;
    if (chip.kind == chipKind::eeprom) {
        memoryAddresses(table, chip);
    }
    chip.behindHub = table.contains("hub");
    chip.hub = address(table, "hub", false);
    if (chip.behindHub != table.contains("port")) {
        failKey(table, "port", chip.behindHub ? "missing: 'hub' needs it" : "only together with 'hub'");
    }
    chip.port = static_cast<std::uint8_t>(number(table, "port", 0, 7, 0));
    if (chip.kind == chipKind::hub && (chip.address & ~0x0A) != 0x80) {
        failKey(table, "address", "a HUB922 is at 0x80, 0x82, 0x88 or 0x8A");
    }
    m_machine.chips.push_back(chip);
}

void reader::fault(const toml::table& table)
{
    onlyKeys(table, "[[fault]]",
             {"kind", "bus", "node", "address", "way", "nth", "probability", "seed", "count", "value", "byte",
              "until_reset", "lasts_ms"});
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    const auto size = [&](std::string_view key, std::int64_t highest, std::int64_t otherwise) {
        return static_cast<std::uint64_t>(number(table, key, 0, highest, otherwise));
    };
    faultDescription what;
    what.kind = text(table, "kind", nullptr);
    what.address = address(table, "address", false);
    what.way = text(table, "way", "");
    what.nth = size("nth", most, 0);
    what.probability = real(table, "probability", 0, 1, 1);
    what.seed = size("seed", most, 0);
    what.count = size("count", most, 0);
    what.value = static_cast<std::uint32_t>(size("value", 0xFFFFFFFF, 0));
    what.byte = size("byte", most, 0);
    what.untilReset = truth(table, "until_reset");
    what.lastsMs = static_cast<std::uint32_t>(size("lasts_ms", 0xFFFFFFFF, 0));
    if (const std::string trouble = faultTrouble(what); !trouble.empty()) {
        fail(table.source(), trouble);
    }
    if (table.contains("bus")) {
        what.bus = fullName(m_machine.buses.at(busOf(table)));
    } else if (what.node = word(table, "node", ""); table.contains("node") && !m_machine.hasNode(what.node)) {
        failKey(table, "node", "no bus on node '" + what.node + "'");
    }
    m_machine.faults.push_back(what);
    if (m_machine.faults.size() > mostFaults) {
        fail(table.source(), "more than " + std::to_string(mostFaults) + " faults");
    }
}

void reader::checkPlace(const chipDescription& chip) const
{
    const auto hub = std::ranges::find_if(m_machine.chips, [&](const chipDescription& other) {
        return other.kind == chipKind::hub && other.bus == chip.bus && other.address == chip.hub;
    });
    if (chip.behindHub && hub == m_machine.chips.end()) {
        throw std::runtime_error{m_fileName + ":" + chip.place + ": key 'hub': no HUB922 at " + addressText(chip.hub) +
                                 " on bus '" + m_machine.buses[chip.bus].name + "'"};
    }
}

void reader::checkProtection(const chipDescription& chip) const
{
    const auto expander = std::ranges::find_if(
        m_machine.chips, [&](const chipDescription& other) { return other.drivesProtectionOf(chip); });
    const std::string where = m_fileName + ":" + chip.place + ": key 'protect_chip': ";
    if (expander == m_machine.chips.end()) {
        throw std::runtime_error{where + "no PCA955x at " + addressText(chip.protectChip) + " on bus '" +
                                 m_machine.buses[chip.bus].name + "'"};
    }
    if (chip.protectPin >= pca955xTypes.at(expander->type).pins) {
        throw std::runtime_error{where + "a " + expander->typeName + " has no pin " + std::to_string(chip.protectPin)};
    }
}

void reader::checkChips() const
{
    std::set<std::tuple<std::size_t, bool, unsigned, unsigned, unsigned>> places;
    std::set<std::string> images;
    for (const auto& chip : m_machine.chips) {
        checkPlace(chip);
        if (chip.protectChip != 0) {
            checkProtection(chip);
        }
        const auto fail = [&](const std::string& what) {
            throw std::runtime_error{m_fileName + ":" + chip.place + ": " + what};
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

void reader::read(const toml::table& root)
{
    onlyKeys(root, "a machine file", {"seed", "bus", "chip", "fault"});
    m_machine.seed = static_cast<std::uint64_t>(
        number(root, "seed", 0, std::numeric_limits<std::int64_t>::max(), std::int64_t{chance::defaultSeed}));
    tables(root, "bus", &reader::bus, m_machine.places[0]);
    if (m_machine.buses.empty()) {
        fail(root.source(), "no [[bus]]");
    }
    tables(root, "chip", &reader::chip, m_machine.places[1]);
    checkChips();
    tables(root, "fault", &reader::fault, m_machine.places[2]);
}

} // namespace

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

std::string fullName(const busDescription& bus) { return bus.node.empty() ? bus.name : bus.node + ":" + bus.name; }

std::optional<std::size_t> machineDescription::findBus(std::string_view name) const
{
    const auto found = std::ranges::find(buses, name, fullName);
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
        reader{fileName, machine}.read(root);
    } catch (const toml::parse_error& error) {
        throw std::runtime_error{fileName + ":" + placeOf(error.source()) + ": " + std::string{error.description()}};
    }
    return machine;
}

} // namespace kest::sim
