#include "tools/kestctl/scan.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>

#include "platform/host/configuration/configuration.h"
#include "tools/common/bus.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/inventory.h"
#include "tools/common/json.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

struct scanOptions {
    std::string bus; ///< path, or a device on it
    std::string node;
};

using host::iic::presence;
using host::iic::scanResult;
constexpr unsigned addresses7 = 128;
constexpr unsigned columns = 16;

/// What the grid shows at an address.
std::string mark(const scanResult& result)
{
    switch (result.state) {
    case presence::present:
        return standardOutput().paint(colour::bold, fmt::format("{:02x}", result.address >> 1U));
    case presence::absent:
        return "--";
    case presence::heldByDriver:
        return standardOutput().paint(colour::yellow, "UU");
    case presence::uncertain:
        break;
    }
    return standardOutput().paint(colour::red, "??");
}

void showGrid(const std::vector<scanResult>& results)
{
    std::array<std::string, addresses7> marks;
    marks.fill("  ");
    for (const scanResult& result : results) {
        marks.at(result.address >> 1U) = mark(result);
    }
    std::string text = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n";
    for (unsigned row = 0; row < addresses7; row += columns) {
        std::string line = fmt::format("{:02x}:", row);
        for (unsigned column = 0; column < columns; ++column) {
            line += " " + marks[row + column];
        }
        text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    standardOutput().text(text);
}

/// What is known of the device at an address: "24C256 planar-vpd".
std::string known(const inventory& all, const busName& bus, std::uint8_t address)
{
    const inventoryItem* item = all.find(bus, address);
    return item == nullptr ? "" : fmt::format("  {:<8} {}", item->chip, escaped(item->name));
}

std::string trimmed(const std::string& text) { return text.substr(0, text.find_last_not_of(' ') + 1); }

/// How many results from `first` on share one line: uncertain for the same reason, at addresses without a known device.
std::size_t alike(const inventory& all, const busName& bus, const std::vector<scanResult>& results, std::size_t first)
{
    std::size_t end = first;
    while (end < results.size() && results[end].state == presence::uncertain &&
           results[end].reason == results[first].reason && known(all, bus, results[end].address).empty()) {
        ++end;
    }
    return std::max<std::size_t>(end - first, 1);
}

void showList(const inventory& all, const busName& bus, const std::vector<scanResult>& results)
{
    standardOutput().text("\n");
    for (std::size_t at = 0; at < results.size();) {
        const scanResult& result = results[at];
        const std::size_t count = alike(all, bus, results, at);
        at += count;
        if (result.state == presence::absent) {
            continue;
        }
        std::string line = addressText(result.address) + known(all, bus, result.address);
        if (count > 1) {
            line += " to " + addressText(results[at - 1].address);
        }
        if (result.state == presence::heldByDriver) {
            line += "  a kernel driver has it";
        }
        if (result.state == presence::uncertain) {
            line += "  uncertain: " + escaped(result.reason);
        }
        standardOutput().text(trimmed(line) + "\n");
    }
}

jsonValue rowJson(const inventory& all, const busName& bus, const scanResult& result)
{
    const inventoryItem* item = all.find(bus, result.address);
    jsonValue row{
        {"address", result.address}, {"address7", result.address >> 1U}, {"state", presenceText(result.state)}};
    if (result.state == presence::uncertain) {
        row.add("reason", result.reason);
    }
    if (item != nullptr) {
        row.add("type", item->chip);
        row.add("name", item->name);
    }
    return row;
}

/// A device of the table at whose address nothing answers, while something does at the other form of it.
struct wrongForm {
    std::string device;
    std::string hint;
};

std::vector<wrongForm> wrongForms(const busName& bus, const std::vector<scanResult>& results)
{
    std::vector<wrongForm> found;
    for (const host::deviceEntry& row : host::currentConfiguration().devices) {
        device which;
        try {
            which = parseDeviceText(row.location);
        } catch (const failure&) {
            // 'kestctl devices' reports it
            continue;
        }
        const auto there = std::ranges::find(results, which.head().address, &scanResult::address);
        if (which.bus != bus.path || nodeNumber(which.node) != nodeNumber(bus.node) || there == results.end() ||
            there->state != presence::absent) {
            continue;
        }
        if (std::string hint = wrongFormHint(which); !hint.empty()) {
            found.push_back({row.name.empty() ? fmt::format("device 0x{:X}", row.number) : row.name, std::move(hint)});
        }
    }
    return found;
}

jsonList wrongFormsJson(const std::vector<wrongForm>& forms)
{
    jsonList rows;
    for (const wrongForm& each : forms) {
        rows.push_back({{"device", each.device}, {"hint", each.hint}});
    }
    return rows;
}

/// Probes every address of a bus that can be probed without harm, and shows a grid.
int runScan(const context& shared, const scanOptions& options)
{
    const busName bus = findBus(options.bus, options.node);
    const std::vector<scanResult> results = openBus(bus)->scan();
    const inventory all;
    const std::vector<wrongForm> forms = wrongForms(bus, results);
    if (shared.json) {
        jsonList rows;
        for (const scanResult& result : results) {
            if (result.state != presence::absent) {
                rows.push_back(rowJson(all, bus, result));
            }
        }
        standardOutput().json({{"bus", bus.path},
                               {"node", bus.node},
                               {"probed", results.size()},
                               {"devices", rows},
                               {"hints", wrongFormsJson(forms)}});
    } else {
        showGrid(results);
        showList(all, bus, results);
        for (const wrongForm& each : forms) {
            standardOutput().text(
                fmt::format("{} of the device table: nothing answers; {}\n", escaped(each.device), each.hint));
        }
    }
    return exitDone;
}

} // namespace

void addScan(command program, context& shared)
{
    const auto options = std::make_shared<scanOptions>();
    command verb = addVerb(program, "scan", "show what answers on a bus, as a grid",
                           "The grid has 7-bit addresses, as other tools show them; the list below it has\n"
                           "both forms. In the grid a number means that a device answers, -- that none does,\n"
                           "UU that a kernel driver has the address, so that it was not probed, and ?? that\n"
                           "the answer is not certain. Nothing is written to any device.");
    addBus(verb, options->bus, options->node);
    runs(verb, shared, options, runScan);
}

} // namespace kest::tools
