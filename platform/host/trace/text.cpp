#include "platform/host/trace/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/hex.h"
#include "platform/host/trace/formats.h"

namespace kest::host::trace
{

namespace
{

std::int64_t signedValue(std::uint32_t number, lengthModifier modifier)
{
    switch (modifier) {
    case lengthModifier::charWide:
        return static_cast<std::int8_t>(number);
    case lengthModifier::shortWide:
        return static_cast<std::int16_t>(number);
    default:
        return static_cast<std::int32_t>(number);
    }
}

std::uint64_t unsignedValue(std::uint32_t number, lengthModifier modifier)
{
    switch (modifier) {
    case lengthModifier::charWide:
        return static_cast<std::uint8_t>(number);
    case lengthModifier::shortWide:
        return static_cast<std::uint16_t>(number);
    default:
        return number;
    }
}

/// A conversion for printf, made from its parts: no byte of a file's own format reaches printf.
std::string printfConversion(const conversion& wanted, const char* letters)
{
    std::string made = "%";
    for (const auto& [given, flag] :
         {std::pair(wanted.leftAligned, '-'), std::pair(wanted.plus, '+'), std::pair(wanted.space, ' '),
          std::pair(wanted.alternate, '#'), std::pair(wanted.zeroPadded, '0')}) {
        if (given) {
            made += flag;
        }
    }
    if (wanted.widthGiven) {
        made += std::to_string(wanted.width);
    }
    if (wanted.precisionGiven) {
        made += '.';
        made += std::to_string(wanted.precision);
    }
    return made += letters;
}

template <typename Value>
std::string printed(const std::string& format, Value value)
{
    // room for the widest width and precision, and the digits
    std::array<char, 2 * maximumWidth + 64> buffer{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int length = std::snprintf(buffer.data(), buffer.size(), format.c_str(), value);
#pragma GCC diagnostic pop
    return {buffer.data(), std::min(static_cast<std::size_t>(std::max(length, 0)), buffer.size() - 1)};
}

std::string padded(std::string_view text, const conversion& wanted)
{
    std::string made(wanted.precisionGiven ? text.substr(0, static_cast<std::size_t>(wanted.precision)) : text);
    const auto width = static_cast<std::size_t>(wanted.width);
    if (made.size() < width) {
        made.insert(wanted.leftAligned ? made.size() : 0, width - made.size(), ' ');
    }
    return made;
}

std::string formatNumber(const conversion& wanted, argumentReader& arguments)
{
    const bool isWide = wanted.argument == argumentKind::wide;
    const std::uint64_t wide = isWide ? arguments.wide() : 0;
    const std::uint32_t number = isWide ? 0 : arguments.number();
    if (wanted.letter == 'c') {
        return padded(std::string(1, static_cast<char>(number)), wanted);
    }
    if (isSigned(wanted.letter)) {
        const long long value = isWide ? static_cast<std::int64_t>(wide) : signedValue(number, wanted.modifier);
        return printed(printfConversion(wanted, "lld"), value);
    }
    const unsigned long long value = isWide ? wide : unsignedValue(number, wanted.modifier);
    const char letters[5] = {'l', 'l', wanted.letter == 'p' ? 'x' : wanted.letter, '\0'};
    conversion shown = wanted;
    shown.alternate = wanted.alternate || wanted.letter == 'p';
    return printed(printfConversion(shown, letters), value);
}

/// Widths that are arguments become part of the conversion, by printf's rules.
void takeWidths(conversion& wanted, argumentReader& arguments)
{
    if (wanted.widthIsArgument) {
        const auto width = static_cast<std::int32_t>(arguments.number());
        wanted.leftAligned = wanted.leftAligned || width < 0;
        wanted.widthGiven = true;
        wanted.width = static_cast<int>(std::min<std::int64_t>(width < 0 ? -std::int64_t{width} : width, maximumWidth));
    }
    if (wanted.precisionIsArgument) {
        const auto precision = static_cast<std::int32_t>(arguments.number());
        wanted.precisionGiven = precision >= 0;
        wanted.precision = std::min(std::max(precision, 0), maximumWidth);
    }
}

/// @return false when an argument is missing or the conversion is unknown
bool formatConversion(std::string& text, conversion wanted, argumentReader& arguments)
{
    std::string made;
    takeWidths(wanted, arguments);
    switch (wanted.argument) {
    case argumentKind::none:
        made += '%';
        break;
    case argumentKind::text:
        made = padded(arguments.text(), wanted);
        break;
    case argumentKind::number:
    case argumentKind::wide:
        made = formatNumber(wanted, arguments);
        break;
    case argumentKind::unknown:
        return false;
    }
    if (arguments.missing()) {
        return false;
    }
    appendEscaped(text, made);
    return true;
}

} // namespace

void appendEscaped(std::string& to, std::string_view text)
{
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte < 0x7F && byte != '\\') {
            to += character;
        } else {
            to += "\\x";
            appendHexByte(to, byte, lowerHexDigits);
        }
    }
}

std::string formatText(argumentReader& arguments)
{
    const std::string format(arguments.text());
    std::string text;
    const char* at = format.c_str();
    while (const char* percent = std::strchr(at, '%')) {
        appendEscaped(text, {at, percent});
        at = percent;
        conversion wanted;
        const char* behind = parseConversion(percent + 1, wanted);
        if (!formatConversion(text, wanted, arguments)) {
            break;
        }
        at = behind;
    }
    appendEscaped(text, at);
    return text;
}

} // namespace kest::host::trace
