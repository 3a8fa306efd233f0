#include "tools/kestctl/simtemplates.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>
#include <iterator>
#include <span>
#include <string_view>

#include "base/guess.h"
#include "sim/machinefile.h"
#include "tools/common/devicetype.h"
#include "tools/common/failure.h"
#include "tools/kestctl/embedded.h"

namespace kest::tools
{
namespace
{

/// What an image of a template begins with.
struct templateContent {
    std::string_view machine, image;
    std::string_view file; ///< of examples/images
};

constexpr std::array templateContents{
    templateContent{.machine = "demo", .image = "system.bin", .file = "tlvinfo-4096-switch.bin"},
    templateContent{.machine = "demo", .image = "panel.bin", .file = "edid-128-dell-e178wfp-vga.bin"},
    templateContent{.machine = "demo", .image = "firmware.bin", .file = "composite-65536-spd-records.bin"},
    templateContent{.machine = "demo", .image = "power.bin", .file = "spd-1024-ddr5-M425R1GB4BB0.bin"},
    templateContent{.machine = "demo", .image = "riser.bin", .file = "spd-512-ddr4-M471A1G44AB0.bin"},
    templateContent{.machine = "demo", .image = "fan.bin", .file = "cal-256-scope-x24c02.bin"},
    templateContent{.machine = "rack", .image = "s0m0-system.bin", .file = "tlvinfo-4096-switch.bin"},
    templateContent{.machine = "rack", .image = "s7m7-system.bin", .file = "tlvinfo-4096-switch.bin"},
    templateContent{.machine = "hubs", .image = "80-3-riser.bin", .file = "spd-512-ddr4-M471A1G44AB0.bin"},
    templateContent{.machine = "hostile", .image = "flaky-system.bin", .file = "tlvinfo-4096-switch.bin"},
    templateContent{.machine = "hostile", .image = "wrong-small.bin", .file = "tlvinfo-4096-switch.bin"},
    templateContent{.machine = "hostile", .image = "wrong-refused.bin", .file = "cal-256-scope-x24c02.bin"},
};

/// A chip that is not what its label says, or is not there.
struct labelRow {
    std::string_view machine, bus;
    std::uint8_t address;
    std::string_view type; ///< that the device table has
};

constexpr std::array labels{
    labelRow{.machine = "hostile", .bus = "wrong", .address = 0xA0, .type = "24C256"},
    labelRow{.machine = "hostile", .bus = "wrong", .address = 0x40, .type = "PCA9555"},
    labelRow{.machine = "hostile", .bus = "wrong", .address = 0x90, .type = "LM75"},
};
constexpr labelRow missing{.machine = "hostile", .bus = "wrong", .address = 0xA6, .type = "24C02"};

constexpr std::uint32_t firstDeviceNumber = 0xD001;

std::span<const unsigned char> embedded(std::string_view name)
{
    const auto files = embeddedFiles();
    const auto found = std::ranges::find(files, name, &embeddedFile::name);
    if (found == files.end()) {
        throw failure{.code = exitFailed, .what = fmt::format("'{}' is not part of this program", name)};
    }
    return found->bytes;
}

std::string embeddedText(std::string_view name)
{
    const auto bytes = embedded(name);
    return {bytes.begin(), bytes.end()};
}

std::string_view labelOf(std::string_view machine, const std::string& bus, const sim::chipDescription& chip)
{
    const auto found = std::ranges::find_if(labels, [&](const labelRow& row) {
        return row.machine == machine && row.bus == bus && row.address == chip.address && !chip.behindHub;
    });
    return found == labels.end() ? std::string_view{chip.typeName} : found->type;
}

/// The code of a chip in device texts; null: no device text has it.
const char* codeOf(std::string_view chip)
{
    const auto types = deviceTypes();
    const auto found = std::ranges::find_if(types, [&](const deviceTypeInfo& type) { return type.chip == chip; });
    return found == types.end() || found->kind == deviceKind::hub ? nullptr : found->code;
}

/// Writes the device table of a machine, and its map of nodes.
class tableWriter
{
public:
    explicit tableWriter(std::string begin) : m_text{std::move(begin)} {}

