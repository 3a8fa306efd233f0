#include "sim/scenariofile.h"

#include "base/clock.h"
#include "base/tomltext.h"
#include "sim/hub922.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <toml++/toml.h>

namespace kest::sim
{

namespace
{

struct actionRow {
    std::string_view name;
    eventKind kind;
    bool ofChip; ///< needs the address of one
};
constexpr std::array actions{
    actionRow{.name = "fault", .kind = eventKind::fault, .ofChip = false},
    actionRow{.name = "remove", .kind = eventKind::remove, .ofChip = true},
    actionRow{.name = "insert", .kind = eventKind::insert, .ofChip = true},
    actionRow{.name = "temperature", .kind = eventKind::temperature, .ofChip = true},
    actionRow{.name = "power-cut", .kind = eventKind::powerCut, .ofChip = false},
};

constexpr std::array<std::string_view, 5> commonKeys{"do", "at_ms", "transaction", "bus", "node"};
constexpr std::array<std::string_view, 3> chipKeys{"address", "hub", "port"};
constexpr std::array<std::string_view, 2> temperatureKeys{"celsius", "over_ms"};
constexpr std::array<std::string_view, 11> faultKeys{"kind", "address", "way",  "nth",         "count",   "probability",
                                                     "seed", "value",   "byte", "until_reset", "lasts_ms"};

constexpr double longestMs = static_cast<double>(longestRampNs) / nsPerMs;
constexpr std::int64_t mostTransactions = std::numeric_limits<std::int64_t>::max();

std::vector<std::string_view> keysOf(const actionRow& action)
{
    std::vector<std::string_view> keys(commonKeys.begin(), commonKeys.end());
    if (action.kind == eventKind::fault) {
        keys.insert(keys.end(), faultKeys.begin(), faultKeys.end());
    }
    if (action.ofChip) {
        keys.insert(keys.end(), chipKeys.begin(), chipKeys.end());
    }
    if (action.kind == eventKind::temperature) {
        keys.insert(keys.end(), temperatureKeys.begin(), temperatureKeys.end());
    }
    return keys;
}

/// Reads one table.
class tableReader
{
public:
    tableReader(const toml::table& from, const std::string& fileName) : m_table{from}, m_file{fileName} {}

