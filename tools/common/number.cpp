#include "tools/common/number.h"

#include <array>
#include <charconv>
#include <cmath>
#include <fmt/core.h>
#include <string_view>

#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

struct sizeUnit {
    std::string_view name;
    std::uint64_t bytes;
};
constexpr std::array sizeUnits{
    sizeUnit{.name = "KiB", .bytes = 1ULL << 10}, sizeUnit{.name = "MiB", .bytes = 1ULL << 20},
    sizeUnit{.name = "GiB", .bytes = 1ULL << 30}, sizeUnit{.name = "K", .bytes = 1ULL << 10},
    sizeUnit{.name = "M", .bytes = 1ULL << 20},   sizeUnit{.name = "G", .bytes = 1ULL << 30},
};
constexpr const char* numberExpected = "a decimal number, or a hexadecimal one after 0x";
constexpr const char* sizeExpected = "a size such as 256, 0x100, 4KiB or 1MiB";

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

/// Reads a number of `factor` each.
std::uint64_t scaledNumber(const std::string& text, std::string_view number, std::uint64_t factor,
                           const std::string& what, std::uint64_t maximum, std::uint64_t minimum, const char* expected)
{
    std::uint64_t value = 0;
    if (!wholeNumber(number, value)) {
        throw badNumber(text, what, expected);
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
    return scaledNumber(text, text, 1, what, maximum, minimum, numberExpected);
}

std::uint64_t parseSize(const std::string& text, const std::string& what, std::uint64_t maximum)
{
    std::string_view number = text;
    for (const sizeUnit& unit : sizeUnits) {
        if (number.ends_with(unit.name)) {
            number.remove_suffix(unit.name.size());
            return scaledNumber(text, number, unit.bytes, what, maximum, 0, sizeExpected);
        }
    }
    return scaledNumber(text, number, 1, what, maximum, 0, sizeExpected);
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
