#include "tools/kestctl/simfault.h"

#include <algorithm>
#include <cstdint>
#include <fmt/core.h>
#include <optional>
#include <stdexcept>
#include <vector>

#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/machine.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/simbus.h"

namespace kest::tools
{
namespace
{

struct faultAddOptions {
    sim::machine::fault what;
    std::optional<std::string> bus; ///< "planar" or "sim:planar"; none: every bus
    std::string node; ///< empty: every node without a bus, or as the bus says
    std::optional<std::string> address; ///< number; none: every address
};

struct faultClearOptions {
    std::optional<std::uint32_t> number; ///< none: all
};

std::string busesText(const sim::machine::fault& what)
{
    if (!what.bus.empty()) {
        return escaped(what.bus);
    }
    return what.node.empty() ? "any bus" : "any bus of " + escaped(what.node);
}

int runFaultAdd(const context& shared, const faultAddOptions& options)
{
    constexpr std::uint64_t highestAddress = 0xFE;
    sim::machine::fault what = options.what;
    if (options.bus) {
        what.bus = simBusName(*options.bus);
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
        what.bus = busOnNode(*machine, what.bus, options.node);
        requireBus(*machine, what.bus);
    } else if (!options.node.empty()) {
        what.node = machineNode(*machine, options.node);
    }
    try {
        if (preferred().dryRun) {
            machine->checkFault(what);
            reportWould(shared, {{"kind", what.kind}}, fmt::format("a fault {} would be added", escaped(what.kind)));
            return exitDone;
        }
        const std::uint32_t number = machine->addFault(what);
        reportDone(shared, {{"number", number}}, fmt::format("fault {}", number));
    } catch (const std::invalid_argument& why) {
        throw wrongUse(why.what(), "'kestctl sim fault add --help' lists kinds and values");
    }
    return exitDone;
}

int runFaultList(const context& shared)
{
    const auto machine = openConfiguredMachine();
    jsonList rows;
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

bool hasFault(sim::machine& machine, std::uint32_t number)
{
    const std::vector<sim::machine::listedFault> faults = machine.faults();
    return std::ranges::find(faults, number, &sim::machine::listedFault::number) != faults.end();
}

int runFaultClear(const context& shared, const faultClearOptions& options)
{
    const auto machine = openConfiguredMachine();
    const bool dryRun = preferred().dryRun;
    bool found = true;
    if (options.number) {
        found = dryRun ? hasFault(*machine, *options.number) : machine->clearFault(*options.number);
    } else if (!dryRun) {
        machine->clearFaults();
    }
    if (!found) {
        throw failure{.code = exitFailed,
                      .what = fmt::format("there is no fault {}", *options.number),
                      .tryThis = "'kestctl sim fault list' shows them"};
    }
    if (dryRun) {
        reportWould(shared, {{"cleared", false}},
                    options.number ? fmt::format("fault {} would be cleared", *options.number)
                                   : "all faults would be cleared");
        return exitDone;
    }
    reportDone(shared, {{"cleared", true}},
               options.number ? fmt::format("fault {} cleared", *options.number) : "all faults cleared");
    return exitDone;
}

void addFaultAdd(command fault, context& shared)
{
    const auto adding = std::make_shared<faultAddOptions>();
    command add = addVerb(fault, "add", "add a fault; prints its number",
                          "Kinds, and what --value means:\n"
                          "  nack               the address is not acknowledged\n"
                          "  nack-data          data byte --byte of a write is not acknowledged\n"
                          "  hold-sda           SDA is held until a reset          resets that it outlasts\n"
                          "  hold-scl           SCL is held; no reset frees it: it meets --count attempts,\n"
                          "                     or lasts --lasts-ms\n"
                          "  short              a STOP in the middle of --byte\n"
                          "  arbitration        another controller wins at --byte\n"
                          "  corrupt            data byte --byte is changed        XOR mask, 0 is 0xFF\n"
                          "  stuck-write-cycle  the write cycle does not end       its ms, 0 for ever\n"
                          "  gone               the adapter is gone                1: it reports time-outs\n"
                          "  hub-status         a hub transfer ends with a status  the status\n"
                          "  hub-silent         the hub answers nothing\n"
                          "  hub-bad-first-byte a hub read begins with no status   that byte, 0 is 0xA5\n"
                          "  hub-hold-sda hub-hold-scl  the sub-bus is held        resets that it outlasts\n"
                          "  power-cut          chips lose power; --nth counts bytes, addresses too\n"
                          "It strikes at every matching transaction until cleared, unless told otherwise.\n"
                          "  kestctl sim fault add nack --bus planar --address 0xA0 --count 1");
    sim::machine::fault& what = adding->what;
    add.text("KIND", what.kind, "what happens, see below", "").required();
    add.read(
        "--bus", [adding](const std::string& name) { adding->bus = name; }, "on this bus alone", "NAME");
    addMachineNode(add, adding->node, "on this node alone, or the bus's node");
    add.read(
        "--address", [adding](const std::string& number) { adding->address = number; },
        "at this address alone, 8-bit form", "N");
    add.text("--way", what.way, "read or write alone", "WAY");
    add.number("--nth", what.nth, "strike first at the Nth matching transaction", 1);
    add.number("--count", what.count, "strike N times", 1);
    add.real("--probability", what.probability, "strike so often, 0 to 1", "P");
    add.number("--seed", what.seed, "of the probability's random numbers; 0: the machine's");
    add.number("--value", what.value, "see the kinds");
    add.number("--byte", what.byte, "data byte it strikes at, from 0");
    addMilliseconds(add, "--lasts-ms", what.lastsMs,
                    "of hold-scl: ends after this bus time, in ms, or with a unit: 2s; an hour at most", 3'600'000);
    add.flag("--until-reset", what.untilReset, "ends for good with a reset of the bus or hub");
    addDryRun(add);
    runs(add, shared, adding, runFaultAdd);
}

void addFaultClear(command fault, context& shared)
{
    const auto clearing = std::make_shared<faultClearOptions>();
    command clear = addVerb(fault, "clear", "clear one fault, or all");
    clear.read(
        "N",
        [clearing](const std::string& text) {
            clearing->number =
                static_cast<std::uint32_t>(parseNumber(text, "fault", std::numeric_limits<std::uint32_t>::max()));
        },
        "number of the fault; none: all", "");
    addDryRun(clear);
    runs(clear, shared, clearing, runFaultClear);
}

} // namespace

jsonValue faultJson(const sim::machine::listedFault& fault)
{
    const sim::machine::fault& what = fault.what;
    jsonValue json = {
        {"number", fault.number},          {"kind", what.kind},     {"bus", what.bus},     {"node", what.node},
        {"address", what.address},         {"way", what.way},       {"nth", what.nth},     {"count", what.count},
        {"probability", what.probability}, {"seed", what.seed},     {"value", what.value}, {"byte", what.byte},
        {"until_reset", what.untilReset},  {"struck", fault.struck}};
    if (what.lastsMs != 0) {
        json.add("lasts_ms", what.lastsMs);
    }
    return json;
}

std::string faultText(const sim::machine::listedFault& fault)
{
    const sim::machine::fault& what = fault.what;
    std::string text = fmt::format("{:>3} {:<18} {:<8} {}", fault.number, what.kind, busesText(what),
                                   what.address == 0 ? "any address" : addressText(what.address));
    if (!what.way.empty()) {
        text += " " + what.way;
    }
    if (what.nth > 1) {
        text += fmt::format(" from {} {} on", what.kind == "power-cut" ? "byte" : "transaction", what.nth);
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
    if (what.lastsMs != 0) {
        text += fmt::format(" for {} ms", what.lastsMs);
    }
    if (what.untilReset) {
        text += " until reset";
    }
    return text + fmt::format(", struck {}", fault.struck);
}

void addSimFault(command area, context& shared)
{
    command fault = addVerb(area, "fault", "make transactions fail");
    fault.requireSubcommand();
    addFaultAdd(fault, shared);
    runs(addVerb(fault, "list", "list faults and how often they struck"), shared, runFaultList);
    addFaultClear(fault, shared);
}

} // namespace kest::tools