    [[nodiscard]] std::string place(const toml::source_region& at) const
    {
        return m_file + ":" + std::to_string(at.begin.line) + ":" + std::to_string(at.begin.column);
    }
    [[noreturn]] void fail(std::string_view key, const std::string& what) const
    {
        const auto* const node = m_table.get(key);
        throw std::runtime_error{place(node != nullptr ? node->source() : m_table.source()) + ": key '" +
                                 std::string{key} + "': " + what};
    }
    [[nodiscard]] bool has(std::string_view key) const { return m_table.contains(key); }
    [[nodiscard]] std::string text(std::string_view key) const
    {
        const auto* const node = m_table.get(key);
        if (node != nullptr && !node->is_string()) {
            fail(key, "expected a text");
        }
        return node == nullptr ? std::string{} : node->as_string()->get();
    }
    [[nodiscard]] std::uint64_t number(std::string_view key, std::int64_t highest) const
    {
        const auto* const node = m_table.get(key);
        if (node != nullptr && !node->is_integer()) {
            fail(key, "expected a whole number");
        }
        const std::int64_t value = node == nullptr ? 0 : node->as_integer()->get();
        if (value < 0 || value > highest) {
            fail(key, "must be from 0 to " + std::to_string(highest));
        }
        return static_cast<std::uint64_t>(value);
    }
    [[nodiscard]] double real(std::string_view key, double lowest, double highest, double otherwise) const
    {
        const auto* const node = m_table.get(key);
        if (node != nullptr && !node->is_number()) {
            fail(key, "expected a number");
        }
        const double value = node == nullptr ? otherwise : *node->value<double>();
        if (!(value >= lowest && value <= highest)) {
            std::ostringstream range;
            range << "must be from " << lowest << " to " << highest;
            fail(key, range.str());
        }
        return value;
    }
    [[nodiscard]] std::uint8_t address(std::string_view key) const
    {
        const auto value = number(key, 0xFE);
        if ((value & 1) != 0) {
            fail(key, "addresses are in the 8-bit form, and even");
        }
        return static_cast<std::uint8_t>(value);
    }
    [[nodiscard]] bool truth(std::string_view key) const
    {
        const auto* const node = m_table.get(key);
        if (node != nullptr && !node->is_boolean()) {
            fail(key, "expected true or false");
        }
        return node != nullptr && node->as_boolean()->get();
    }
    void onlyKeys(const actionRow& action) const
    {
        const std::vector<std::string_view> allowed = keysOf(action);
        for (const auto& [key, value] : m_table) {
            if (std::ranges::find(allowed, key.str()) != allowed.end()) {
                continue;
            }
            std::string names;
            for (const std::string_view name : allowed) {
                names += (names.empty() ? "" : ", ") + std::string{name};
            }
            throw std::runtime_error{place(key.source()) + ": unknown key '" + std::string{key.str()} + "' of event '" +
                                     std::string{action.name} + "': expected one of " + names};
        }
    }

private:
    const toml::table& m_table;
    const std::string& m_file;
};

const actionRow& actionOf(const tableReader& table)
{
    const std::string name = table.text("do");
    const auto* const found = std::ranges::find(actions, name, &actionRow::name);
    if (found == actions.end()) {
        table.fail("do", "expected 'fault', 'remove', 'insert', 'temperature' or 'power-cut'");
    }
    return *found;
}

std::uint64_t nsOf(double milliseconds)
{
    return static_cast<std::uint64_t>(std::llround(milliseconds * static_cast<double>(nsPerMs)));
}

void readTrigger(const tableReader& table, eventRecord& event)
{
    event.byTime = !table.has("transaction");
    if (event.byTime == !table.has("at_ms")) {
        table.fail("at_ms", "an event has either 'at_ms' or 'transaction'");
    }
    if (event.byTime) {
        event.at = nsOf(table.real("at_ms", 0, longestMs, 0));
        return;
    }
    const std::uint64_t nth = table.number("transaction", mostTransactions / 2);
    if (nth == 0) {
        table.fail("transaction", "transactions count from 1");
    }
    // it comes before that transaction
    event.at = nth - 1;
}

void readChip(const tableReader& table, eventRecord& event)
{
    for (const std::string_view key : {"address", "bus"}) {
        if (!table.has(key)) {
            table.fail(key, "missing");
        }
    }
    if (table.has("hub") != table.has("port")) {
        table.fail("port", "'hub' and 'port' go together");
    }
    event.address = table.address("address");
    event.hub = table.address("hub");
    event.port = static_cast<std::uint8_t>(table.number("port", hub922::ports - 1));
}

faultDescription readFault(const tableReader& table)
{
    faultDescription what;
    what.kind = table.text("kind");
    what.address = table.address("address");
    what.way = table.text("way");
    what.nth = table.number("nth", mostTransactions);
    what.count = table.number("count", mostTransactions);
    what.probability = table.real("probability", 0, 1, 1);
    what.seed = table.number("seed", mostTransactions);
    what.value = static_cast<std::uint32_t>(table.number("value", 0xFFFFFFFF));
    what.byte = table.number("byte", mostTransactions);
    what.untilReset = table.truth("until_reset");
    what.lastsMs = static_cast<std::uint32_t>(table.number("lasts_ms", 0xFFFFFFFF));
    if (const std::string trouble = faultTrouble(what); !trouble.empty()) {
        table.fail("kind", trouble);
    }
    return what;
}

eventDescription readEvent(const toml::table& from, const std::string& fileName)
{
    const tableReader table{from, fileName};
    const actionRow& action = actionOf(table);
    table.onlyKeys(action);
    eventDescription what;
    what.place = table.place(from.source());
    what.bus = table.text("bus");
    what.node = table.text("node");
    what.event.kind = action.kind;
    readTrigger(table, what.event);
    if (action.ofChip) {
        readChip(table, what.event);
    }
    if (action.kind == eventKind::fault) {
        what.fault = readFault(table);
    }
    if (action.kind == eventKind::temperature) {
        if (!table.has("celsius")) {
            table.fail("celsius", "missing");
        }
        what.event.microCelsius = static_cast<std::int32_t>(std::lround(table.real("celsius", -273, 1000, 0) * 1e6));
        what.event.lastingNs = nsOf(table.real("over_ms", 0, longestMs, 0));
    }
    return what;
}

toml::table parsed(std::string_view text, const std::string& fileName)
{
    if (const auto trouble = findTextTrouble(text)) {
        throw std::runtime_error{fileName + ":" + std::to_string(trouble->line) + ":" +
                                 std::to_string(trouble->column) + ": expected plain TOML, found " +
                                 std::string{trouble->what}};
    }
    try {
        return toml::parse(text, fileName);
    } catch (const toml::parse_error& error) {
        throw std::runtime_error{fileName + ":" + std::to_string(error.source().begin.line) + ":" +
                                 std::to_string(error.source().begin.column) + ": " + std::string{error.description()}};
    }
}

} // namespace

std::vector<eventDescription> parseScenario(std::string_view text, const std::string& fileName)
{
    const toml::table root = parsed(text, fileName);
    std::vector<eventDescription> events;
    for (const auto& [key, value] : root) {
        if (key.str() != "event" || !value.is_array_of_tables()) {
            throw std::runtime_error{fileName + ":" + std::to_string(key.source().begin.line) + ":" +
                                     std::to_string(key.source().begin.column) +
                                     ": a scenario has tables, written [[event]], and nothing else"};
        }
        for (const auto& entry : *value.as_array()) {
            events.push_back(readEvent(*entry.as_table(), fileName));
        }
    }
    std::ranges::stable_sort(events, {}, [](const eventDescription& what) {
        return std::pair{what.event.byTime, what.event.at};
    });
    return events;
}

} // namespace kest::sim
