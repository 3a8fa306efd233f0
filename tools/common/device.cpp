#include "tools/common/device.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fmt/format.h>
#include <string_view>

#include "platform/host/configuration/configuration.h"
#include "tools/common/bus.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

using enum deviceKind;

constexpr std::array types{
    deviceTypeInfo{KEST_DEV_HUB_F0, "F0", "F0 hub", hub, 0, 0, 0},
    deviceTypeInfo{KEST_DEV_922HUB, "922", "922 hub", hub, 0, 0, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_2K, "1C0002", "24C02", seeprom, 256, 8, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_32K, "2C0032", "24C32", seeprom, 4096, 32, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_64K, "2C0064", "24C64", seeprom, 8192, 32, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_128K, "2C0128", "24C128", seeprom, 16384, 64, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_256K, "2C0256", "24C256", seeprom, 32768, 64, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_512K, "2C0512", "24C512", seeprom, 65536, 128, 0},
    deviceTypeInfo{KEST_DEV_9551, "9551", "PCA9551", registers, 0, 0, 8},
    deviceTypeInfo{KEST_DEV_9552, "9552", "PCA9552", registers, 0, 0, 16},
    deviceTypeInfo{KEST_DEV_9554, "9554", "PCA9554", registers, 0, 0, 8},
    deviceTypeInfo{KEST_DEV_9555, "9555", "PCA9555", registers, 0, 0, 16},
    deviceTypeInfo{KEST_DEV_D10, "D10", "D10 device", other, 0, 0, 0},
    deviceTypeInfo{KEST_DEV_75, "75", "LM75", sensor, 0, 0, 16},
    deviceTypeInfo{KEST_DEV_92, "92", "LM92", sensor, 0, 0, 16},
    deviceTypeInfo{KEST_DEV_172, "172", "172 device", other, 22016, 0, 0},
};

constexpr std::string_view spokenWithAVowel = "FL"; ///< letters that chips' names begin with

constexpr std::size_t longestText = 255;
constexpr std::size_t longestChain = 3;

/// Splits a device text and remembers which field is which, so that every complaint names it.
class fields
{
public:
    explicit fields(const std::string& text) : m_text(text)
    {
        std::size_t start = 0;
        for (std::size_t comma = 0; comma != std::string::npos; start = comma + 1) {
            comma = text.find(',', start);
            m_fields.push_back(text.substr(start, comma == std::string::npos ? comma : comma - start));
        }
    }

    [[nodiscard]] bool more() const { return m_next < m_fields.size(); }

    const std::string& take(const std::string& what)
    {
        if (!more()) {
            throw wrongUse(
                fmt::format("device text '{}' ends where field {}, {}, is expected", m_text, m_next + 1, what));
        }
        const std::string& field = m_fields[m_next++];
        if (field.empty()) {
            throw wrong("is empty; expected " + what);
        }
        return field;
    }

    std::uint32_t takeHexadecimal(const std::string& what, std::uint32_t maximum)
    {
        std::string_view digits = take(what);
        if (digits.starts_with("0x") || digits.starts_with("0X")) {
            digits.remove_prefix(2);
        }
        std::uint32_t value = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        if (error != std::errc() || end != digits.data() + digits.size() || value > maximum) {
            throw wrong(fmt::format("is no {}: hexadecimal, at most {:X}", what, maximum));
        }
        return value;
    }

    /// The failure about the field taken last.
    [[nodiscard]] failure wrong(const std::string& complaint) const
    {
        return wrongUse(
            fmt::format("device text '{}': field {}, '{}', {}", m_text, m_next, m_fields[m_next - 1], complaint));
    }

private:
    const std::string& m_text;
    std::vector<std::string> m_fields;
    std::size_t m_next = 0;
};

bool isDigit(char letter) { return letter >= '0' && letter <= '9'; }

/// Takes "@HH" off the end of a device path.
std::string withoutAddress(const std::string& path) { return path.substr(0, path.find('@')); }

void checkPath(const fields& text, const std::string& path)
{
    std::string why;
    const std::size_t at = path.find('@');
    if (!isBusPath(withoutAddress(path), why)) {
        throw text.wrong(why);
    }
    const bool hexadecimal =
        at == std::string::npos ||
        (path.size() == at + 3 && path.find_first_not_of("0123456789abcdefABCDEF", at + 1) == std::string::npos);
    if (!hexadecimal) {
        throw text.wrong("has no two hexadecimal digits after '@'");
    }
}

