#include "contents/identifiers.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <string>
#include <string_view>

#include "base/hex.h"

namespace kest::contents
{
namespace
{

using byteSpan = std::span<const std::uint8_t>;

constexpr std::string_view notGiven = "not given";

std::string twoDigits(unsigned number)
{
    return {static_cast<char>('0' + number / 10), static_cast<char>('0' + number % 10)};
}

bool allAre(byteSpan bytes, std::uint8_t value)
{
    return std::all_of(bytes.begin(), bytes.end(), [value](std::uint8_t each) { return each == value; });
}

decodedValue macAddress(byteSpan bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += text.empty() ? "" : ":";
        appendHexByte(text, byte, upperHexDigits);
    }
    return textValue(text);
}

decodedValue eisaId(byteSpan bytes)
{
    constexpr unsigned letters = 26;
    const unsigned packed = static_cast<unsigned>(bytes[0]) << 8 | bytes[1];
    std::string text;
    for (const unsigned shift : {10U, 5U, 0U}) {
        const unsigned letter = (packed >> shift) & 0x1F;
        if (letter == 0 || letter > letters || packed >> 15 != 0) {
            return damagedBytes(bytes, "these are not three letters");
        }
        text += static_cast<char>('A' + letter - 1);
    }
    decodedValue result = textValue(text);
    result.raw = packed;
    return result;
}

decodedValue jedecId(const row& field, byteSpan bytes)
{
    const auto isOdd = [](std::uint8_t byte) { return std::popcount(byte) % 2 == 1; };
    if (allAre(bytes, 0) || allAre(bytes, 0xFF)) {
        return {.text = std::string(notGiven)};
    }
    // DDR5 and older parts alike: only the count of continuation codes and the code are certain
    if (!isOdd(bytes[0]) || !isOdd(bytes[1])) {
        return damagedBytes(bytes, "a byte has even parity");
    }
    const std::uint64_t raw = static_cast<std::uint64_t>(bytes[0]) << 8 | bytes[1];
    std::string text = "bank " + std::to_string((bytes[0] & 0x7F) + 1) + ", code 0x";
    appendHexByte(text, bytes[1], upperHexDigits);
    for (const named& each : field.names) {
        text += each.value == raw ? " (" + std::string(each.text) + ")" : "";
    }
    decodedValue result = textValue(text);
    result.raw = raw;
    return result;
}

decodedValue uuid(byteSpan bytes)
{
    std::string text;
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        text += index == 4 || index == 6 || index == 8 || index == 10 ? "-" : "";
        appendHexByte(text, bytes[index], lowerHexDigits);
    }
    return textValue(text);
}

decodedValue minutesSince1996(byteSpan bytes)
{
    constexpr std::uint32_t minutesOfDay = 24 * 60;
    const std::uint32_t minutes = bytes[0] | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16;
    if (minutes == 0) {
        return {.text = std::string(notGiven), .raw = 0};
    }
    const std::chrono::sys_days first{std::chrono::year{1996} / std::chrono::January / 1};
    const std::chrono::year_month_day day{first + std::chrono::days{minutes / minutesOfDay}};
    const std::uint32_t left = minutes % minutesOfDay;
    decodedValue result = textValue(
        std::to_string(static_cast<int>(day.year())) + "-" + twoDigits(static_cast<unsigned>(day.month())) + "-" +
        twoDigits(static_cast<unsigned>(day.day())) + " " + twoDigits(left / 60) + ":" + twoDigits(left % 60));
    result.raw = minutes;
    return result;
}

decodedValue yearWeekBcd(byteSpan bytes)
{
    constexpr unsigned mostWeeks = 53;
    const auto isDecimal = [](std::uint8_t byte) { return byte >> 4 <= 9 && (byte & 0xF) <= 9; };
    const auto decimal = [](std::uint8_t byte) { return (byte >> 4) * 10U + (byte & 0xFU); };
    if (allAre(bytes, 0) || allAre(bytes, 0xFF)) {
        return {.text = std::string(notGiven)};
    }
    if (!isDecimal(bytes[0]) || !isDecimal(bytes[1])) {
        return damagedBytes(bytes, "these are not decimal digits");
    }
    if (decimal(bytes[1]) == 0 || decimal(bytes[1]) > mostWeeks) {
        return damagedBytes(bytes, "there is no such week");
    }
    return textValue("20" + twoDigits(decimal(bytes[0])) + " week " + twoDigits(decimal(bytes[1])));
}

} // namespace

decodedValue decodeIdentifier(const row& field, byteSpan bytes)
{
    switch (field.as) {
    case kind::macAddress:
        return macAddress(bytes);
    case kind::eisaId:
        return eisaId(bytes);
    case kind::jedecId:
        return jedecId(field, bytes);
    case kind::uuid:
        return uuid(bytes);
    case kind::minutesSince1996:
        return minutesSince1996(bytes);
    default:
        return yearWeekBcd(bytes);
    }
}

std::size_t bytesOfKind(kind which)
{
    switch (which) {
    case kind::version:
        return 1;
    case kind::eisaId:
    case kind::jedecId:
    case kind::yearWeekBcd:
        return 2;
    case kind::minutesSince1996:
        return 3;
    case kind::real:
        return 4;
    case kind::macAddress:
        return 6;
    case kind::uuid:
        return 16;
    default:
        return 0;
    }
}

} // namespace kest::contents
