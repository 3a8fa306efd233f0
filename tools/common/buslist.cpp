#include "tools/common/buslist.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/core.h>
#include <memory>
#include <string_view>
#include <tuple>

#include "platform/host/configuration/configuration.h"
#include "platform/host/iic/tools.h"
#include "tools/common/advice.h"
#include "tools/common/bus.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/machine.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

constexpr std::string_view linuxPath = "/dev/i2c-";
constexpr std::string_view simulatedPath = "sim:";
constexpr std::size_t columns = 80;
constexpr std::size_t labelColumns = 13;
constexpr std::uint64_t hertzPerKhz = 1000;

/// The number in a kernel bus's path; none for one that no adapter can have.
std::optional<unsigned int> numberIn(const std::string& path)
{
    constexpr std::uint64_t mostAdapters = 1U << 20U;
    try {
        return static_cast<unsigned int>(parseNumber(path.substr(linuxPath.size()), "adapter", mostAdapters));
    } catch (const failure&) {
        return std::nullopt;
    }
}

/// What the node in /dev says.
void askNode(busDescription& which)
{
    int error = 0;
    const auto opened = host::iic::toolBus::open(which.bus.path, nodeNumber(which.bus.node), error);
    if (opened == nullptr) {
        which.unknown.push_back("functions: " + adviceFor(error, which.bus).what);
        // a node of the local node has its adapter's number, unless somebody made it by hand
        which.number = isLocal(which.bus.node) ? numberIn(which.bus.path) : std::nullopt;
        return;
    }
    which.number = opened->kernelNumber();
    which.functions = opened->capabilities();
    which.limits = host::iic::adapterLimits(which.bus.path, nodeNumber(which.bus.node));
}

/// What the kernel shows of the adapter.
void askKernel(busDescription& which, const host::iic::sysfs& kernel)
{
    if (!which.number) {
        which.unknown.emplace_back("adapter: its number in the kernel is not known");
        return;
    }
    which.name = kernel.adapterName(*which.number);
    which.clockHz = kernel.adapterClockHz(*which.number);
    int error = 0;
    which.devices = kernel.devices(*which.number, error);
    if (which.name.empty()) {
        which.unknown.emplace_back("name: the kernel does not show it");
    }
    if (which.clockHz == 0) {
        which.unknown.emplace_back("clock: the device tree has none");
    }
    if (error != 0) {
        which.unknown.push_back(fmt::format("drivers: {}", std::strerror(error)));
    }
}

busDescription kernelBus(const busName& bus, const host::iic::sysfs& kernel)
{
    busDescription result{.bus = bus};
    askNode(result);
    askKernel(result, kernel);
    return result;
}

/// An adapter that no program can use, because it has no node.
busDescription adapterWithoutNode(unsigned int number, const host::iic::sysfs& kernel)
{
    busDescription result{.bus = {std::string(linuxPath) + std::to_string(number), "L"}, .number = number};
    result.unknown.emplace_back("functions: the adapter has no node; the kernel's module i2c-dev makes it");
    askKernel(result, kernel);
    return result;
}

busDescription simulatedBus(const busName& bus, sim::machine& machine)
{
    busDescription result{.bus = bus};
    const std::int32_t node = nodeNumber(bus.node);
    const std::string simNode =
        node < 0 ? "" : host::currentConfiguration().nodes.at(static_cast<std::size_t>(node)).simNode;
    const std::string name = bus.path.substr(simulatedPath.size());
    result.name = "simulated machine " + machine.folder().string();
    for (const sim::chipInfo& chip : machine.chips()) {
        const bool isHere = chip.bus == name && chip.node == simNode;
        result.chips += isHere ? 1 : 0;
        result.chipsBehindHubs += isHere && chip.behindHub ? 1 : 0;
    }
    if (const auto wires = machine.findBus(name, simNode)) {
        result.clockHz = hertzPerKhz * wires->defaultSpeedKhz();
        result.limits = sim::adapterLimits(wires->adapter());
    }
    int error = 0;
    if (const auto opened = host::iic::toolBus::open(bus.path, node, error)) {
        result.functions = opened->capabilities();
    } else {
        result.unknown.push_back("functions: " + adviceFor(error, bus).what);
    }
    return result;
}

/// Adapters of the kernel that are not among the buses.
void addAdaptersWithoutNode(std::vector<busDescription>& buses, const host::iic::sysfs& kernel,
                            std::vector<failure>& trouble)
{
    int error = 0;
    for (const unsigned int number : kernel.adapters(error)) {
        const auto isIt = [number](const busDescription& bus) { return bus.number == number; };
        if (std::ranges::none_of(buses, isIt)) {
            buses.push_back(adapterWithoutNode(number, kernel));
        }
    }
    // a kernel without I2C has no such folder
    if (error != 0 && error != ENOENT) {
        trouble.push_back(systemFailure(error, "list adapters", "the kernel's adapters"));
    }
}

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : ", ") + text;
    }
    return all;
}

