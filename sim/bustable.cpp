#include "sim/bustable.h"

#include "sim/bus.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

namespace kest::sim
{

namespace
{

// What SMBus calls carry leaves no room for limits of plain messages.
smbusCalls smbusOf(const tableReader& adapter)
{
    const std::string calls = adapter.text("smbus", "");
    if (!adapter.has("smbus")) {
        return smbusCalls::none;
    }
    if (calls != "words" && calls != "blocks") {
        adapter.failKey("smbus", "expected 'words' or 'blocks'");
    }
    for (const std::string_view key : {"message_bytes", "messages", "stop_between"}) {
        if (adapter.has(key)) {
            adapter.failKey(key, "not together with 'smbus'");
        }
    }
    return calls == "words" ? smbusCalls::words : smbusCalls::blocks;
}

adapterKind adapterOf(const tableReader& bus)
{
    const auto* const node = bus.table().get("adapter");
    if (node == nullptr) {
        return {};
    }
    if (!node->is_table()) {
        bus.failKey("adapter", "expected a table, written { KEY = VALUE, ... }");
    }
    const tableReader table = bus.within(*node->as_table());
    table.onlyKeys("'adapter'", {"message_bytes", "messages", "smbus", "timeout_ms", "absent", "no_empty_messages",
                                 "stop_between", "stretch_limit_us", "stretching"});
    const auto limit = [&](std::string_view key, std::int64_t highest) {
        return table.has(key) ? static_cast<std::uint32_t>(table.number(key, 1, highest, std::nullopt)) : 0U;
    };
    const std::string absent = table.text("absent", "nack");
    if (absent != "nack" && absent != "timeout") {
        table.failKey("absent", "expected 'nack' or 'timeout'");
    }
    return {.messageBytes = limit("message_bytes", mostMessageBytes),
            .messages = limit("messages", mostMessages),
            .smbus = smbusOf(table),
            .timeoutMs = limit("timeout_ms", longestAdapterTimeoutMs),
            .absentTimesOut = absent == "timeout",
            .noEmptyMessages = table.truth("no_empty_messages"),
            .stretchLimitUs = static_cast<std::uint32_t>(
                table.number("stretch_limit_us", 0, longestStretchLimitUs, adapterKind{}.stretchLimitUs)),
            .losesBits =
                table.choice("stretching", tableReader::choices<bool, 2>{{{"good", false}, {"loses-bits", true}}}),
            .stopBetween = table.truth("stop_between")};
}

} // namespace

busDescription readBus(const tableReader& table, const machineDescription& machine)
{
    table.onlyKeys("[[bus]]", {"name", "node", "speed_khz", "adapter"});
    busDescription bus;
    bus.name = table.word("name", nullptr);
    bus.node = table.word("node", "");
    bus.speedKhz = static_cast<std::uint32_t>(table.number("speed_khz", 1, fastestKhz, 400));
    bus.adapter = adapterOf(table);
    for (const auto& other : machine.buses) {
        if (other.name == bus.name && other.node == bus.node) {
            table.failKey("name", "a second bus '" + bus.name + "'");
        }
    }
    return bus;
}

std::size_t busOf(const tableReader& table, const machineDescription& machine)
{
    const std::string name = table.text("bus", nullptr);
    const std::string node = table.word("node", "");
    const auto found = std::ranges::find_if(
        machine.buses, [&](const busDescription& bus) { return bus.name == name && bus.node == node; });
    if (found == machine.buses.end()) {
        table.failKey("bus", "no bus '" + name + "'" + (node.empty() ? "" : " on node '" + node + "'"));
    }
    return static_cast<std::size_t>(found - machine.buses.begin());
}

} // namespace kest::sim
