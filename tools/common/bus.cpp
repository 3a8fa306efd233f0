#include "tools/common/bus.h"

#include <cerrno>
#include <fmt/core.h>

#include "platform/host/configuration/configuration.h"
#include "tools/common/advice.h"
#include "tools/common/device.h"
#include "tools/common/failure.h"
#include "tools/common/fieldtext.h"
#include "tools/common/number.h"
#include "tools/common/offsetreads.h"

namespace kest::tools
{
namespace
{

failure busFailure(int error, const busName& bus, const std::string& step)
{
    errnoAdvice advice = adviceFor(error, bus);
    // after a reset these two mean that the bus is still held
    if (error == ENXIO || error == ETIME) {
        advice.what = "the bus stays held";
        advice.tryThis = "power-cycle what holds it";
    }
    return {.code = advice.code, .what = advice.what, .tryThis = advice.tryThis, .device = busText(bus), .step = step};
}

} // namespace

const char* presenceText(host::iic::presence state)
{
    switch (state) {
    case host::iic::presence::present:
        return "present";
    case host::iic::presence::absent:
        return "absent";
    case host::iic::presence::heldByDriver:
        return "held-by-driver";
    case host::iic::presence::uncertain:
        break;
    }
    return "uncertain";
}

std::string busText(const busName& bus) { return bus.node == "L" ? bus.path : bus.path + " on node " + bus.node; }

std::unique_ptr<host::iic::toolBus> openBus(const busName& bus)
{
    int error = 0;
    auto opened = host::iic::toolBus::open(bus.path, nodeNumber(bus.node), error);
    if (opened == nullptr) {
        throw busFailure(error, bus, "open");
    }
    return opened;
}

bool answersAt(const busName& bus, std::uint8_t address)
{
    int error = 0;
    const auto opened = host::iic::toolBus::open(bus.path, nodeNumber(bus.node), error);
    return opened != nullptr && opened->probe(address).state == host::iic::presence::present;
}

int errnoAt(const busName& bus, std::uint8_t address)
{
    int error = 0;
    const auto opened = host::iic::toolBus::open(bus.path, nodeNumber(bus.node), error);
    if (opened == nullptr) {
        return error;
    }
    const host::iic::scanResult now = opened->probe(address);
    return now.state == host::iic::presence::absent ? ENXIO : now.error;
}

bool answersBehindHub(const device& which, std::uint8_t address)
{
    constexpr std::uint8_t done = 0;
    // the device is there, and takes another number of offset bytes
    constexpr std::uint8_t malformed = 1;
    device other = which;
    other.links.back().address = address;
    offsetReads reads(other, which.speedKhz);
    const auto hub = reads.trouble().empty() ? reads.holdHub() : nullptr;
    if (hub == nullptr || hub->error() != 0) {
        return false;
    }
    const std::uint8_t start = 0;
    std::uint8_t byte = 0;
    const std::optional<std::uint8_t> status = reads.readStatus({&start, 1}, {&byte, 1});
    if (status && *status != done) {
        reads.clearStatus();
    }
    return status == done || status == malformed;
}

std::string wrongFormHint(const device& which)
{
    if (which.links.empty()) {
        return {};
    }
    const busName bus{which.bus, which.node};
    const bool headAnswers = answersAt(bus, which.head().address);
    if (headAnswers && (!which.behindHub() || which.end().type->kind != deviceKind::seeprom)) {
        return {};
    }
    // the hub is present: the missing device is behind it
    const deviceLink& missing = headAnswers ? which.end() : which.head();
    const unsigned address = missing.address;
    const auto [first, last] = usualAddresses(*missing.type);
    for (const unsigned candidate : {address * 2, address / 2}) {
        const auto other = static_cast<std::uint8_t>(candidate);
        if (candidate >= first && candidate <= last && candidate % 2 == 0 &&
            (headAnswers ? answersBehindHub(which, other) : answersAt(bus, other))) {
            const std::string there =
                fmt::format("a device answers at {}: write ", addressText(static_cast<std::uint8_t>(candidate)));
            return there + (isFieldText(which.label)
                                ? fmt::format("{:02x}, behind '@' addresses are in the 7-bit form", candidate / 2)
                                : fmt::format("{:02X}, addresses are in the 8-bit form", candidate));
        }
    }
    return {};
}

void refuseDoubtfulWrite(const device& which, bool force)
{
    if (force) {
        return;
    }
    const std::uint8_t address = which.head().address;
    int error = 0;
    const auto opened = host::iic::toolBus::open(which.bus, nodeNumber(which.node), error);
    if (opened != nullptr && opened->heldByDriver(address)) {
        throw failure{.code = exitRefused,
                      .what = "a kernel driver has " + addressText(address),
                      .tryThis = "--force writes all the same",
                      .device = which.label,
                      .step = "write"};
    }
}

void resetBus(const busName& bus)
{
    const int error = openBus(bus)->reset();
    if (error != 0) {
        throw busFailure(error, bus, "reset");
    }
}

std::vector<busName> allBuses()
{
    const auto& nodes = host::currentConfiguration().nodes;
    std::vector<busName> buses;
    for (std::int32_t node = -1; node < static_cast<std::int32_t>(nodes.size()); ++node) {
        if (node < 0 || nodes[static_cast<std::size_t>(node)].mapped()) {
            for (const std::string& path : host::iic::listBuses(node)) {
                buses.push_back({path, node < 0 ? "L" : std::to_string(node)});
            }
        }
    }
    return buses;
}

} // namespace kest::tools
