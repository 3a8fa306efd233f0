#include "tools/common/undoname.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <ctime>
#include <fmt/core.h>

#include "base/hash.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/configuration/deviceplace.h"
#include "tools/common/failure.h"
#include "tools/common/when.h"

namespace kest::tools
{
namespace
{

constexpr std::size_t longestLabel = 48;
constexpr std::size_t keyDigits = 16;
/// No device is written so often. Adding to it never wraps.
constexpr std::uint64_t highestNumber = 999'999'999'999;
constexpr std::string_view ending = ".json";
constexpr std::string_view timePattern = "00000000T000000Z";

bool isDigit(char character) { return character >= '0' && character <= '9'; }

bool isTime(std::string_view text)
{
    return std::ranges::equal(text, timePattern, [](char character, char pattern) {
        return pattern == '0' ? isDigit(character) : character == pattern;
    });
}

/// Takes what stands behind the last '-' off a text. @return nothing when there is no '-'
std::optional<std::string_view> takeLastPart(std::string_view& text)
{
    const std::size_t dash = text.rfind('-');
    if (dash == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view part = text.substr(dash + 1);
    text = text.substr(0, dash);
    return part;
}

std::optional<std::uint64_t> parseCount(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    return whole ? std::optional(number) : std::nullopt;
}

bool isKey(std::string_view text)
{
    return text.size() == keyDigits && std::ranges::all_of(text, [](char character) {
               return isDigit(character) || (character >= 'a' && character <= 'f');
           });
}

std::string keyOf(const std::string& text) { return fmt::format("{:016x}", fnvHash64(text)); }

std::string wordOf(const device& which, accessMode place)
{
    return place == accessMode::hardware ? "hardware" : fmt::format("copy {}", which.number);
}

/// Where a device is, however its text spells that.
std::string placeOf(const device& which)
{
    const auto places = host::placesOf(which.text, host::currentConfiguration().nodes);
    return places.empty() ? which.text : places.back().place;
}

std::string formerKeyOf(const device& which, accessMode place)
{
    std::string text =
        fmt::format("{}\n{}\n{}", which.bus, isLocal(which.node) ? "L" : which.node, wordOf(which, place));
    for (const deviceLink& link : which.links) {
        text += fmt::format("\n{:X} {:X} {:X}", static_cast<std::uint32_t>(link.type->type), link.address, link.port);
    }
    return keyOf(text);
}

} // namespace

std::string undoKeyOf(const device& which, accessMode place)
{
    return keyOf(fmt::format("{}\n{}", placeOf(which), wordOf(which, place)));
}

std::vector<std::string> formerUndoKeysOf(const device& which, accessMode place)
{
    constexpr std::string_view nodes = "L01234567";
    const std::string mine = placeOf(which);
    std::vector<std::string> keys;
    for (const char node : nodes) {
        device other = which;
        other.node = std::string(1, node);
        other.text = deviceText(other.bus, other.node, other.links);
        if (placeOf(other) != mine) {
            continue;
        }
        for (const deviceTypeInfo& type : deviceTypes()) {
            other.links.back().type = &type;
            keys.push_back(formerKeyOf(other, place));
        }
    }
    return keys;
}

std::string undoFileName(const undoName& name)
{
    return fmt::format("{}-{}-{:06}-{}{}", name.label, name.key, name.number, name.time, ending);
}

std::optional<undoName> parseUndoName(std::string_view fileName)
{
    if (!fileName.ends_with(ending)) {
        return std::nullopt;
    }
    std::string_view rest = fileName.substr(0, fileName.size() - ending.size());
    const auto time = takeLastPart(rest);
    const auto number = takeLastPart(rest);
    const auto key = takeLastPart(rest);
    if (!time || !isTime(*time) || !number || !key || !isKey(*key)) {
        return std::nullopt;
    }
    const auto count = parseCount(*number);
    if (!count || *count > highestNumber) {
        return std::nullopt;
    }
    undoName name{.label = std::string(rest), .key = std::string(*key), .number = *count, .time = std::string(*time)};
    // "7" for "000007": two names of one number would be taken for one file
    return undoFileName(name) == fileName ? std::optional(std::move(name)) : std::nullopt;
}

std::string undoLabel(const std::string& name)
{
    std::string label = name.substr(0, longestLabel);
    std::ranges::replace_if(
        label, [](char c) { return std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_'; }, '_');
    return label;
}

std::string undoTimeNow()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &parts)};
}

std::optional<std::int64_t> undoTimeIn(std::string_view fileName)
{
    std::string_view rest = fileName.substr(0, fileName.find_last_of('.'));
    while (const auto part = takeLastPart(rest)) {
        if (isTime(*part)) {
            const std::string_view t = *part;
            try {
                return parseTime(fmt::format("{}-{}-{}T{}:{}:{}Z", t.substr(0, 4), t.substr(4, 2), t.substr(6, 2),
                                             t.substr(9, 2), t.substr(11, 2), t.substr(13, 2)),
                                 "time");
            } catch (const failure&) {
                // digits that no calendar has
                return std::nullopt;
            }
        }
    }
    return std::nullopt;
}

} // namespace kest::tools
