#include "tools/common/memoryparts.h"

#include <algorithm>
#include <fmt/core.h>

#include "tools/common/interrupt.h"
#include "tools/common/number.h"
#include "tools/common/widthbytes.h"
#include "tools/common/widthproof.h"

namespace kest::tools
{
namespace
{

/// The device of a part, as the smallest memory part that a device text can name.
device smallestAt(const busName& bus, const foundPart& part)
{
    device which;
    which.bus = bus.path;
    which.node = bus.node;
    which.links = part.way;
    which.links.push_back({.address = part.address, .type = findType(KEST_DEV_SEEPROM_2K)});
    which.text = deviceText(which.bus, which.node, which.links);
    which.label = which.text;
    return which;
}

widthFinding proveHeld(const device& which, const partAsking& asking)
{
    const deviceOperation held(which, {.use = operationUse::read, .doing = "init", .waitNs = asking.waitNs});
    widthFinding finding = proveWidth(which, asking.speedKhz);
    throwIfInterrupted(which.label, "init");
    return finding;
}

std::vector<const deviceTypeInfo*> allMemories()
{
    std::vector<const deviceTypeInfo*> types;
    for (const deviceTypeInfo& type : deviceTypes()) {
        if (type.kind == deviceKind::seeprom) {
            types.push_back(&type);
        }
    }
    return types;
}

void judgeTwoBytes(foundPart& part, const widthFinding& finding)
{
    part.source = partSource::proof;
    part.types = fittingTypes(finding);
    part.isReady = true;
    std::string others;
    for (const deviceTypeInfo* type : part.types) {
        others += (others.empty() ? "" : ", ") + std::string(type->chip);
    }
    part.note = fmt::format("proved: {}. The size is not known: it can be {}. The smallest one is proposed, which "
                            "reaches the first {} bytes of any",
                            widthText(finding), others, part.types.front()->bytes);
}

bool sameWay(const foundPart& one, const foundPart& other)
{
    return std::ranges::equal(one.way, other.way, [](const deviceLink& here, const deviceLink& there) {
        return here.address == there.address && here.port == there.port;
    });
}

} // namespace

std::string memoryProofs::otherAddressOf(const smallPart& part) const
{
    for (const smallPart& earlier : m_small) {
        if (earlier.goesOn && !part.goesOn) {
            return fmt::format("it may be a further block of the part at {}", addressText(earlier.address));
        }
        if (!part.first.empty() && earlier.first == part.first && !isUniform(part.first)) {
            return fmt::format("it holds the bytes of the part at {}: it may be the same part, which does not look at "
                               "its address pins",
                               addressText(earlier.address));
        }
    }
    return {};
}

void memoryProofs::judge(const busName& bus, foundPart& part, const partAsking& asking)
{
    const widthFinding finding = proveHeld(smallestAt(bus, part), asking);
    if (finding.verdict == widthVerdict::twoBytes) {
        judgeTwoBytes(part, finding);
        return;
    }
    if (finding.verdict != widthVerdict::oneByte) {
        part.source = partSource::address;
        part.types = allMemories();
        part.note = "a memory part by its address, which is a guess. Its offset width is " + widthText(finding);
        return;
    }
    part.source = partSource::proof;
    part.types = fittingTypes(finding);
    part.isReady = finding.end == partEnd::at256;
    part.note = "proved: " + widthText(finding);
    const smallPart small{
        .address = part.address, .goesOn = finding.end == partEnd::nextAddress, .first = finding.first};
    if (small.goesOn) {
        part.note += ". Such parts are not served";
    } else if (const std::string other = otherAddressOf(small); !other.empty()) {
        part.isReady = false;
        part.note += ". But " + other;
    } else {
        part.endIsOpen = !part.isReady;
    }
    m_small.push_back(small);
}

/// The lowest bit of the 7-bit address chooses a block of every larger part with one offset byte.
void settleEnds(std::vector<foundPart>& parts)
{
    constexpr std::uint8_t blockBit = 0x02;
    for (foundPart& part : parts) {
        if (!part.endIsOpen) {
            continue;
        }
        const auto partner = static_cast<std::uint8_t>(part.address ^ blockBit);
        part.isReady = std::ranges::none_of(parts, [&](const foundPart& other) {
            return sameWay(part, other) && other.address <= partner && partner <= other.lastAddress;
        });
        part.note += part.isReady ? ". It has 256 bytes: a 24C04 to 24C16 would also answer at "
                                  : ". Whether it has more than 256 bytes is not known: a 24C04 to 24C16 also answers "
                                    "at another address, and something does at ";
        part.note += addressText(partner);
    }
}

} // namespace kest::tools
