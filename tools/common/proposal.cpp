#include "tools/common/proposal.h"

#include <algorithm>
#include <cctype>
#include <fmt/core.h>
#include <string_view>

#include "base/utf8.h"
#include "tools/common/bus.h"
#include "tools/common/escape.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

constexpr std::size_t columns = 100;
constexpr std::size_t longestName = 63;
// DEL is none either
constexpr std::uint32_t firstNoAscii = 0x7F;
constexpr std::uint64_t highestNumber = 0xFFFFFFFF;

constexpr const char* firstLines =
    "# Proposed by 'kestctl init' from what answers on the buses. Read it before you use it, and give names and "
    "numbers\n"
    "# of your own. \"proved\" was found out by reads, \"the kernel names it\" comes from a driver or the device "
    "tree.\n"
    "# Rows behind '#' are guesses: parts with registers can't be told apart without a write. Find out which part it\n"
    "# is, and keep one location. Addresses are in the 8-bit form; A0 = 0x50 shows both forms.\n";

/// Comment lines of a sentence. Texts of the kernel are escaped.
std::string comment(const std::string& words)
{
    const std::string safe = escaped(words);
    std::string_view rest = safe;
    std::string text;
    std::string line = "#";
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(' '), rest.size());
        if (line.size() + 1 + end > columns && line.size() > 1) {
            text += line + "\n";
            line = "#";
        }
        line += " " + std::string(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return text + line + "\n";
}

const char* sourceText(partSource source)
{
    switch (source) {
    case partSource::kernel:
        return "kernel";
    case partSource::proof:
        return "proof";
    case partSource::address:
        return "address";
    case partSource::none:
        break;
    }
    return "none";
}

/// "A2 = 0x51 behind 80 = 0x40, port 3"
std::string placeText(const foundPart& part)
{
    std::string text = addressText(part.address);
    if (part.lastAddress > part.address) {
        text += " to " + addressText(part.lastAddress);
    }
    for (const deviceLink& link : part.way) {
        text += fmt::format(" behind {}, port {}", addressText(link.address), link.port);
    }
    return text;
}

std::string locationOf(const busName& bus, const foundPart& part, const deviceTypeInfo& type)
{
    std::vector<deviceLink> links = part.way;
    links.push_back({.address = part.address, .type = &type});
    return deviceText(bus.path, bus.node, links);
}

jsonValue partJson(const foundPart& part)
{
    jsonList types;
    for (const deviceTypeInfo* type : part.types) {
        types.emplace_back(type->code);
    }
    jsonValue hub;
    for (const deviceLink& link : part.way) {
        hub = {{"address", link.address}, {"address7", link.address >> 1U}, {"port", link.port}};
    }
    return {{"address", part.address},
            {"address7", part.address >> 1U},
            {"last_address", part.lastAddress},
            {"hub", hub},
            {"state", presenceText(part.state)},
            {"source", sourceText(part.source)},
            {"types", types},
            {"ready", part.isReady},
            {"note", part.note}};
}

/// What kest.toml needs of the configuration in use to lead to the same buses: what differs from the defaults.
std::string settingsText(const host::configuration& current)
{
    host::configuration usual;
    host::complete(usual);
    std::string text;
    const auto add = [&text](bool differs, const std::string& line) { text += differs ? line + "\n" : ""; };
    add(current.stateFolder != usual.stateFolder, "state = " + tomlText(current.stateFolder.string()));
    if (!current.machineFolder.empty()) {
        text += "\n[machine]\nfolder = " + tomlText(current.machineFolder.string()) + "\n";
        add(current.machineRealTime, "time = \"real\"");
    }
    std::string nodes;
    for (std::size_t node = 0; node < current.nodes.size(); ++node) {
        const host::nodeMapping& where = current.nodes.at(node);
        if (where.mapped()) {
            nodes += fmt::format("{} = {}\n", node,
                                 tomlText(where.simNode.empty() ? where.pathPrefix : "sim:" + where.simNode));
        }
    }
    add(!nodes.empty(), "\n[nodes]\n" + nodes.substr(0, nodes.size() - std::min<std::size_t>(nodes.size(), 1)));
    const bool otherLocks = current.lockFolder != usual.lockFolder;
    add(otherLocks || current.setAdapterTimeout, "\n[linux]");
    add(otherLocks, "lock_folder = " + tomlText(current.lockFolder.string()));
    add(current.setAdapterTimeout, "set_timeout = true");
    return text;
}

} // namespace

