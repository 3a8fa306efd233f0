#include "tools/common/devicetext.h"

#include <algorithm>
#include <charconv>
#include <fmt/core.h>
#include <string_view>

#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

using enum deviceKind;

constexpr std::size_t longestChain = 3;

/// Splits a device text and counts the fields, so that every complaint names the field.
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
        for (const deviceTypeInfo& type : deviceTypes()) {
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

} // namespace

std::string chainComplaint(const std::vector<deviceLink>& links)
{
    if (links.size() > longestChain) {
        return fmt::format("makes a chain of more than {} devices", longestChain);
    }
    if (links.size() < 2) {
        return {};
    }
    const deviceTypeInfo& before = *links[links.size() - 2].type;
    const deviceTypeInfo& last = *links.back().type;
    if (before.kind != hub) {
        return fmt::format("follows {}, behind which there can be nothing", aChip(before));
    }
    if (last.kind == hub && !(before.type == KEST_DEV_HUB_F0 && last.type == KEST_DEV_922HUB)) {
        return fmt::format("puts {} behind {}", aChip(last), aChip(before));
    }
    return {};
}

std::string deviceText(const std::string& bus, const std::string& node, const std::vector<deviceLink>& links)
{
    std::string text = bus + "," + node;
    for (const deviceLink& link : links) {
        text += fmt::format(",{},{:02X}", link.type->code, link.address);
        text += link.type->kind == hub ? fmt::format(",{:X}", link.port) : "";
    }
    return text;
}

bool isLocal(const std::string& node) { return node.empty() || node == "L" || node == "l"; }

std::int32_t nodeNumber(const std::string& node) { return isLocal(node) ? -1 : node.front() - '0'; }

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
    if (text.size() > longestDeviceText) {
        throw wrongUse(fmt::format("device text of {} characters: at most {} fit", text.size(), longestDeviceText));
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
        if (const std::string complaint = chainComplaint(result.links); !complaint.empty()) {
            throw rest.wrong(complaint);
        }
    } while (rest.more());
    if (result.end().type->kind == hub) {
        throw rest.wrong("ends the chain with a hub; the device behind it is missing");
    }
    return result;
}

std::string detectionText(const device& which)
{
    return fmt::format("{}@{:02X}{}", which.bus, which.end().address, which.text.substr(which.text.find(',')));
}

} // namespace kest::tools
