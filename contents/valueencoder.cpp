#include "contents/valueencoder.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fmt/format.h>
#include <limits>
#include <optional>

#include "contents/fieldname.h"

namespace kest::contents
{
namespace
{

constexpr std::size_t stationBytes = 6;

encodedValue refused(std::string complaint) { return {.bytes = {}, .complaint = std::move(complaint)}; }

bool isPrintable(char character) { return character >= ' ' && character <= '~'; }

bool isCapital(char character) { return character >= 'A' && character <= 'Z'; }

/// A number of digits alone. @return nothing for any other text
std::optional<std::uint64_t> digitsIn(std::string_view text, int base)
{
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return !text.empty() && error == std::errc() && end == text.data() + text.size() ? std::optional(value)
                                                                                     : std::nullopt;
}

encodedValue encodeText(const valueRule& rule, std::string_view text)
{
    if (!std::ranges::all_of(text, isPrintable)) {
        return refused("only printable ASCII characters are allowed");
    }
    if (text.size() < rule.leastBytes || text.size() > rule.mostBytes) {
        return refused(
            fmt::format("{} to {} characters are allowed, these are {}", rule.leastBytes, rule.mostBytes, text.size()));
    }
    return {.bytes = byteString(text.begin(), text.end()), .complaint = {}};
}

encodedValue encodeNumber(const valueRule& rule, std::string_view text)
{
    const std::uint64_t most = std::numeric_limits<std::uint64_t>::max() >> (64 - 8 * rule.mostBytes);
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const auto value = digitsIn(hex ? text.substr(2) : text, hex ? 16 : 10);
    if (!value || *value > most) {
        return refused(fmt::format("a number from 0 to {} is allowed, decimal or hexadecimal after 0x", most));
    }
    byteString bytes;
    for (std::size_t left = rule.mostBytes; left > 0; --left) {
        bytes.push_back(static_cast<std::uint8_t>(*value >> (8 * (left - 1))));
    }
    return {.bytes = std::move(bytes), .complaint = {}};
}

encodedValue encodeChoice(const valueRule& rule, std::string_view text)
{
    for (const named& each : rule.names) {
        if (isSameName(each.text, text)) {
            return encodeNumber(rule, fmt::format("{}", each.value));
        }
    }
    encodedValue number = encodeNumber(rule, text);
    if (!number.complaint.empty()) {
        std::string texts;
        for (const named& each : rule.names) {
            texts += (texts.empty() ? "" : ", ") + std::string(each.text);
        }
        number.complaint += ", or one of: " + texts;
    }
    return number;
}

/// Bytes of two hexadecimal digits each. Between them stands `separator`, or nothing throughout.
std::optional<byteString> pairsIn(std::string_view text, char separator)
{
    const bool apart = text.size() > 2 && text[2] == separator;
    byteString bytes;
    while (!text.empty()) {
        const auto byte = text.size() < 2 ? std::nullopt : digitsIn(text.substr(0, 2), 16);
        if (!byte) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>(*byte));
        text.remove_prefix(2);
        if (apart && !text.empty()) {
            if (text.size() < 3 || text.front() != separator) {
                return std::nullopt;
            }
            text.remove_prefix(1);
        }
    }
    return bytes;
}

encodedValue encodeStation(std::string_view text)
{
    auto bytes = pairsIn(text, text.find('-') != text.npos ? '-' : ':');
    if (!bytes || bytes->size() != stationBytes) {
        return refused("a MAC address is allowed: six bytes such as 00:11:22:33:44:55");
    }
    if (std::ranges::all_of(*bytes, [](std::uint8_t byte) { return byte == 0; })) {
        return refused("00:00:00:00:00:00 is the address of no station");
    }
    // bit 0 of the first byte marks the address of a group
    if ((bytes->front() & 1U) != 0) {
        return refused("the address is one of a group: the first byte of a station's is even");
    }
    return {.bytes = std::move(*bytes), .complaint = {}};
}

struct dateTime {
    std::uint32_t year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

bool isLeap(std::uint32_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

std::uint32_t daysIn(std::uint32_t year, std::uint32_t month)
{
    constexpr std::array<std::uint8_t, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return days.at(month - 1) + (month == 2 && isLeap(year) ? 1U : 0U);
}

bool isReal(const dateTime& when)
{
    return when.month >= 1 && when.month <= 12 && when.day >= 1 && when.day <= daysIn(when.year, when.month) &&
           when.hour <= 23 && when.minute <= 59 && when.second <= 59;
}

/// A text that looks like `pattern`, in which Y, M, D, h, m and s are digits of the date and all else stands for itself.
std::optional<dateTime> dateLike(std::string_view text, std::string_view pattern)
{
    if (text.size() != pattern.size()) {
        return std::nullopt;
    }
    dateTime when;
    for (std::size_t at = 0; at < text.size(); ++at) {
        constexpr std::string_view names = "YMDhms";
        std::uint32_t* const parts[] = {&when.year, &when.month, &when.day, &when.hour, &when.minute, &when.second};
        const std::size_t part = names.find(pattern[at]);
        if (part == names.npos ? text[at] != pattern[at] : text[at] < '0' || text[at] > '9') {
            return std::nullopt;
        }
        if (part != names.npos) {
            *parts[part] = *parts[part] * 10 + static_cast<std::uint32_t>(text[at] - '0');
        }
    }
    return isReal(when) ? std::optional(when) : std::nullopt;
}

/// @return nothing for a text that is no date of the calendar
std::optional<dateTime> dateIn(std::string_view text)
{
    constexpr std::array<std::string_view, 5> patterns{"MM/DD/YYYY hh:mm:ss", "YYYY-MM-DD hh:mm", "YYYY-MM-DDThh:mm",
                                                       "YYYY-MM-DD hh:mm:ss", "YYYY-MM-DDThh:mm:ss"};
    text = text.ends_with('Z') ? text.substr(0, text.size() - 1) : text;
    for (const std::string_view pattern : patterns) {
        if (auto when = dateLike(text, pattern)) {
            return when;
        }
    }
    return std::nullopt;
}

encodedValue encodeDateText(std::string_view text)
{
    const auto when = dateIn(text);
    if (!when) {
        return refused("a date and time of the calendar is allowed: 06/10/2016 01:57:31 or 2016-06-10 01:57:31");
    }
    const std::string form = fmt::format("{:02}/{:02}/{:04} {:02}:{:02}:{:02}", when->month, when->day, when->year,
                                         when->hour, when->minute, when->second);
    return {.bytes = byteString(form.begin(), form.end()), .complaint = {}};
}

constexpr std::uint32_t firstYear = 1996;

/// Minutes since the beginning of 1996. The year is at least that one.
std::uint64_t minutesOf(const dateTime& when)
{
    std::uint64_t days = when.day - 1;
    for (std::uint32_t year = firstYear; year < when.year; ++year) {
        days += isLeap(year) ? 366 : 365;
    }
    for (std::uint32_t month = 1; month < when.month; ++month) {
        days += daysIn(when.year, month);
    }
    return (days * 24 + when.hour) * 60 + when.minute;
}

encodedValue encodeMinutes(std::string_view text)
{
    constexpr std::uint64_t mostMinutes = 0xFFFFFF;
    const auto when = dateIn(text);
    const std::uint64_t minutes = when && when->year >= firstYear ? minutesOf(*when) : 0;
    // 0 stands for a date that is not known
    if (!when || when->second != 0 || minutes == 0 || minutes > mostMinutes) {
        return refused("a date and time from 1996-01-01 00:01 to 2027-11-24 20:15 is allowed, in whole minutes: "
                       "2016-06-10 01:57");
    }
    return {.bytes = {static_cast<std::uint8_t>(minutes), static_cast<std::uint8_t>(minutes >> 8),
                      static_cast<std::uint8_t>(minutes >> 16)},
            .complaint = {}};
}

encodedValue encodeCountry(std::string_view text)
{
    if (text.size() != 2 || !std::ranges::all_of(text, isCapital)) {
        return refused("two capital letters are allowed, as in ISO 3166-1: DE");
    }
    return {.bytes = byteString(text.begin(), text.end()), .complaint = {}};
}

encodedValue encodeHex(const valueRule& rule, std::string_view text)
{
    auto bytes = pairsIn(text, ' ');
    if (!bytes || bytes->size() < rule.leastBytes || bytes->size() > rule.mostBytes) {
        return refused(
            fmt::format("{} to {} bytes are allowed, each as two hexadecimal digits", rule.leastBytes, rule.mostBytes));
    }
    return {.bytes = std::move(*bytes), .complaint = {}};
}

} // namespace

valueRule ruleOf(const row& field)
{
    switch (field.as) {
    case kind::number:
        return {.kind = valueKind::number, .leastBytes = field.length, .mostBytes = field.length};
    case kind::choice:
        return {.kind = valueKind::choice, .leastBytes = field.length, .mostBytes = field.length, .names = field.names};
    case kind::macAddress:
        return {.kind = valueKind::stationAddress};
    case kind::minutesSince1996:
        return {.kind = valueKind::minuteCount};
    case kind::text:
        return {};
    default:
        return {.kind = valueKind::hexBytes};
    }
}

encodedValue encodeValue(const valueRule& rule, std::string_view text)
{
    switch (rule.kind) {
    case valueKind::number:
        return encodeNumber(rule, text);
    case valueKind::stationAddress:
        return encodeStation(text);
    case valueKind::dateText:
        return encodeDateText(text);
    case valueKind::minuteCount:
        return encodeMinutes(text);
    case valueKind::countryCode:
        return encodeCountry(text);
    case valueKind::choice:
        return encodeChoice(rule, text);
    case valueKind::hexBytes:
        return encodeHex(rule, text);
    default:
        return encodeText(rule, text);
    }
}

} // namespace kest::contents