std::string tomlText(const std::string& text)
{
    constexpr std::uint32_t replacement = 0xFFFD;
    std::string quoted = "\"";
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t length = utf8Length(rest);
        const std::uint32_t point = length == 0 ? replacement : codePoint(rest.substr(0, length));
        if (point == '"' || point == '\\') {
            quoted += fmt::format("\\{}", rest.front());
        } else if (point >= ' ' && point < firstNoAscii) {
            quoted += rest.front();
        } else {
            quoted += fmt::format("\\U{:08X}", point);
        }
        rest.remove_prefix(length == 0 ? brokenUtf8Length(rest) : length);
    }
    return quoted + "\"";
}

std::uint64_t firstFreeNumber(const host::configuration& current)
{
    std::uint64_t highest = 0;
    for (const host::deviceEntry& entry : current.devices) {
        highest = std::max<std::uint64_t>(highest, entry.number);
    }
    return highest == highestNumber ? 1 : highest + 1;
}

proposal::proposal(const host::configuration& current) : m_current(current), m_number(firstFreeNumber(current)) {}

/// "planar-50", "i2c-1-hub40-3-51", "node3-planar-50"; empty when that is too long for a name.
std::string proposal::nameOf(const busName& bus, const foundPart& part)
{
    std::string name = isLocal(bus.node) ? "" : "node" + bus.node + "-";
    name += bus.path.substr(bus.path.starts_with("sim:") ? 4 : std::string_view("/dev/").size());
    for (const deviceLink& link : part.way) {
        name += fmt::format("-hub{:02x}-{}", link.address >> 1U, link.port);
    }
    name += fmt::format("-{:02x}", part.address >> 1U);
    const auto isLetter = [](char letter) { return std::isalpha(static_cast<unsigned char>(letter)) != 0; };
    const auto fits = [](char letter) {
        return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '.' || letter == '_' || letter == '-';
    };
    name = isLetter(name.front()) ? name : "bus-" + name;
    const bool isGood = name.size() <= longestName && std::ranges::all_of(name, fits);
    return isGood && m_names.insert(name).second ? name : "";
}

void proposal::addRow(const busName& bus, const foundPart& part, jsonValue& json)
{
    if (part.types.empty() || m_number > highestNumber) {
        json.add({{"number", nullptr}, {"name", nullptr}, {"location", nullptr}});
        return;
    }
    const std::string name = nameOf(bus, part);
    const std::string location = locationOf(bus, part, *part.types.front());
    const std::string start = part.isReady ? "" : "#";
    m_rows += fmt::format("{}[[device]]\n{}number = 0x{:04X}\n", start, start, m_number);
    m_rows += name.empty() ? "" : fmt::format("{}name = \"{}\"\n", start, name);
    if (part.isReady) {
        m_rows += fmt::format("location = {}\n", tomlText(location));
    } else {
        for (const deviceTypeInfo* type : part.types) {
            m_rows += fmt::format("#location = {}  # {}\n", tomlText(locationOf(bus, part, *type)), type->chip);
        }
    }
    json.add({{"number", m_number}, {"name", name.empty() ? jsonValue() : jsonValue(name)}, {"location", location}});
    ++m_number;
    ++(part.isReady ? m_readyRows : m_rowsToDecide);
}

void proposal::add(const busName& bus, const std::vector<foundPart>& parts)
{
    constexpr std::size_t asked = (host::iic::lastScanned - host::iic::firstScanned) / 2 + 1;
    jsonList rows;
    m_rows += "\n" + comment(fmt::format("---- {}: {} addresses asked, from {} to {}", busText(bus), asked,
                                         addressText(host::iic::firstScanned), addressText(host::iic::lastScanned)));
    for (const foundPart& part : parts) {
        m_rows += "\n" + comment(placeText(part) + ": " + part.note + ".");
        rows.push_back(partJson(part));
        addRow(bus, part, rows.back());
    }
    m_rows +=
        "\n" + comment(parts.empty() ? "nothing answers on this bus." : "nothing answers at its other addresses.");
    m_buses.push_back({{"path", bus.path}, {"node", bus.node}, {"asked", asked}, {"parts", rows}});
}

std::string proposal::head() const { return firstLines + ("\n" + settingsText(m_current)); }

std::string proposal::text() const { return head() + m_rows; }

} // namespace kest::tools