/// "  label     words ..." with further lines below the words.
std::string wrapped(const std::string& label, const std::string& words)
{
    std::string text;
    std::string line = fmt::format("  {:<{}}", label, labelColumns - 2);
    std::string_view rest = words;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(' '), rest.size());
        const std::string_view word = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (line.size() + word.size() > columns && line.size() > labelColumns) {
            text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
            line = std::string(labelColumns, ' ');
        }
        line += std::string(word) + " ";
    }
    return text + line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

std::string driverText(const host::iic::kernelDevice& device)
{
    if (!device.driver) {
        return "driver not known";
    }
    return device.driver->empty() ? "no driver" : "driver " + *device.driver;
}

std::string deviceLines(const std::vector<host::iic::kernelDevice>& devices)
{
    std::string text;
    for (const host::iic::kernelDevice& device : devices) {
        text += fmt::format("  {:<{}}{}  {:<10} {}\n", text.empty() ? "devices" : "", labelColumns - 2,
                            addressText(device.address), device.name.empty() ? "?" : escaped(device.name),
                            escaped(driverText(device)));
    }
    return text;
}

jsonList asTexts(const std::vector<std::string>& texts) { return {texts.begin(), texts.end()}; }

/// A text, or null for one that is not known.
jsonValue orNull(const std::string& text) { return text.empty() ? jsonValue() : jsonValue(text); }

} // namespace

std::vector<busDescription> describeBuses(const host::iic::sysfs& kernel, std::vector<failure>& trouble)
{
    std::vector<busDescription> buses;
    std::shared_ptr<sim::machine> machine;
    try {
        machine = host::currentConfiguration().machineFolder.empty() ? nullptr : openConfiguredMachine();
    } catch (const failure& why) {
        trouble.push_back(why);
    }
    for (const busName& bus : allBuses()) {
        if (!bus.path.starts_with(simulatedPath)) {
            buses.push_back(kernelBus(bus, kernel));
        } else if (machine != nullptr) {
            buses.push_back(simulatedBus(bus, *machine));
        }
    }
    addAdaptersWithoutNode(buses, kernel, trouble);
    std::ranges::stable_sort(buses, {}, [](const busDescription& one) {
        return std::tuple(one.isSimulated(), nodeNumber(one.bus.node), one.number.value_or(0));
    });
    return buses;
}

std::string busLines(const busDescription& which)
{
    std::string text = escaped(busText(which.bus)) + (which.name.empty() ? "" : "  " + escaped(which.name)) + "\n";
    if (which.clockHz != 0) {
        const auto khz = static_cast<double>(which.clockHz) / static_cast<double>(hertzPerKhz);
        text += wrapped("clock", fmt::format("{} kHz{}", khz, which.isSimulated() ? "" : ", from the device tree"));
    }
    if (!which.functions.empty()) {
        text += wrapped("functions", joined(which.functions));
    }
    if (!which.limits.empty()) {
        text += wrapped("limits", joined(which.limits));
    }
    if (which.isSimulated()) {
        text += wrapped("chips", fmt::format("{}, of them {} behind hubs", which.chips, which.chipsBehindHubs));
    }
    text += deviceLines(which.devices);
    for (const std::string& unknown : which.unknown) {
        text += wrapped("not known", escaped(unknown));
    }
    return text;
}

jsonValue busJson(const busDescription& which)
{
    jsonValue row{{"path", which.bus.path},
                  {"node", which.bus.node},
                  {"kind", which.isSimulated() ? "simulated" : "kernel"},
                  {"number", which.number ? jsonValue(*which.number) : jsonValue()},
                  {"name", orNull(which.name)},
                  {"clock_hz", which.clockHz == 0 ? jsonValue() : jsonValue(which.clockHz)},
                  {"functions", asTexts(which.functions)},
                  {"limits", asTexts(which.limits)},
                  {"not_known", asTexts(which.unknown)}};
    if (which.isSimulated()) {
        row.add({{"chips", which.chips}, {"chips_behind_hubs", which.chipsBehindHubs}});
        return row;
    }
    jsonList devices;
    for (const host::iic::kernelDevice& device : which.devices) {
        devices.push_back(
            {{"address", device.address},
             {"address7", device.address >> 1U},
             {"name", orNull(device.name)},
             {"driver", device.driver && !device.driver->empty() ? jsonValue(*device.driver) : jsonValue()},
             {"driver_known", device.driver.has_value()}});
    }
    row.add("devices", devices);
    return row;
}

} // namespace kest::tools
