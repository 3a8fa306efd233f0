#include "tools/common/busparts.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>
#include <iterator>
#include <string_view>

#include "tools/common/bus.h"
#include "tools/common/hubparts.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

using host::iic::kernelDevice;
using host::iic::presence;
using host::iic::scanResult;

/// Longer than parts promise to be busy after a page: 10 ms.
constexpr std::uint32_t writeCycleMs = 50;

struct kernelNameRow {
    std::string_view name;
    kest_deviceType type;
};
/// Names of the kernel for parts that are like another one.
constexpr std::array kernelNames{
    kernelNameRow{.name = "lm75a", .type = KEST_DEV_75},
    kernelNameRow{.name = "lm75b", .type = KEST_DEV_75},
};

/// The type of a part that the kernel names; null for one that is not served.
const deviceTypeInfo* typeOf(const std::string& kernelName)
{
    const auto* const row = std::ranges::find(kernelNames, kernelName, &kernelNameRow::name);
    return row != kernelNames.end() ? findType(row->type) : findPart(kernelName);
}

bool isHubAddress(std::uint8_t address)
{
    constexpr std::array<std::uint8_t, 4> hubs{0x80, 0x82, 0x88, 0x8A};
    return std::ranges::find(hubs, address) != hubs.end();
}

bool isMemoryAddress(std::uint8_t address)
{
    const auto [first, last] = usualAddresses(*findType(KEST_DEV_SEEPROM_2K));
    return address >= first && address <= last;
}

/// The types other than hubs that have an address in their range.
std::vector<const deviceTypeInfo*> typesAt(std::uint8_t address)
{
    std::vector<const deviceTypeInfo*> types;
    for (const deviceTypeInfo& type : deviceTypes()) {
        const auto [first, last] = usualAddresses(type);
        if (type.kind != deviceKind::other && type.kind != deviceKind::hub && address >= first && address <= last) {
            types.push_back(&type);
        }
    }
    return types;
}

/// Examines what answers at the addresses of one bus, in order.
class searcher
{
public:
    searcher(const busName& bus, const partSearch& search) : m_bus(bus), m_search(search) {}

    void take(const scanResult& result, const kernelDevice* known)
    {
        if (known != nullptr) {
            takeKnown(result, *known);
        } else if (result.state == presence::heldByDriver) {
            m_parts.push_back({.address = result.address,
                               .state = result.state,
                               .note = "a kernel driver has this address; its name is not known"});
        } else if (result.state == presence::uncertain) {
            takeUncertain(result);
        } else if (result.state == presence::present) {
            takeUnknown(result.address);
        }
    }
    [[nodiscard]] std::vector<foundPart> parts() && { return std::move(m_parts); }

private:
    void takeKnown(const scanResult& result, const kernelDevice& known);
    void takeUncertain(const scanResult& result);
    void takeUnknown(std::uint8_t address);
    void takeHub(std::uint8_t address);
    void contradict(foundPart& part) const;

    const busName& m_bus;
    const partSearch& m_search;
    memoryProofs m_proofs;
    std::vector<foundPart> m_parts;
};

/// The kernel's name of a memory part is compared with what its reads prove, unless a driver has the part.
void searcher::contradict(foundPart& part) const
{
    if (part.state != presence::present || part.types.front()->kind != deviceKind::seeprom) {
        return;
    }
    foundPart proved{.address = part.address};
    memoryProofs proofs;
    proofs.judge(m_bus, proved, m_search.asking);
    const bool isProved = proved.source == partSource::proof;
    if (isProved && std::ranges::find(proved.types, part.types.front()) == proved.types.end()) {
        part.note += "; but its reads show another part: " + proved.note;
        part.isReady = false;
    }
}

void searcher::takeKnown(const scanResult& result, const kernelDevice& known)
{
    const std::string name = known.name.empty() ? "a part whose name can't be read" : "'" + known.name + "'";
    foundPart part{.address = result.address, .state = result.state, .note = "the kernel names it " + name};
    const deviceTypeInfo* const type = typeOf(known.name);
    if (type == nullptr || type->kind == deviceKind::hub) {
        part.note += ", which is not served";
    } else {
        part.source = partSource::kernel;
        part.types = {type};
        part.isReady = result.state == presence::present || result.state == presence::heldByDriver;
    }
    if (result.state == presence::heldByDriver) {
        const bool hasName = known.driver && !known.driver->empty();
        part.note += fmt::format("; {} has the address, so that writes are refused unless forced",
                                 hasName ? "its driver " + *known.driver : "a driver");
    } else if (result.state == presence::absent) {
        part.note += "; nothing answers there";
    } else if (result.state == presence::uncertain) {
        part.note += "; whether it answers is not certain: " + result.reason;
    }
    if (type != nullptr) {
        contradict(part);
    }
    m_parts.push_back(std::move(part));
}

/// Neighbours that are uncertain for the same reason are one row: a held bus makes all addresses so.
void searcher::takeUncertain(const scanResult& result)
{
    const std::string note = "whether something answers is not certain: " + result.reason;
    if (!m_parts.empty() && m_parts.back().state == presence::uncertain && m_parts.back().note == note &&
        m_parts.back().lastAddress + 2 == result.address) {
        m_parts.back().lastAddress = result.address;
        return;
    }
    m_parts.push_back({.address = result.address, .lastAddress = result.address, .state = result.state, .note = note});
}

void searcher::takeUnknown(std::uint8_t address)
{
    foundPart part{.address = address, .types = typesAt(address)};
    if (isHubAddress(address)) {
        takeHub(address);
        return;
    }
    if (part.types.empty()) {
        part.note = "something answers; no type that is served has this address";
    } else if (part.types.front()->kind == deviceKind::seeprom) {
        m_proofs.judge(m_bus, part, m_search.asking);
    } else {
        part.source = partSource::address;
        part.note = "something answers, by its address";
        for (const deviceTypeInfo* type : part.types) {
            part.note += fmt::format("{} {}", type == part.types.front() ? "" : " or", aChip(*type));
        }
        part.note += ": a guess";
    }
    m_parts.push_back(std::move(part));
}

void searcher::takeHub(std::uint8_t address)
{
    if (!m_search.hubsAreCertain) {
        m_parts.push_back({.address = address,
                           .note = "something answers, by its address a 922 hub: a guess. If it is one, --hubs finds "
                                   "the parts behind it by bytes that another part would take for data"});
        return;
    }
    std::vector<foundPart> behind = findPartsBehind(m_bus, address, m_search.asking);
    std::ranges::move(behind, std::back_inserter(m_parts));
}

} // namespace

std::vector<foundPart> findParts(const busName& bus, const host::iic::sysfs& kernel, const partSearch& search)
{
    const auto opened = openBus(bus);
    std::vector<kernelDevice> known;
    if (const auto number = opened->kernelNumber()) {
        int error = 0;
        // without the kernel's names, a held address is still known as held
        known = kernel.devices(*number, error);
    }
    searcher found(bus, search);
    for (scanResult result : opened->scan()) {
        const auto row = std::ranges::find(known, result.address, &kernelDevice::address);
        if (result.state == presence::absent && (row != known.end() || isMemoryAddress(result.address))) {
            // it may be in a write cycle
            result = opened->awaitAnswer(result.address, writeCycleMs, search.asking.speedKhz);
        }
        found.take(result, row == known.end() ? nullptr : &*row);
    }
    std::vector<foundPart> parts = std::move(found).parts();
    for (foundPart& part : parts) {
        part.lastAddress = std::max(part.address, part.lastAddress);
    }
    settleEnds(parts);
    return parts;
}

} // namespace kest::tools
