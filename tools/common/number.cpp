#include "tools/common/number.h"

#include <charconv>
#include <cmath>
#include <fmt/core.h>
#include <string_view>

#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
constexpr double longestSeconds = 86'400;

/// Whether the whole of `text` is a number that fits 64 bits.
bool wholeNumber(std::string_view text, std::uint64_t& value)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    text.remove_prefix(hexadecimal ? 2 : 0);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hexadecimal ? 16 : 10);
    return error == std::errc() && end == text.data() + text.size();
}

failure badNumber(const std::string& text, const std::string& what, const std::string& expected)
{
    return wrongUse(fmt::format("{} '{}': expected {}", what, text, expected));
}

std::uint64_t scaledNumber(const std::string& text, const std::string& what, std::uint64_t maximum,
                           std::uint64_t minimum, bool suffixes)
{
    std::string_view number = text;
    std::uint64_t factor = 1;
    if (suffixes && (number.ends_with('K') || number.ends_with('M'))) {
        factor = number.ends_with('K') ? 1024 : 1024 * 1024;
        number.remove_suffix(1);
    }
    std::uint64_t value = 0;
    if (!wholeNumber(number, value)) {
        throw badNumber(text, what, "a decimal number, or a hexadecimal one after 0x");
    }
    if (value > maximum / factor || value * factor < minimum) {
        throw badNumber(text, what, fmt::format("{} to {} (0x{:X})", minimum, maximum, maximum));
    }
    return value * factor;
}

} // namespace

std::uint64_t parseNumber(const std::string& text, const std::string& what, std::uint64_t maximum,
                          std::uint64_t minimum)
{
    return scaledNumber(text, what, maximum, minimum, false);
}

std::uint64_t parseSize(const std::string& text, const std::string& what, std::uint64_t maximum)
{
    return scaledNumber(text, what, maximum, 0, true);
}

std::uint64_t parseSeconds(const std::string& text, const std::string& what)
{
    double seconds = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), seconds, std::chars_format::fixed);
    if (error != std::errc() || end != text.data() + text.size() || !(seconds >= 0 && seconds <= longestSeconds)) {
        throw badNumber(text, what, "seconds, 0 to 86400, such as 0.5");
    }
    return static_cast<std::uint64_t>(std::llround(seconds * static_cast<double>(nanosecondsPerSecond)));
}

std::uint32_t parsePins(const std::string& text, unsigned pins)
{
    std::uint32_t mask = 0;
    std::string_view rest = text;
    bool more = true;
    while (more) {
        const std::size_t comma = rest.find(',');
        const std::string part(rest.substr(0, comma));
        more = comma != std::string_view::npos;
        rest.remove_prefix(more ? comma + 1 : rest.size());

        const std::size_t dash = part.find('-');
        const auto first = parseNumber(part.substr(0, dash), "pin", pins - 1);
        const auto last =
            dash == std::string::npos ? first : parseNumber(part.substr(dash + 1), "pin", pins - 1, first);
        for (auto pin = first; pin <= last; ++pin) {
            mask |= 1U << pin;
        }
    }
    return mask;
}

std::string countText(std::uint64_t count, const char* what)
{
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string sizeText(std::uint64_t bytes)
{
    constexpr std::uint64_t kibi = 1024;
    if (bytes < kibi) {
        return fmt::format("{} B", bytes);
    }
    const bool mebi = bytes >= kibi * kibi;
    return fmt::format("{:.1f} {}", static_cast<double>(bytes) / static_cast<double>(mebi ? kibi * kibi : kibi),
                       mebi ? "MiB" : "KiB");
}

std::string addressText(std::uint8_t address) { return fmt::format("{:02X} = 0x{:02x}", address, address >> 1U); }

} // namespace kest::tools
