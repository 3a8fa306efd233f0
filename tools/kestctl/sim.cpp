#include "tools/kestctl/sim.h"

#include <cerrno>
#include <filesystem>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/machine.h"
#include "tools/common/number.h"
#include "tools/common/output.h"

namespace kest::tools
{
namespace
{

using nlohmann::ordered_json;

/// Takes "sim:" off.
std::string busOf(const std::string& name)
{
    constexpr std::string_view simulated = "sim:";
    return name.starts_with(simulated) ? name.substr(simulated.size()) : name;
}

/// Throws a `failure` when the machine has no bus of that name on any node; "NODE:BUS" names one on a node.
void requireBus(sim::machine& machine, const std::string& name)
{
    const std::size_t colon = name.find(':');
    const bool local = colon == std::string::npos;
    if (colon != 0 &&
        machine.findBus(local ? name : name.substr(colon + 1), local ? "" : name.substr(0, colon)) != nullptr) {
        return;
    }
    std::string known;
    for (const std::string& bus : machine.busNames("")) {
        known += (known.empty() ? "" : ", ") + bus;
    }
    throw failure{.code = exitAbsent, .what = "the simulated machine has no such bus; it has " + known, .device = name};
}

ordered_json faultJson(const sim::machine::listedFault& fault)
{
    const sim::machine::fault& what = fault.what;
    return {{"number", fault.number},          {"kind", what.kind},     {"bus", what.bus},     {"node", what.node},
            {"address", what.address},         {"way", what.way},       {"nth", what.nth},     {"count", what.count},
            {"probability", what.probability}, {"seed", what.seed},     {"value", what.value}, {"byte", what.byte},
            {"until_reset", what.untilReset},  {"struck", fault.struck}};
}

std::string busText(const sim::machine::fault& what)
{
    if (!what.bus.empty()) {
        return escaped(what.bus);
    }
    return what.node.empty() ? "any bus" : "any bus of " + escaped(what.node);
}

std::string faultText(const sim::machine::listedFault& fault)
{
    const sim::machine::fault& what = fault.what;
    std::string text = fmt::format("{:>3} {:<18} {:<8} {}", fault.number, what.kind, busText(what),
                                   what.address == 0 ? "any address" : addressText(what.address));
    if (!what.way.empty()) {
        text += " " + what.way;
    }
    if (what.nth > 1) {
        text += fmt::format(" from transaction {} on", what.nth);
    }
    if (what.count != 0) {
        text += what.count == 1 ? " once" : fmt::format(" {} times", what.count);
    }
    if (what.probability < 1) {
        text += fmt::format(" probability {}", what.probability);
    }
    if (what.value != 0) {
        text += fmt::format(" value {}", what.value);
    }
    if (what.byte != 0) {
        text += fmt::format(" byte {}", what.byte);
    }
    if (what.untilReset) {
        text += " until reset";
    }
    return text + fmt::format(", struck {}", fault.struck);
}

ordered_json chipJson(const sim::chipInfo& chip)
{
    ordered_json row{{"bus", chip.bus}, {"node", chip.node}, {"type", chip.type}, {"address", chip.address}};
    if (chip.behindHub) {
        row["hub"] = chip.hubAddress;
        row["port"] = chip.port;
    }
    if (!chip.image.empty()) {
        row["image"] = chip.image.string();
    }
    return row;
}

std::string chipText(const sim::chipInfo& chip)
{
    std::string text =
        fmt::format("{:<8} {}  {:<8}", escaped(chip.node.empty() ? chip.bus : chip.node + ":" + chip.bus),
                    addressText(chip.address), chip.type);
    if (chip.behindHub) {
        text += fmt::format(" behind {:02X}, port {}", chip.hubAddress, chip.port);
    }
    if (!chip.image.empty()) {
        text += " " + escaped(chip.image.filename().string());
    }
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

ordered_json showJson(sim::machine& machine)
{
    ordered_json chips = ordered_json::array();
    ordered_json registers = ordered_json::array();
    ordered_json faults = ordered_json::array();
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
    output& out = standardOutput();
    out.text(escaped(machine.folder().string()) + "\n\n");
    for (const sim::chipInfo& chip : machine.chips()) {
        out.text(chipText(chip) + "\n");
    }
    std::string before;
    for (const auto& value : machine.registers()) {
        if (value.chip != before) {
            out.text("\n" + out.paint(colour::bold, escaped(value.chip)) + "\n");
        }
        before = value.chip;
        out.text(fmt::format("  {:<9} 0x{:02X}{}{}\n", value.name, value.value, value.meaning.empty() ? "" : "  ",
                             escaped(value.meaning)));
    }
    const auto faults = machine.faults();
    if (!faults.empty()) {
        out.text("\nfaults\n");
    }
    for (const auto& fault : faults) {
        out.text(faultText(fault) + "\n");
    }
}

void done(const context& shared, const ordered_json& json, const std::string& text)
{
    if (shared.json) {
        standardOutput().json(json);
    } else {
        standardOutput().text(text + "\n");
    }
}

} // namespace

int runSimShow(const context& shared, const simShowOptions&)
{
    const auto machine = openConfiguredMachine();
    if (shared.json) {
        standardOutput().json(showJson(*machine));
    } else {
        showText(*machine);
    }
    return exitDone;
}

int runSimFaultAdd(const context& shared, const simFaultAddOptions& options)
{
    constexpr std::uint64_t highestAddress = 0xFE;
    sim::machine::fault what = options.what;
    if (options.bus) {
        what.bus = busOf(*options.bus);
    }
    if (options.bus && what.bus.empty()) {
        throw wrongUse("--bus names no bus", "leave it out for every bus");
    }
    if (options.address) {
        what.address = static_cast<std::uint8_t>(parseNumber(*options.address, "--address", highestAddress));
    }
    if (options.address && what.address == 0) {
        throw wrongUse("no chip has address 0", "leave --address out for every address");
    }
    const auto machine = openConfiguredMachine();
    if (options.bus) {
        requireBus(*machine, what.bus);
    }
    try {
        const std::uint32_t number = machine->addFault(what);
        done(shared, {{"number", number}}, fmt::format("fault {}", number));
    } catch (const std::invalid_argument& why) {
        throw wrongUse(why.what(), "'kestctl sim fault add --help' lists kinds and values");
    }
    return exitDone;
}

int runSimFaultList(const context& shared, const simFaultListOptions&)
{
    const auto machine = openConfiguredMachine();
    ordered_json rows = ordered_json::array();
    for (const auto& fault : machine->faults()) {
        rows.push_back(faultJson(fault));
        if (!shared.json) {
            standardOutput().text(faultText(fault) + "\n");
        }
    }
    if (shared.json) {
        standardOutput().json({{"faults", rows}});
    }
    return exitDone;
}

int runSimFaultClear(const context& shared, const simFaultClearOptions& options)
{
    const auto machine = openConfiguredMachine();
    if (!options.number) {
        machine->clearFaults();
    } else if (!machine->clearFault(*options.number)) {
        throw failure{.code = exitFailed,
                      .what = fmt::format("there is no fault {}", *options.number),
                      .tryThis = "'kestctl sim fault list' shows them"};
    }
    done(shared, {{"cleared", true}},
         options.number ? fmt::format("fault {} cleared", *options.number) : "all faults cleared");
    return exitDone;
}

int runSimWaveStart(const context& shared, const simWaveOptions& options)
{
    if (options.file.empty()) {
        throw wrongUse("the recording's file has no name", "name the VCD file to write");
    }
    const auto machine = openConfiguredMachine();
    const auto bus = busOf(options.bus);
    requireBus(*machine, bus);
    const std::filesystem::path file = std::filesystem::absolute(options.file);
    if (!machine->startWave(bus, file)) {
        if (errno == EEXIST) {
            throw failure{.code = exitRefused,
                          .what = "what is there is no waveform, and is not overwritten",
                          .tryThis = "name a new file",
                          .device = file.string(),
                          .step = "record"};
        }
        throw systemFailure(errno, "record", file.string());
    }
    done(shared, {{"bus", bus}, {"file", file.string()}},
         fmt::format("recording sim:{} into {} until 'kestctl sim wave stop {}'", escaped(bus), escaped(file.string()),
                     escaped(bus)));
    return exitDone;
}

int runSimWaveStop(const context& shared, const simWaveOptions& options)
{
    const auto machine = openConfiguredMachine();
    const auto bus = busOf(options.bus);
    requireBus(*machine, bus);
    if (!machine->stopWave(bus)) {
        if (errno == ENOENT) {
            throw failure{.what = "nothing is being recorded", .device = "sim:" + bus, .step = "sim wave stop"};
        }
        throw systemFailure(errno, "sim wave stop", "sim:" + bus);
    }
    done(shared, {{"bus", bus}, {"stopped", true}}, "sim:" + escaped(bus) + ": recording ended");
    return exitDone;
}

int runSimPowerCycle(const context& shared, const simPowerCycleOptions&)
{
    openConfiguredMachine()->powerCycle();
    done(shared, {{"power_cycled", true}},
         "registers are at their defaults, hubs are out of reset; images are as they were");
    return exitDone;
}

} // namespace kest::tools
