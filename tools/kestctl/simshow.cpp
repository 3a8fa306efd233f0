#include "tools/kestctl/simshow.h"

#include <fmt/core.h>
#include <string>

#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/json.h"
#include "tools/common/machine.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/simfault.h"

namespace kest::tools
{
namespace
{

jsonValue chipJson(const sim::chipInfo& chip)
{
    jsonValue row{{"bus", chip.bus},
                  {"node", chip.node},
                  {"type", chip.type},
                  {"address", chip.address},
                  {"address7", chip.address >> 1U}};
    if (chip.behindHub) {
        row.add("hub", chip.hubAddress);
        row.add("port", chip.port);
    }
    if (!chip.image.empty()) {
        row.add("image", chip.image.string());
    }
    return row;
}

std::string chipText(const sim::chipInfo& chip)
{
    std::string text =
        fmt::format("{:<8} {}  {:<8}", escaped(chip.node.empty() ? chip.bus : chip.node + ":" + chip.bus),
                    addressText(chip.address), chip.type);
    if (chip.behindHub) {
        text += fmt::format(" behind {}, port {}", addressText(chip.hubAddress), chip.port);
    }
    if (!chip.image.empty()) {
        text += " " + escaped(chip.image.filename().string());
    }
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

jsonValue showJson(sim::machine& machine)
{
    jsonList chips;
    jsonList registers;
    jsonList faults;
    for (const sim::chipInfo& chip : machine.chips()) {
        chips.push_back(chipJson(chip));
    }
    for (const auto& value : machine.registers()) {
        registers.push_back(
            {{"chip", value.chip}, {"name", value.name}, {"value", value.value}, {"meaning", value.meaning}});
    }
    for (const auto& fault : machine.faults()) {
        faults.push_back(faultJson(fault));
    }
    return {{"folder", machine.folder().string()}, {"chips", chips}, {"registers", registers}, {"faults", faults}};
}

void showText(sim::machine& machine)
{
    // a bus that cannot be used ends it before anything is shown
    const auto registers = machine.registers();
    const auto faults = machine.faults();
    output& out = standardOutput();
    out.text(escaped(machine.folder().string()) + "\n\n");
    for (const sim::chipInfo& chip : machine.chips()) {
        out.text(chipText(chip) + "\n");
    }
    std::string before;
    for (const auto& value : registers) {
        if (value.chip != before) {
            out.text("\n" + out.paint(colour::bold, escaped(value.chip)) + "\n");
        }
        before = value.chip;
        out.text(fmt::format("  {:<9} 0x{:02X}{}{}\n", value.name, value.value, value.meaning.empty() ? "" : "  ",
                             escaped(value.meaning)));
    }
    if (!faults.empty()) {
        out.text("\nfaults\n");
    }
    for (const auto& fault : faults) {
        out.text(faultText(fault) + "\n");
    }
}

int runSimShow(const context& shared)
{
    const auto machine = openConfiguredMachine();
    if (shared.json) {
        standardOutput().json(showJson(*machine));
    } else {
        showText(*machine);
    }
    return exitDone;
}

} // namespace

void addSimShow(command area, context& shared)
{
    runs(addVerb(area, "show", "show chips, registers, what pins do, and faults"), shared, runSimShow);
}

} // namespace kest::tools
