#include "tools/common/device.h"

#include <algorithm>
#include <fmt/core.h>

#include "base/guess.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/configuration/deviceplace.h"
#include "tools/common/failure.h"
#include "tools/common/fieldtext.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

constexpr std::uint64_t highestNumber = 0xFFFFFFFF;

/// The row of a number; of several rows the one with the lowest position. Null when there is none.
const host::deviceEntry* findNumber(std::uint64_t number)
{
    const host::deviceEntry* found = nullptr;
    for (const host::deviceEntry& entry : host::currentConfiguration().devices) {
        if (entry.number == number && (found == nullptr || entry.position < found->position)) {
            found = &entry;
        }
    }
    return found;
}

const host::deviceEntry* findEntry(const std::string& nameOrNumber)
{
    const auto& table = host::currentConfiguration().devices;
    const auto named = std::ranges::find(table, nameOrNumber, &host::deviceEntry::name);
    if (named != table.end()) {
        return &*named;
    }
    if (nameOrNumber.empty() || nameOrNumber.front() < '0' || nameOrNumber.front() > '9') {
        return nullptr;
    }
    return findNumber(parseNumber(nameOrNumber, "device number", highestNumber));
}

std::string labelOf(const host::deviceEntry& entry)
{
    return entry.name.empty() ? fmt::format("device 0x{:X}", entry.number) : entry.name;
}

/// How a command names a row of the table.
std::string wordOf(const host::deviceEntry& entry)
{
    return entry.name.empty() ? fmt::format("0x{:X}", entry.number) : entry.name;
}

/// "a 24C256"; "a device of type 5" for a row that is not valid.
std::string aChipOfType(std::uint32_t type)
{
    const deviceTypeInfo* known = findType(type);
    return known == nullptr ? fmt::format("a device of type {:X}", type) : aChip(*known);
}

/// The refusal of a text whose device, or a hub before it, `row` has at `there` with another type.
failure otherType(const device& which, const host::deviceEntry& row, const host::placedType& there, bool isDevice)
{
    return {.code = exitRefused,
            .what = fmt::format("the device table has {}, {}{}, at {}", aChipOfType(there.type),
                                isDevice ? "" : "on the way to ", labelOf(row), addressText(there.address)),
            .tryThis = fmt::format("{}--force takes the type that you give",
                                   isDevice ? fmt::format("name {}, or ", wordOf(row)) : ""),
            .device = which.label};
}

/// The command of kestctl that works on devices of a kind.
const char* insteadOf(deviceKind kind)
{
    switch (kind) {
    case deviceKind::seeprom:
        return "'kestctl seeprom' reads and writes it";
    case deviceKind::registers:
        return "'kestctl port' works on it";
    case deviceKind::sensor:
        return "'kestctl thermal read' reads it";
    default:
        return "'kestctl detect' checks whether it answers";
    }
}

/// The rows of the device table at a device's place, of whatever name, that expect something of it.
std::vector<const host::deviceEntry*> expectingRows(const device& which)
{
    const host::configuration& settings = host::currentConfiguration();
    const std::vector<host::placedType> mine = host::placesOf(which.text, settings.nodes);
    std::vector<const host::deviceEntry*> rows;
    for (const host::deviceEntry& row : settings.devices) {
        if (row.expect.empty() && row.expectFormat.empty()) {
            continue;
        }
        const std::vector<host::placedType> theirs = host::placesOf(row.location, settings.nodes);
        if (!mine.empty() && !theirs.empty() && mine.back().place == theirs.back().place) {
            rows.push_back(&row);
        }
    }
    return rows;
}

} // namespace

bool isDeviceText(const std::string& text) { return text.find(',') != std::string::npos || isFieldText(text); }

std::vector<std::string> deviceNames()
{
    std::vector<std::string> names;
    for (const host::deviceEntry& entry : host::currentConfiguration().devices) {
        if (!entry.name.empty()) {
            names.push_back(entry.name);
        }
    }
    return names;
}

device findDevice(const std::string& nameOrText)
{
    if (nameOrText.find(',') != std::string::npos) {
        return parseDeviceText(nameOrText);
    }
    // names have neither
    if (nameOrText.find('@') != std::string::npos || isFieldText(nameOrText)) {
        return parseFieldText(nameOrText);
    }
    const host::deviceEntry* entry = findEntry(nameOrText);
    if (entry == nullptr) {
        throw failure{.code = exitAbsent,
                      .what = "no such device in the device table",
                      .tryThis = didYouMean(nameOrText, deviceNames(),
                                            "'kestctl devices' lists them; or give a device text "
                                            "PATH,NODE,TYPE,ADDRESS or BUS:PART@ADDR7"),
                      .device = nameOrText};
    }
    device found = parseDeviceText(entry->location);
    found.label = entry->name.empty() ? nameOrText : entry->name;
    found.named = true;
    found.number = entry->number;
    found.position = entry->position;
    return found;
}

