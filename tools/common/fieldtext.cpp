#include "tools/common/fieldtext.h"

#include <algorithm>
#include <charconv>
#include <fmt/core.h>
#include <string_view>

#include "base/guess.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

using enum deviceKind;

// those outside are reserved
constexpr std::uint32_t lowestAddress7 = 0x03;
constexpr std::uint32_t highestAddress7 = 0x77;
constexpr std::uint32_t highestAddressWire = 0xFF;
constexpr char highestPort = '7';
constexpr std::string_view shortLinux = "i2c-";
constexpr std::string_view longLinux = "/dev/i2c-";
constexpr std::string_view simulated = "sim:";

/// Where the colon is looked for that ends the bus: behind the one that a simulated bus's path has itself.
std::size_t busEnd(const std::string& text)
{
    return text.find(':', text.starts_with(simulated) ? simulated.size() : 0);
}

/// Takes a text apart, and knows the field taken last, so that every complaint names it.
class fieldReader
{
public:
    explicit fieldReader(const std::string& text) : m_text(text) {}

    [[nodiscard]] bool atEnd() const { return m_next == std::string::npos; }

    /// The next field, up to a separator or the end of the text.
    /// @param end  of the field; npos for the end of the text
    const std::string& take(const std::string& what, const std::string& expected, std::size_t end)
    {
        ++m_count;
        m_what = what;
        m_start = m_next;
        if (atEnd()) {
            throw wrongUse(fmt::format("device text '{}' ends where field {}, {}, is expected: {}", m_text, m_count,
                                       what, expected));
        }
        m_field = m_text.substr(m_start, end == std::string::npos ? end : end - m_start);
        m_next = end == std::string::npos ? end : end + 1;
        if (m_field.empty()) {
            throw wrong("is empty; expected " + expected);
        }
        return m_field;
    }
    const std::string& takeUntil(char separator, const std::string& what, const std::string& expected)
    {
        return take(what, expected, atEnd() ? std::string::npos : m_text.find(separator, m_next));
    }

    /// The failure about the field taken last.
    [[nodiscard]] failure wrong(const std::string& complaint) const
    {
        return wrongUse(
            fmt::format("device text '{}': field {}, {}, '{}', {}", m_text, m_count, m_what, m_field, complaint));
    }
    /// The whole text with another text in the place of the field taken last.
    [[nodiscard]] std::string with(const std::string& better) const
    {
        return std::string(m_text).replace(m_start, m_field.size(), better);
    }

private:
    const std::string& m_text;
    std::string m_what;
    std::string m_field;
    std::size_t m_start = 0;
    std::size_t m_next = 0;
    unsigned m_count = 0;
};

void checkLength(const std::string& text)
{
    if (text.size() > longestDeviceText) {
        throw wrongUse(fmt::format("device text of {} characters: at most {} fit", text.size(), longestDeviceText));
    }
}

std::string takeBus(fieldReader& text, std::size_t end)
{
    const std::string expected = "i2c-N, /dev/i2c-N or sim:NAME";
    std::string path = busPathOf(text.take("bus", expected, end));
    std::string why;
    if (!isBusPath(path, why)) {
        throw text.wrong("is no bus of this node; expected " + expected +
                         " (a bus of another node needs the form PATH,NODE,TYPE,ADDRESS)");
    }
    return path;
}

std::string digitsOf(const std::string& name)
{
    std::string digits = name;
    std::erase_if(digits, [](char letter) { return letter < '0' || letter > '9'; });
    return digits;
}

/// The part that a mistyped name means. A name with other digits is that of another part, and no mistyped one.
std::string meantPart(const std::string& name)
{
    std::vector<std::string> known;
    for (const deviceTypeInfo& each : deviceTypes()) {
        if (const std::string part = partName(each); digitsOf(part) == digitsOf(name)) {
            known.push_back(part);
        }
    }
    return didYouMean(name, known);
}

const deviceTypeInfo* takePart(fieldReader& text)
{
    const std::string& name = text.takeUntil('@', "part", "a part such as 24c256");
    const deviceTypeInfo* type = findPart(name);
    if (type == nullptr) {
        std::string known;
        for (const deviceTypeInfo& each : deviceTypes()) {
            known += (known.empty() ? "" : " ") + partName(each);
        }
        failure why = text.wrong("is no part that is served; there are " + known);
        why.tryThis = meantPart(name);
        throw why;
    }
    return type;
}

/// Takes an address in the 7-bit form. @return it in the 8-bit form
std::uint8_t takeAddress(fieldReader& text, bool ofHub)
{
    const std::string expected = fmt::format("7-bit, hexadecimal, {:02X} to {:02X}", lowestAddress7, highestAddress7);
    const std::string& field =
        ofHub ? text.takeUntil('/', "address", expected) : text.take("address", expected, std::string::npos);
    std::string_view digits = field;
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
        digits.remove_prefix(2);
    }
    std::uint32_t address7 = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), address7, 16);
    if (error != std::errc() || end != digits.data() + digits.size() || address7 > highestAddressWire) {
        throw text.wrong("is no address: " + expected);
    }
    if (address7 > highestAddress7 && address7 % 2 == 0 && address7 / 2 <= highestAddress7) {
        throw text.wrong(fmt::format("is an address in the 8-bit form; behind '@' it is in the 7-bit form: write '{}'",
                                     text.with(fmt::format("{:02x}", address7 / 2))));
    }
    if (address7 < lowestAddress7 || address7 > highestAddress7) {
        throw text.wrong("is no device's address: " + expected);
    }
    return static_cast<std::uint8_t>(address7 << 1U);
}

std::uint8_t takePort(fieldReader& text)
{
    const std::string& port = text.takeUntil(':', "hub port", "0 to 7");
    if (port.size() != 1 || port.front() < '0' || port.front() > highestPort) {
        throw text.wrong("is no port of a hub: 0 to 7");
    }
    return static_cast<std::uint8_t>(port.front() - '0');
}

} // namespace

std::string busPathOf(const std::string& name) { return name.starts_with(shortLinux) ? "/dev/" + name : name; }

bool isFieldText(const std::string& text)
{
    return text.find(',') == std::string::npos && busEnd(text) != std::string::npos &&
           (text.starts_with(shortLinux) || text.starts_with(longLinux) || text.starts_with(simulated));
}

device parseFieldText(const std::string& text)
{
    checkLength(text);
    fieldReader rest(text);
    device result;
    result.label = text;
    result.node = "L";
    result.bus = takeBus(rest, busEnd(text));
    do {
        deviceLink link;
        link.type = takePart(rest);
        result.links.push_back(link);
        if (const std::string complaint = chainComplaint(result.links); !complaint.empty()) {
            throw rest.wrong(complaint);
        }
        const bool isHub = link.type->kind == hub;
        result.links.back().address = takeAddress(rest, isHub);
        if (isHub) {
            result.links.back().port = takePort(rest);
        }
    } while (result.end().type->kind == hub);
    result.text = deviceText(result.bus, result.node, result.links);
    checkLength(result.text);
    return result;
}

std::string fieldText(const std::string& bus, const std::vector<deviceLink>& links)
{
    constexpr std::string_view folder = "/dev/";
    std::string text = bus.starts_with(longLinux) ? bus.substr(folder.size()) : bus;
    for (const deviceLink& link : links) {
        std::string part = partName(*link.type);
        std::ranges::transform(part, part.begin(), [](char letter) {
            return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
        });
        text += fmt::format(":{}@{:02x}", part, link.address >> 1U);
        text += link.type->kind == hub ? fmt::format("/{}", link.port) : "";
    }
    return text;
}

} // namespace kest::tools