std::uint8_t takeAddress(fields& text)
{
    const std::uint32_t address = text.takeHexadecimal("address", 0xFF);
    if (address % 2 != 0) {
        throw text.wrong(
            address > 0x7F ? "is odd: addresses are in the 8-bit form, which is even"
                           : fmt::format("is odd: addresses are in the 8-bit form; if it is a 7-bit one, write {:02X}",
                                         address * 2));
    }
    if (address == 0) {
        throw text.wrong("is no device's address");
    }
    return static_cast<std::uint8_t>(address);
}

deviceLink takeLink(fields& text)
{
    deviceLink link;
    link.type = findType(text.takeHexadecimal("device type", 0xFFFFFF));
    if (link.type == nullptr) {
        std::string known;
        for (const deviceTypeInfo& type : types) {
            known += fmt::format("{}{}", known.empty() ? "" : " ", type.code);
        }
        throw text.wrong("is no device type; there are " + known);
    }
    link.address = takeAddress(text);
    if (link.type->kind == hub) {
        link.port = static_cast<std::uint8_t>(text.takeHexadecimal("hub port", 0xFF));
    }
    return link;
}

void checkOrder(const fields& text, const std::vector<deviceLink>& links)
{
    if (links.size() > longestChain) {
        throw text.wrong(fmt::format("makes a chain of more than {} devices", longestChain));
    }
    if (links.size() < 2) {
        return;
    }
    const deviceTypeInfo& before = *links[links.size() - 2].type;
    const deviceTypeInfo& last = *links.back().type;
    if (before.kind != hub) {
        throw text.wrong(fmt::format("follows {}, behind which there can be nothing", aChip(before)));
    }
    if (last.kind == hub && !(before.type == KEST_DEV_HUB_F0 && last.type == KEST_DEV_922HUB)) {
        throw text.wrong(fmt::format("puts {} behind {}", aChip(last), aChip(before)));
    }
}

/// The row of a number; of several the one at the lowest position. Null when there is none.
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
    if (nameOrNumber.empty() || !isDigit(nameOrNumber.front())) {
        return nullptr;
    }
    return findNumber(parseNumber(nameOrNumber, "device number", 0xFFFFFFFF));
}

bool samePlace(const device& one, const device& other)
{
    const auto sameLink = [](const deviceLink& here, const deviceLink& there) {
        return here.address == there.address && here.port == there.port;
    };
    return one.bus == other.bus && nodeNumber(one.node) == nodeNumber(other.node) &&
           std::ranges::equal(one.links, other.links, sameLink);
}

} // namespace

std::span<const deviceTypeInfo> deviceTypes() { return types; }

const deviceTypeInfo* findType(std::uint32_t type)
{
    const auto* row = std::ranges::find_if(types, [type](const deviceTypeInfo& info) { return info.type == type; });
    return row == types.end() ? nullptr : row;
}

std::string aChip(const deviceTypeInfo& type)
{
    const std::string chip = type.chip;
    return (spokenWithAVowel.find(chip.front()) != spokenWithAVowel.npos ? "an " : "a ") + chip;
}

bool isBusPath(const std::string& path, std::string& why)
{
    constexpr std::string_view linux = "/dev/i2c-";
    constexpr std::string_view simulated = "sim:";
    const bool adapter = path.starts_with(linux) && path.size() > linux.size() &&
                         std::all_of(path.begin() + linux.size(), path.end(), isDigit);
    const bool named =
        path.starts_with(simulated) && path.size() > simulated.size() && path.find_first_of("@,") == std::string::npos;
    if (!adapter && !named) {
        why = "is no device path: /dev/i2c-N or sim:BUS, either with @HH behind it";
    }
    return adapter || named;
}

device parseDeviceText(const std::string& text)
{
    if (text.size() > longestText) {
        throw wrongUse(fmt::format("device text of {} characters: at most {} fit", text.size(), longestText));
    }
    device result;
    fields rest(text);
    const std::string path = rest.take("device path");
    checkPath(rest, path);
    result.label = text;
    result.text = text;
    result.bus = withoutAddress(path);
    result.node = rest.take("node");
    if (result.node.size() != 1 ||
        (result.node != "L" && result.node != "l" && (result.node[0] < '0' || result.node[0] > '7'))) {
        throw rest.wrong("is no node: L for the local one, or 0 to 7");
    }
    do {
        result.links.push_back(takeLink(rest));
        checkOrder(rest, result.links);
    } while (rest.more());
    if (result.end().type->kind == hub) {
        throw rest.wrong("ends the chain with a hub; the device behind it is missing");
    }
    return result;
}

