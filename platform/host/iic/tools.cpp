#include "platform/host/iic/tools.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "base/clock.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/iic/bus.h"
#include "platform/host/iic/bus_sim.h"
#include "platform/host/iic/locks.h"
#include "platform/host/iic/paths.h"
#include "platform/host/iic/sharedfolder.h"

namespace kest::host::iic
{

toolBus::toolBus(std::shared_ptr<bus> wires) : m_wires(std::move(wires)), m_messageBytes(m_wires->limits().readBytes) {}

toolBus::~toolBus() = default;

namespace
{

/// @return 0 or an errno
int openBusAt(const std::string& path, NodeType node, std::shared_ptr<bus>& opened)
{
    devicePath where;
    if (const int error = parseDevicePath(path, where)) {
        return error;
    }
    return openBusOf(where, node, currentConfiguration(), opened);
}

} // namespace

std::unique_ptr<toolBus> toolBus::open(const std::string& path, NodeType node, int& error)
{
    std::shared_ptr<bus> wires;
    error = openBusAt(path, node, wires);
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

scanResult toolBus::probe(std::uint8_t address, std::uint32_t speedKhz)
{
    if (!isDeviceAddress(address)) {
        return {.address = address, .state = presence::uncertain, .reason = "not a device's address"};
    }
    if (m_wires->heldByDriver(address)) {
        return {.address = address, .state = presence::heldByDriver, .reason = {}};
    }
    const outcome end = m_wires->probe(address, probeMethod::safe, {.speedKhz = speedKhz}).end;
    switch (end) {
    case outcome::done:
        return {.address = address, .state = presence::present, .reason = {}};
    case outcome::addressNotAcknowledged:
        return {.address = address, .state = presence::absent, .reason = {}};
    default:
        return {.address = address, .state = presence::uncertain, .reason = nameOf(end), .error = errnoOf(end)};
    }
}

scanResult toolBus::awaitAnswer(std::uint8_t address, std::uint32_t milliseconds, std::uint32_t speedKhz)
{
    constexpr std::uint64_t pauseNs = nsPerMs;
    const std::uint64_t startedNs = m_wires->nowNs();
    scanResult now = probe(address, speedKhz);
    while (now.state == presence::absent && m_wires->nowNs() - startedNs < milliseconds * nsPerMs) {
        m_wires->pause(pauseNs);
        now = probe(address, speedKhz);
    }
    return now;
}

bool toolBus::isBeingWritten(std::uint8_t address) const
{
    return addressLocks(m_wires->identity()).isWrittenByAnother(address);
}

pageWaits toolBus::waitsAfterPages(std::uint8_t address) const { return pageWaitsOf(m_wires->identity(), address); }

bool toolBus::heldByDriver(std::uint8_t address) { return m_wires->heldByDriver(address); }

int toolBus::reset() { return errnoOf(m_wires->reset(0)); }

exchangeResult toolBus::exchange(const exchangeOrder& order) { return iic::exchange(*m_wires, order, m_messageBytes); }

std::string toolBus::exchangeTrouble() const { return iic::exchangeTrouble(*m_wires); }

std::size_t toolBus::longestExchange(std::uint32_t speedKhz) const { return iic::longestExchange(*m_wires, speedKhz); }

std::string toolBus::adapterName() const { return m_wires->adapterName(); }

std::optional<unsigned int> toolBus::kernelNumber() const { return m_wires->kernelNumber(); }

std::vector<std::string> toolBus::capabilities() const { return m_wires->capabilities(); }

std::string toolBus::path() const { return m_wires->identity().text; }

std::string lockFolderTrouble(const std::string& path, NodeType node)
{
    std::shared_ptr<bus> wires;
    return openBusAt(path, node, wires) == 0 ? sharedFolderTrouble(wires->identity()) : "";
}

std::vector<std::string> adapterLimits(const std::string& path, NodeType node)
{
    std::shared_ptr<bus> wires;
    return openBusAt(path, node, wires) == 0 ? wires->lacks() : std::vector<std::string>{};
}

namespace
{

void listSimulated(const configuration& settings, const std::string& node, std::vector<std::string>& paths)
{
    for (const std::string& name : simulatedBusNames(settings.machineFolder, settings.machineRealTime, node)) {
        paths.push_back("sim:" + name);
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
    if (node == MERN_NODE_LOCAL) {
        listSimulated(settings, "", paths);
        listLinux("", paths);
    } else if (node >= 0 && node < static_cast<NodeType>(settings.nodes.size())) {
        const nodeMapping& where = settings.nodes.at(static_cast<std::size_t>(node));
        if (!where.simNode.empty()) {
            listSimulated(settings, where.simNode, paths);
        }
        if (!where.pathPrefix.empty()) {
            listLinux(where.pathPrefix, paths);
        }
    }
    std::ranges::sort(paths);
    return paths;
}

} // namespace kest::host::iic
