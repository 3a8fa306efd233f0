#include "contents/values.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>

#include "base/hex.h"
#include "contents/bitfield.h"
#include "contents/identifiers.h"
#include "contents/scaling.h"

namespace kest::contents
{
namespace
{

const named* textOf(const row& field, std::uint64_t raw)
{
    const auto found =
        std::find_if(field.names.begin(), field.names.end(), [&](const named& each) { return each.value == raw; });
    return found == field.names.end() ? nullptr : &*found;
}

std::string hexNumber(std::uint64_t value, unsigned bits)
{
    constexpr unsigned bitsOfDigit = 4;
    std::string digits;
    for (unsigned left = (bits + bitsOfDigit - 1) / bitsOfDigit; left > 0; --left) {
        digits += upperHexDigits[(value >> ((left - 1) * bitsOfDigit)) & 0xF];
    }
    return "0x" + digits;
}

decodedValue numberText(const row& field, std::int64_t stored, const fieldBytes& bytes, const knownFields& known)
{
    const std::optional<fraction> scaled = scaledValue(field, stored, bytes.block, known);
    if (!scaled) {
        return damagedBytes(bytes.own(), "it can't be scaled: a base is 0, is missing or does not fit");
    }
    decodedValue result{.text = decimalText(*scaled)};
    if (scaled->denominator == 1) {
        result.value = scaled->numerator;
    } else {
        result.value = approximate(*scaled);
    }
    return result;
}

decodedValue number(const row& field, const rawNumber& raw, const fieldBytes& bytes, const knownFields& known)
{
    const std::int64_t stored = field.isSigned ? signedValue(raw) : static_cast<std::int64_t>(raw.value);
    decodedValue result = !field.isSigned && stored < 0 ? textValue(hexNumber(raw.value, raw.bits))
                                                        : numberText(field, stored, bytes, known);
    if (const named* special = textOf(field, raw.value)) {
        result.value = std::string(special->text);
        result.text = special->text;
        result.is = verdict::good;
        result.problem.clear();
    }
    result.raw = raw.value;
    return result;
}

decodedValue choice(const row& field, const rawNumber& raw)
{
    const named* meaning = textOf(field, raw.value);
    if (meaning == nullptr) {
        return {.value = static_cast<std::int64_t>(raw.value),
                .text = hexNumber(raw.value, raw.bits),
                .raw = raw.value,
                .is = verdict::unknown};
    }
    return {.value = std::string(meaning->text), .text = std::string(meaning->text), .raw = raw.value};
}

decodedValue flags(const row& field, const rawNumber& raw)
{
    std::vector<std::string> set;
    std::string text;
    verdict is = verdict::good;
    for (unsigned bit = 0; bit < raw.bits; ++bit) {
        if (((raw.value >> bit) & 1) == 1) {
            const named* meaning = textOf(field, bit);
            set.push_back(meaning != nullptr ? std::string(meaning->text) : "bit " + std::to_string(bit));
            text += (text.empty() ? "" : ", ") + set.back() + (meaning != nullptr ? "" : " (not known)");
            is = meaning != nullptr ? is : verdict::unknown;
        }
    }
    return {.value = set, .text = text.empty() ? "none" : text, .raw = raw.value, .is = is};
}

decodedValue decimalDigits(const row& field, const fieldBytes& bytes, const knownFields& known)
{
    std::int64_t value = 0;
    for (const std::uint8_t byte : bytes.own()) {
        const unsigned high = byte >> 4;
        const unsigned low = byte & 0xFU;
        if (high > 9 || low > 9) {
            return damagedBytes(bytes.own(), "these are not decimal digits");
        }
        value = value * 100 + high * 10 + low;
    }
    decodedValue result = numberText(field, value, bytes, known);
    result.raw = static_cast<std::uint64_t>(value);
    return result;
}

decodedValue real(std::span<const std::uint8_t> bytes)
{
    std::uint32_t bits = 0;
    for (const std::uint8_t byte : bytes) {
        bits = bits << 8 | byte;
    }
    const auto value = std::bit_cast<float>(bits);
    if (!std::isfinite(value)) {
        return damagedBytes(bytes, "it is not a finite number");
    }
    constexpr std::size_t longest = 32;
    std::string text(longest, '\0');
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value);
    text.resize(static_cast<std::size_t>(end.ptr - text.data()));
    return {.value = static_cast<double>(value), .text = text};
}

decodedValue paddedText(const row& field, std::span<const std::uint8_t> bytes)
{
    std::string text(bytes.begin(), bytes.end());
    // without any other character all of it is padding
    text.erase(text.find_last_not_of(field.padding) + 1);
    if (!std::all_of(text.begin(), text.end(), [](char each) { return each >= ' ' && each <= '~'; })) {
        return damagedBytes(bytes, "it is not ASCII text");
    }
    return textValue(text);
}

decodedValue version(std::span<const std::uint8_t> bytes)
{
    const std::string text = std::to_string(bytes.front() >> 4) + "." + std::to_string(bytes.front() & 0xF);
    return {.value = text, .text = text, .raw = bytes.front()};
}

bool isAllowed(const row& field, std::uint64_t raw)
{
    return (raw >= field.allowed.least && raw <= field.allowed.most) || textOf(field, raw) != nullptr;
}

decodedValue notAllowed(const row& field, std::uint64_t raw, std::span<const std::uint8_t> bytes)
{
    const auto& [least, most] = field.allowed;
    const std::string only =
        least == most ? std::to_string(least) + " alone" : std::to_string(least) + " to " + std::to_string(most);
    decodedValue result = damagedBytes(bytes, "it is " + std::to_string(raw) + ", and allowed is " + only);
    result.raw = raw;
    return result;
}

decodedValue numeric(const row& field, const fieldBytes& bytes, const knownFields& known)
{
    const std::optional<rawNumber> raw = rawNumberOf(field, bytes.block, bytes.at, bytes.length);
    if (!raw) {
        return damagedBytes(bytes.own(), "some of its bits are missing");
    }
    if (!isAllowed(field, raw->value)) {
        return notAllowed(field, raw->value, bytes.own());
    }
    switch (field.as) {
    case kind::choice:
        return choice(field, *raw);
    case kind::flags:
        return flags(field, *raw);
    case kind::hexadecimal:
        return {.value = static_cast<std::int64_t>(raw->value),
                .text = hexNumber(raw->value, raw->bits),
                .raw = raw->value};
    default:
        return number(field, *raw, bytes, known);
    }
}

} // namespace

decodedValue decodeValue(const row& field, const fieldBytes& bytes, const knownFields& known)
{
    const std::size_t wanted = bytesOfKind(field.as);
    if (wanted != 0 && wanted != bytes.length) {
        return damagedBytes(bytes.own(),
                            "it has " + std::to_string(bytes.length) + " bytes instead of " + std::to_string(wanted));
    }
    switch (field.as) {
    case kind::number:
    case kind::choice:
    case kind::flags:
    case kind::hexadecimal:
        return numeric(field, bytes, known);
    case kind::version:
        return version(bytes.own());
    case kind::bcd:
        return decimalDigits(field, bytes, known);
    case kind::real:
        return real(bytes.own());
    case kind::text:
        return paddedText(field, bytes.own());
    case kind::macAddress:
    case kind::eisaId:
    case kind::jedecId:
    case kind::uuid:
    case kind::minutesSince1996:
    case kind::yearWeekBcd:
        return decodeIdentifier(field, bytes.own());
    default:
        return {.value = std::vector<std::uint8_t>(bytes.own().begin(), bytes.own().end()),
                .text = spacedHex(bytes.own())};
    }
}

} // namespace kest::contents
