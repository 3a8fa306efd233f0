#include "platform/host/configuration/expectation.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <fmt/format.h>
#include <string>
#include <string_view>

namespace kest::host
{
namespace
{

constexpr std::size_t mostBytes = 256;
constexpr std::size_t mostPlaces = 16;
constexpr std::size_t longestFormatName = 32;
constexpr const char* form = R"({ offset = 0, bytes = "54 6C" } or a list of such)";

/// Bytes as pairs of hexadecimal digits, with or without blanks between them; empty when the text is something else, or
/// more than `mostBytes`.
std::vector<std::uint8_t> bytesOf(std::string_view text)
{
    std::vector<std::uint8_t> bytes;
    while (!text.empty()) {
        if (text.front() == ' ') {
            text.remove_prefix(1);
            continue;
        }
        std::uint8_t byte = 0;
        const std::string_view pair = text.substr(0, 2);
        const auto [end, error] = std::from_chars(pair.data(), pair.data() + pair.size(), byte, 16);
        if (pair.size() != 2 || error != std::errc() || end != pair.data() + pair.size() || bytes.size() == mostBytes) {
            return {};
        }
        bytes.push_back(byte);
        text.remove_prefix(2);
    }
    return bytes;
}

void readBytes(tomlReader& reader, const std::string& key, const toml::node& node, std::vector<std::uint8_t>& target)
{
    const auto* string = node.as_string();
    target = string != nullptr ? bytesOf(string->get()) : std::vector<std::uint8_t>();
    if (target.empty()) {
        reader.wrong(key, node, fmt::format("1 to {} bytes, each as two hexadecimal digits", mostBytes));
    }
}

void readPlace(tomlReader& reader, const std::string& key, const toml::node& node, std::vector<expectedBytes>& target)
{
    const toml::table* table = node.as_table();
    if (table == nullptr) {
        reader.wrong(key, node, form);
        return;
    }
    expectedBytes expected;
    const std::array<tomlReader::keyRow, 2> rows{
        tomlReader::keyRow{"offset", reader.integer(expected.offset, 0, UINT32_MAX)},
        tomlReader::keyRow{"bytes", [&](const std::string& whole, const toml::node& value) {
                               readBytes(reader, whole, value, expected.bytes);
                           }}};
    reader.section(key, node, rows);
    for (const char* name : {"offset", "bytes"}) {
        if (!table->contains(name)) {
            reader.fail(node.source().begin, fmt::format("{}.{}", key, name), form, "nothing");
        }
    }
    target.push_back(std::move(expected));
}

/// The programs know which formats there are.
void readFormat(tomlReader& reader, const std::string& key, const toml::node& node, std::string& target)
{
    constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyz0123456789-";
    const std::string& name = node.as_string()->get();
    if (name.empty() || name.size() > longestFormatName || name.find_first_not_of(allowed) != name.npos) {
        reader.wrong(key, node, fmt::format("{}, or the name of a format such as \"tlvinfo\"", form));
        return;
    }
    target = name;
}

} // namespace

tomlReader::keyReader expectation(tomlReader& reader, deviceEntry& target)
{
    return [&reader, &target](const std::string& key, const toml::node& node) {
        if (node.is_string()) {
            readFormat(reader, key, node, target.expectFormat);
            return;
        }
        const toml::array* list = node.as_array();
        if (list == nullptr) {
            readPlace(reader, key, node, target.expect);
            return;
        }
        if (list->empty() || list->size() > mostPlaces) {
            reader.wrong(key, node, fmt::format("{}, of 1 to {}", form, mostPlaces));
            return;
        }
        for (const toml::node& place : *list) {
            readPlace(reader, key, place, target.expect);
        }
    };
}

} // namespace kest::host
