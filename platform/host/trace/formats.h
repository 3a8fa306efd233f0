/// The printf conversions that trace formats may use: one parser for the writer, which stores arguments, and the
/// reader, which formats them.
#pragma once

namespace kest::host::trace
{

/// How an argument travels in a record.
enum class argumentKind : unsigned char {
    none, ///< the conversion takes no argument: "%%"
    number, ///< 4 bytes
    wide, ///< 8 bytes, sign- or zero-extended, so that a file means the same on every machine
    text, ///< bytes and a NUL
    unknown, ///< not supported: no further argument can be taken from the list
};

enum class lengthModifier : unsigned char {
    none,
    charWide,
    shortWide,
    longWide,
    longLongWide,
    sizeWide
};

/// One conversion of a format.
struct conversion {
    bool leftAligned = false, plus = false, space = false, alternate = false, zeroPadded = false;
    bool widthGiven = false, widthIsArgument = false, precisionGiven = false, precisionIsArgument = false;
    int width = 0, precision = 0; ///< cut to 255
    lengthModifier modifier = lengthModifier::none;
    char letter = 0; ///< d i u o x X c s p %
    argumentKind argument = argumentKind::unknown;
};

/// Whether the letter takes a signed argument.
constexpr bool isSigned(char letter) { return letter == 'd' || letter == 'i'; }

constexpr int maximumWidth = 255;

constexpr const char* parseNumber(const char* at, int& number)
{
    for (; *at >= '0' && *at <= '9'; ++at) {
        number = number * 10 + (*at - '0') < maximumWidth ? number * 10 + (*at - '0') : maximumWidth;
    }
    return at;
}

constexpr const char* parseFlags(const char* at, conversion& found)
{
    for (;; ++at) {
        switch (*at) {
        case '-':
            found.leftAligned = true;
            break;
        case '+':
            found.plus = true;
            break;
        case ' ':
            found.space = true;
            break;
        case '#':
            found.alternate = true;
            break;
        case '0':
            found.zeroPadded = true;
            break;
        default:
            return at;
        }
    }
}

constexpr const char* parseModifier(const char* at, lengthModifier& modifier)
{
    if (*at == 'h') {
        modifier = at[1] == 'h' ? lengthModifier::charWide : lengthModifier::shortWide;
        return at + (at[1] == 'h' ? 2 : 1);
    }
    if (*at == 'l') {
        modifier = at[1] == 'l' ? lengthModifier::longLongWide : lengthModifier::longWide;
        return at + (at[1] == 'l' ? 2 : 1);
    }
    if (*at == 'z') {
        modifier = lengthModifier::sizeWide;
        return at + 1;
    }
    return at;
}

constexpr argumentKind kindOf(char letter, lengthModifier modifier)
{
    switch (letter) {
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        return modifier < lengthModifier::longWide ? argumentKind::number : argumentKind::wide;
    case 'c':
        return modifier == lengthModifier::none ? argumentKind::number : argumentKind::unknown;
    case 's':
        return modifier == lengthModifier::none ? argumentKind::text : argumentKind::unknown;
    case 'p':
        return argumentKind::wide;
    case '%':
        return argumentKind::none;
    default:
        return argumentKind::unknown;
    }
}

/// Parses the conversion whose '%' is just before `at`.
/// @return the character after the conversion; for an unknown one, where the parser gave up, never past the terminating
/// NUL
constexpr const char* parseConversion(const char* at, conversion& found)
{
    at = parseFlags(at, found);
    if (*at == '*') {
        found.widthIsArgument = true;
        ++at;
    } else if (*at >= '1' && *at <= '9') {
        found.widthGiven = true;
        at = parseNumber(at, found.width);
    }
    if (*at == '.') {
        ++at;
        found.precisionGiven = true;
        if (*at == '*') {
            found.precisionIsArgument = true;
            ++at;
        } else {
            at = parseNumber(at, found.precision);
        }
    }
    at = parseModifier(at, found.modifier);
    found.letter = *at;
    found.argument = kindOf(*at, found.modifier);
    return *at != '\0' ? at + 1 : at;
}

} // namespace kest::host::trace