device findDevice(const std::string& nameOrText)
{
    if (nameOrText.find(',') != std::string::npos) {
        return parseDeviceText(nameOrText);
    }
    const host::deviceEntry* entry = findEntry(nameOrText);
    if (entry == nullptr) {
        throw failure{.code = exitAbsent,
                      .what = "no such device in the device table",
                      .tryThis = "'kestctl devices' lists them; or give a device text PATH,NODE,TYPE,ADDRESS",
                      .device = nameOrText};
    }
    device found = parseDeviceText(entry->location);
    found.label = entry->name.empty() ? nameOrText : entry->name;
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

std::optional<device> otherTypeAt(const device& which)
{
    for (const host::deviceEntry& entry : host::currentConfiguration().devices) {
        try {
            device other = parseDeviceText(entry.location);
            if (samePlace(which, other) && which.end().type != other.end().type) {
                other.label = entry.name.empty() ? fmt::format("device 0x{:X}", entry.number) : entry.name;
                return other;
            }
        } catch (const failure&) {
            // 'kestctl devices' tells of rows that are no devices
        }
    }
    return std::nullopt;
}

busName findBus(const std::string& pathOrDevice)
{
    std::string why;
    if (isBusPath(pathOrDevice, why)) {
        return {pathOrDevice};
    }
    if (pathOrDevice.starts_with('/') ||
        (pathOrDevice.starts_with("sim:") && pathOrDevice.find(',') == std::string::npos)) {
        throw wrongUse(fmt::format("bus '{}' {}", pathOrDevice, why));
    }
    const device there = findDevice(pathOrDevice);
    return {there.bus, there.node};
}

void refuseUnservedChain(const device& which)
{
    failure refusal = wrongUse("");
    refusal.device = which.label;
    for (const deviceLink& link : which.links) {
        if (link.type->type == KEST_DEV_HUB_F0) {
            refusal.what = "no transfer goes through an F0 hub";
        }
    }
    if (refusal.what.empty() && which.behindHub() && which.end().type->kind != seeprom) {
        refusal.what =
            fmt::format("{} can't be reached behind a 922 hub, which passes SEEPROM transfers on and nothing else",
                        aChip(*which.end().type));
    }
    if (!refusal.what.empty()) {
        throw refusal;
    }
}

void requireKind(const device& which, std::initializer_list<deviceKind> kinds, const std::string& verb)
{
    const deviceTypeInfo& type = *which.end().type;
    if (std::ranges::find(kinds, type.kind) != kinds.end()) {
        return;
    }
    const char* instead = type.kind == seeprom     ? "'kestctl seeprom' reads and writes it"
                          : type.kind == registers ? "'kestctl port' works on it"
                          : type.kind == sensor    ? "'kestctl thermal read' reads it"
                                                   : "'kestctl detect' tells whether it answers";
    failure refusal = wrongUse(fmt::format("'{}' does not serve {}", verb, aChip(type)), instead);
    refusal.device = which.label;
    throw refusal;
}

std::string detectionText(const device& which)
{
    return fmt::format("{}@{:02X}{}", which.bus, which.end().address, which.text.substr(which.text.find(',')));
}

namespace
{

struct addressRange {
    std::uint8_t first;
    std::uint8_t last;
};

/// Where devices of a type are found, in the 8-bit form; everywhere, when the type says nothing.
addressRange usualAddresses(const deviceTypeInfo& type)
{
    switch (type.kind) {
    case hub:
        return {0x80, 0x8E};
    case seeprom:
        return {0xA0, 0xAE};
    case sensor:
        return {0x90, 0x9E};
    case registers:
        return type.type == KEST_DEV_9551 || type.type == KEST_DEV_9552 ? addressRange{0xC0, 0xCE}
                                                                        : addressRange{0x40, 0x4E};
    default:
        return {0x10, 0xEE};
    }
}

} // namespace

std::string wrongFormHint(const device& which)
{
    if (which.links.empty()) {
        return {};
    }
    const unsigned address = which.head().address;
    const busName bus{which.bus, which.node};
    // a hub that is there: what is missing is behind it
    if (answersAt(bus, which.head().address)) {
        return {};
    }
    const auto [first, last] = usualAddresses(*which.head().type);
    for (const unsigned candidate : {address * 2, address / 2}) {
        if (candidate >= first && candidate <= last && candidate % 2 == 0 &&
            answersAt(bus, static_cast<std::uint8_t>(candidate))) {
            return fmt::format("a device answers at {}: write {:02X}, addresses are in the 8-bit form",
                               addressText(static_cast<std::uint8_t>(candidate)), candidate);
        }
    }
    return {};
}

} // namespace kest::tools