bool copyIsItsOwn(const device& which)
{
    const host::deviceEntry* owner = findNumber(which.number);
    return owner == nullptr || owner->position == which.position;
}

void refuseForeignCopy(const device& which)
{
    if (copyIsItsOwn(which)) {
        return;
    }
    const host::deviceEntry& owner = *findNumber(which.number);
    throw failure{.code = exitWrongUse,
                  .what =
                      fmt::format("persisted copies are kept by device number alone, and the copy of 0x{:X} is that "
                                  "of {}, at position {}",
                                  which.number, owner.name.empty() ? "the device" : owner.name, owner.position),
                  .tryThis = "give it a number of its own in the device table",
                  .device = which.label};
}

void refuseOtherType(const device& which, bool force)
{
    if (force || which.named) {
        return;
    }
    const host::configuration& settings = host::currentConfiguration();
    const std::vector<host::placedType> mine = host::placesOf(which.text, settings.nodes);
    for (const host::deviceEntry& row : settings.devices) {
        const std::vector<host::placedType> theirs = host::placesOf(row.location, settings.nodes);
        for (std::size_t link = 0; link < std::min(mine.size(), theirs.size()); ++link) {
            if (mine[link].place == theirs[link].place && mine[link].type != theirs[link].type) {
                throw otherType(which, row, theirs[link], link + 1 == theirs.size());
            }
        }
    }
}

std::vector<host::expectedBytes> expectedAt(const device& which)
{
    std::vector<host::expectedBytes> expected;
    for (const host::deviceEntry* row : expectingRows(which)) {
        expected.insert(expected.end(), row->expect.begin(), row->expect.end());
    }
    return expected;
}

std::string expectedFormatAt(const device& which)
{
    for (const host::deviceEntry* row : expectingRows(which)) {
        if (!row->expectFormat.empty()) {
            return row->expectFormat;
        }
    }
    return {};
}

bool isWidthProved(const device& which)
{
    const host::configuration& settings = host::currentConfiguration();
    const std::vector<host::placedType> mine = host::placesOf(which.text, settings.nodes);
    return std::ranges::any_of(settings.devices, [&](const host::deviceEntry& row) {
        const std::vector<host::placedType> theirs =
            row.widthProved ? host::placesOf(row.location, settings.nodes) : std::vector<host::placedType>{};
        return !mine.empty() && !theirs.empty() && mine.back().place == theirs.back().place &&
               mine.back().type == theirs.back().type;
    });
}

busName findBus(const std::string& pathOrDevice, const std::string& node)
{
    std::string why;
    const std::string path = findEntry(pathOrDevice) == nullptr ? busPathOf(pathOrDevice) : pathOrDevice;
    if (isBusPath(path, why)) {
        return {path, node.empty() ? "L" : node};
    }
    if ((path.starts_with('/') || path.starts_with("sim:")) && !isDeviceText(path)) {
        throw wrongUse(fmt::format("bus '{}' {}", pathOrDevice, why));
    }
    const device there = findDevice(pathOrDevice);
    return {there.bus, node.empty() ? there.node : node};
}

void refuseUnservedChain(const device& which)
{
    const auto isF0 = [](const deviceLink& link) { return link.type->type == KEST_DEV_HUB_F0; };
    std::string why;
    if (std::ranges::any_of(which.links, isF0)) {
        why = "no transfer goes through an F0 hub";
    } else if (which.behindHub() && which.end().type->kind != deviceKind::seeprom) {
        why = fmt::format("{} can't be reached behind a 922 hub, which passes SEEPROM transfers on and nothing else",
                          aChip(*which.end().type));
    } else {
        return;
    }
    throw failure{.code = exitWrongUse, .what = why, .device = which.label};
}

void requireKind(const device& which, std::initializer_list<deviceKind> kinds, const std::string& verb)
{
    const deviceTypeInfo& type = *which.end().type;
    if (std::ranges::find(kinds, type.kind) != kinds.end()) {
        return;
    }
    throw failure{.code = exitWrongUse,
                  .what = fmt::format("'{}' does not serve {}", verb, aChip(type)),
                  .tryThis = insteadOf(type.kind),
                  .device = which.label};
}

} // namespace kest::tools
