#include "platform/host/iic/tools.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "platform/host/configuration/configuration.h"
#include "platform/host/iic/bus.h"
#include "platform/host/iic/paths.h"
#include "platform/host/iic/sharedfolder.h"
#include "sim/machine.h"

namespace kest::host::iic
{

toolBus::toolBus(std::shared_ptr<bus> wires) : m_wires(std::move(wires)) {}

toolBus::~toolBus() = default;

std::unique_ptr<toolBus> toolBus::open(const std::string& path, NodeType node, int& error)
{
    devicePath where;
    std::shared_ptr<bus> wires;
    error = parseDevicePath(path, where);
    if (error == 0) {
        error = openBusOf(where, node, currentConfiguration(), wires);
    }
    return error == 0 ? std::unique_ptr<toolBus>(new toolBus(std::move(wires))) : nullptr;
}

std::vector<scanResult> toolBus::scan()
{
    std::vector<scanResult> results;
    for (unsigned int address = firstScanned; address <= lastScanned; address += 2) {
        results.push_back(probe(static_cast<std::uint8_t>(address)));
    }
    return results;
}

scanResult toolBus::probe(std::uint8_t address)
{
    if (!isDeviceAddress(address)) {
        return {.address = address, .state = presence::uncertain, .reason = "not a device's address"};
    }
    if (m_wires->heldByDriver(address)) {
        return {.address = address, .state = presence::heldByDriver, .reason = {}};
    }
    const outcome end = m_wires->probe(address, probeMethod::safe, {}).end;
    scanResult result{.address = address, .state = presence::uncertain, .reason = nameOf(end), .error = errnoOf(end)};
    if (end == outcome::done) {
        result = {.address = address, .state = presence::present, .reason = {}};
    } else if (end == outcome::addressNotAcknowledged) {
        result = {.address = address, .state = presence::absent, .reason = {}};
    }
    return result;
}

bool toolBus::heldByDriver(std::uint8_t address) { return m_wires->heldByDriver(address); }

int toolBus::reset() { return errnoOf(m_wires->reset(0)); }

std::string toolBus::adapterName() const { return m_wires->adapterName(); }

std::vector<std::string> toolBus::capabilities() const { return m_wires->capabilities(); }

std::string toolBus::path() const { return m_wires->identity().text; }

std::string lockFolderTrouble(const std::string& path, NodeType node)
{
    devicePath where;
    std::shared_ptr<bus> wires;
    const bool opened = parseDevicePath(path, where) == 0 && openBusOf(where, node, currentConfiguration(), wires) == 0;
    return opened ? sharedFolderTrouble(wires->identity()) : "";
}

namespace
{

void listSimulated(const configuration& settings, const std::string& node, std::vector<std::string>& paths)
{
    if (settings.machineFolder.empty()) {
        return;
    }
    try {
        for (const std::string& name :
             sim::openMachine(settings.machineFolder, settings.machineRealTime)->busNames(node)) {
            paths.push_back("sim:" + name);
        }
    } catch (const std::runtime_error&) {
        // opening one of its buses will say what is wrong
    }
}

void listLinux(const std::string& prefix, std::vector<std::string>& paths)
{
    std::error_code error;
    for (std::filesystem::directory_iterator entry(prefix + "/dev", error), end; !error && entry != end;
         entry.increment(error)) {
        devicePath where;
        const std::string path = "/dev/" + entry->path().filename().string();
        if (parseDevicePath(path, where) == 0 && where.address == 0) {
            paths.push_back(path);
        }
    }
}

} // namespace

std::vector<std::string> listBuses(NodeType node)
{
    const configuration& settings = currentConfiguration();
    std::vector<std::string> paths;
    const bool local = node == -1;
    if (local || (node >= 0 && node < static_cast<NodeType>(settings.nodes.size()))) {
        const nodeMapping where = local ? nodeMapping{} : settings.nodes.at(static_cast<std::size_t>(node));
        if (local || !where.simNode.empty()) {
            listSimulated(settings, where.simNode, paths);
        }
        if (local || !where.pathPrefix.empty()) {
            listLinux(where.pathPrefix, paths);
        }
    }
    std::ranges::sort(paths);
    return paths;
}

} // namespace kest::host::iic
