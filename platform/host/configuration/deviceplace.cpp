#include "platform/host/configuration/deviceplace.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fmt/format.h>
#include <optional>

namespace kest::host
{
namespace
{

constexpr std::string_view linuxPrefix = "/dev/i2c-";
constexpr std::string_view simulatedPrefix = "sim:";
constexpr std::uint32_t highestType = 0xFFFFFF;
constexpr std::uint32_t highestByte = 0xFF;

// fields of a device text: path and node, then these for each hub, then these for the device
constexpr std::size_t fieldsOfBus = 2;
constexpr std::size_t fieldsOfHub = 3;
constexpr std::size_t fieldsOfDevice = 2;

std::vector<std::string_view> fieldsOf(std::string_view text)
{
    std::vector<std::string_view> fields;
    for (std::size_t comma = text.find(','); comma != text.npos; comma = text.find(',')) {
        fields.push_back(text.substr(0, comma));
        text.remove_prefix(comma + 1);
    }
    fields.push_back(text);
    return fields;
}

std::optional<std::uint32_t> hexadecimal(std::string_view digits, std::uint32_t maximum)
{
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
        digits.remove_prefix(2);
    }
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    const bool whole = error == std::errc() && end == digits.data() + digits.size();
    return whole && value <= maximum ? std::optional(value) : std::nullopt;
}

bool isLocal(std::string_view node) { return node == "L" || node == "l"; }

/// The mapping of a node; of the local one an empty mapping. None when the text is no node.
std::optional<nodeMapping> mappingOf(std::string_view node, const nodeMap& nodes)
{
    if (isLocal(node)) {
        return nodeMapping{};
    }
    if (node.size() != 1 || node[0] < '0' || node[0] > '7') {
        return std::nullopt;
    }
    return nodes.at(static_cast<std::size_t>(node[0] - '0'));
}

/// The digits of a kernel bus without leading zeros; empty when the text is no number.
std::string_view busNumber(std::string_view digits)
{
    if (digits.empty() || digits.find_first_not_of("0123456789") != digits.npos) {
        return {};
    }
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size() - 1));
    return digits;
}

/// One name for each bus; empty when path or node are malformed. A line end separates the parts: no text has one.
std::string busOf(std::string_view path, std::string_view node, const nodeMap& nodes)
{
    const std::optional<nodeMapping> mapping = mappingOf(node, nodes);
    path = path.substr(0, path.find('@'));
    const bool simulated = path.starts_with(simulatedPrefix);
    if (!mapping || (!simulated && !path.starts_with(linuxPrefix))) {
        return {};
    }
    const std::string_view name =
        simulated ? path.substr(simulatedPrefix.size()) : busNumber(path.substr(linuxPrefix.size()));
    if (name.empty()) {
        return {};
    }
    const std::string& where = simulated ? mapping->simNode : mapping->pathPrefix;
    if (where.empty() && !isLocal(node)) {
        return fmt::format("node\n{}\n{}", node, name);
    }
    if (simulated) {
        return fmt::format("sim\n{}\n{}", where, name);
    }
    return std::filesystem::path(fmt::format("{}{}{}", where, linuxPrefix, name)).lexically_normal().string();
}

} // namespace

std::vector<placedType> placesOf(std::string_view text, const nodeMap& nodes)
{
    const std::vector<std::string_view> fields = fieldsOf(text);
    if (fields.size() < fieldsOfBus + fieldsOfDevice ||
        (fields.size() - fieldsOfBus - fieldsOfDevice) % fieldsOfHub != 0) {
        return {};
    }
    std::string way = busOf(fields[0], fields[1], nodes);
    std::vector<placedType> places;
    for (std::size_t at = fieldsOfBus; at < fields.size(); at += fieldsOfHub) {
        const bool isHub = at + fieldsOfDevice < fields.size();
        const auto type = hexadecimal(fields[at], highestType);
        const auto address = hexadecimal(fields[at + 1], highestByte);
        const auto port = isHub ? hexadecimal(fields[at + 2], highestByte) : 0;
        if (way.empty() || !type || !address || !port) {
            return {};
        }
        way += fmt::format("\n{:02X}", *address);
        places.push_back({.place = way, .type = *type, .address = static_cast<std::uint8_t>(*address)});
        way += fmt::format(",{:X}", *port);
    }
    return places;
}

} // namespace kest::host
