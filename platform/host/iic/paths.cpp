#include "platform/host/iic/paths.h"

#include <cerrno>
#include <charconv>
#include <utility>

#include "platform/host/iic/bus_linux.h"
#include "platform/host/iic/bus_sim.h"
#include "platform/host/iic/watch.h"

namespace kest::host::iic
{
namespace
{

constexpr std::string_view linuxPrefix = "/dev/i2c-";
constexpr std::string_view simulatedPrefix = "sim:";
constexpr std::size_t longestPath = 255;
// as many as the kernel's minor numbers
constexpr unsigned int highestNumber = (1U << 20) - 1;

/// The whole text as an unsigned number without sign, blanks or leading zeros.
bool parseNumber(std::string_view text, int base, unsigned int& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc{} && end == text.data() + text.size();
}

bool parseBusNumber(std::string_view text, unsigned int& number)
{
    const bool leadingZero = text.size() > 1 && text.front() == '0';
    return !leadingZero && parseNumber(text, 10, number) && number <= highestNumber;
}

} // namespace

int parseDevicePath(std::string_view text, devicePath& path)
{
    unsigned int address = 0;
    const std::size_t at = text.rfind('@');
    const bool named = at != std::string_view::npos;
    const bool fits = text.size() <= longestPath && text.find('\0') == std::string_view::npos;
    if (!fits || (named && (text.size() - at != 3 || !parseNumber(text.substr(at + 1), 16, address)))) {
        return ENOENT;
    }
    const std::string_view busText = text.substr(0, at);
    path.simulated = busText.starts_with(simulatedPrefix);
    if (path.simulated) {
        path.busName = busText.substr(simulatedPrefix.size());
    }
    const bool understood = path.simulated ? !path.busName.empty()
                                           : busText.starts_with(linuxPrefix) &&
                                                 parseBusNumber(busText.substr(linuxPrefix.size()), path.number);
    if (!understood) {
        return ENOENT;
    }
    path.address = static_cast<std::uint8_t>(address);
    return named && !isDeviceAddress(address) ? EINVAL : 0;
}

int openBusOf(const devicePath& path, NodeType node, const configuration& settings, std::shared_ptr<bus>& opened)
{
    // the local node: nothing is put before a path, and buses are the machine's own
    nodeMapping where;
    if (node != MERN_NODE_LOCAL) {
        if (node < 0 || node >= static_cast<NodeType>(settings.nodes.size())) {
            return ENODEV;
        }
        where = settings.nodes.at(static_cast<std::size_t>(node));
        const bool mapped = path.simulated ? !where.simNode.empty() : !where.pathPrefix.empty();
        if (!mapped) {
            return ENODEV;
        }
    }
    const int error =
        path.simulated
            ? openSimulatedBus(settings.machineFolder, settings.machineRealTime, path.busName, where.simNode, opened)
            : openLinuxBus(where.pathPrefix, path.number, settings.lockFolder, settings.setAdapterTimeout, opened);
    if (error == 0) {
        opened = watched(std::move(opened));
    }
    return error;
}

} // namespace kest::host::iic