    void add(const sim::busDescription& bus, std::string_view type, const std::string& place, const std::string& way)
    {
        const char* const code = codeOf(type);
        if (code == nullptr) {
            return;
        }
        const std::string name = (bus.node.empty() ? "" : bus.node + "-") + bus.name + "-" + place;
        m_text += fmt::format("[[device]]\nnumber = 0x{:04X}\nname = \"{}\"\nlocation = \"sim:{},{},{}{},{}\"\n\n",
                              m_number++, name, bus.name, nodeNumber(bus.node), way, code,
                              place.substr(place.rfind('-') + 1));
    }
    [[nodiscard]] std::string take()
    {
        m_text += m_nodes.empty() ? "" : "# Numbers of the machine's nodes in device texts and --node.\n[nodes]\n";
        for (std::size_t index = 0; index < m_nodes.size(); ++index) {
            m_text += fmt::format("{} = \"sim:{}\"\n", index + 1, m_nodes[index]);
        }
        return m_text.substr(0, m_text.find_last_not_of('\n') + 1) + "\n";
    }

private:
    std::string nodeNumber(const std::string& node)
    {
        if (node.empty()) {
            return "L";
        }
        auto found = std::ranges::find(m_nodes, node);
        if (found == m_nodes.end()) {
            found = m_nodes.insert(m_nodes.end(), node);
        }
        return std::to_string(found - m_nodes.begin() + 1);
    }

    std::string m_text;
    std::vector<std::string> m_nodes; ///< in the order of their numbers, from 1
    std::uint32_t m_number = firstDeviceNumber;
};

} // namespace

std::string templateNames()
{
    std::string names;
    for (const auto& each : sim::machineTemplates()) {
        names += (names.empty() ? "" : ", ") + std::string(each.name);
    }
    return names;
}

std::string templateHelp()
{
    std::string text = "Templates:";
    for (const auto& each : sim::machineTemplates()) {
        text += fmt::format("\n  {:<8} {}", each.name, each.about);
    }
    return text;
}

const sim::machineTemplate& findTemplate(const std::string& name)
{
    const auto all = sim::machineTemplates();
    const auto found = std::ranges::find(all, name, &sim::machineTemplate::name);
    if (found == all.end()) {
        std::vector<std::string> names;
        for (const sim::machineTemplate& each : all) {
            names.emplace_back(each.name);
        }
        throw wrongUse("there is no template '" + name + "'",
                       didYouMean(name, names, "the templates are " + templateNames()));
    }
    return *found;
}

std::map<std::string, std::vector<std::uint8_t>> contentsOf(const sim::machineTemplate& which)
{
    std::map<std::string, std::vector<std::uint8_t>> contents;
    for (const templateContent& content : templateContents) {
        if (content.machine == which.name) {
            const auto bytes = embedded(content.file);
            contents[std::string(content.image)] = {bytes.begin(), bytes.end()};
        }
    }
    return contents;
}

std::string configurationOf(const sim::machineTemplate& which)
{
    constexpr const char* demoConfiguration = "kest.toml";
    std::string demo = embeddedText(demoConfiguration);
    if (which.name == sim::machineTemplates().front().name) {
        return demo;
    }
    const sim::machineDescription machine = sim::parseMachine(which.text(), std::string(which.name));
    tableWriter table(demo.substr(0, demo.find("[[device]]")));
    for (const sim::chipDescription& chip : machine.chips) {
        const sim::busDescription& bus = machine.buses.at(chip.bus);
        const std::string hub = chip.behindHub ? fmt::format("{:02X}-{}-", chip.hub, chip.port) : "";
        const std::string way = chip.behindHub ? fmt::format("922,{:02X},{},", chip.hub, chip.port) : "";
        table.add(bus, labelOf(which.name, bus.name, chip), hub + fmt::format("{:02X}", chip.address), way);
    }
    if (which.name == missing.machine) {
        sim::busDescription bus;
        bus.name = missing.bus;
        table.add(bus, missing.type, fmt::format("{:02X}", missing.address), "");
    }
    return table.take();
}

} // namespace kest::tools
