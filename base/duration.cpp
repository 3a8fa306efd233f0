#include "base/duration.h"

#include <algorithm>
#include <array>
#include <limits>

namespace kest
{
namespace
{

constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();

struct unitRow {
    std::string_view name;
    std::uint64_t nanoseconds;
};
/// Largest first. Of two names for one unit the first is the one that is shown.
constexpr std::array units{
    unitRow{.name = "d", .nanoseconds = nsPerDay},
    unitRow{.name = "h", .nanoseconds = 3600 * nsPerSecond},
    unitRow{.name = "min", .nanoseconds = 60 * nsPerSecond},
    unitRow{.name = "m", .nanoseconds = 60 * nsPerSecond},
    unitRow{.name = "s", .nanoseconds = nsPerSecond},
    unitRow{.name = "ms", .nanoseconds = nsPerMs},
    unitRow{.name = "us", .nanoseconds = 1000},
    unitRow{.name = "ns", .nanoseconds = 1},
};

bool isDigit(char character) { return character >= '0' && character <= '9'; }

/// Takes the digits at the front of a text. @return false when 64 bits don't hold the number
bool takeDigits(std::string_view& text, std::uint64_t& value)
{
    for (value = 0; !text.empty() && isDigit(text.front()); text.remove_prefix(1)) {
        const auto digit = static_cast<std::uint64_t>(text.front() - '0');
        if (value > (most - digit) / 10) {
            return false;
        }
        value = value * 10 + digit;
    }
    return true;
}

/// Takes the digits of a fraction. @return what they are of a unit
std::uint64_t takeFraction(std::string_view& text, std::uint64_t unitNs)
{
    std::uint64_t nanoseconds = 0;
    for (std::uint64_t divisor = 10; !text.empty() && isDigit(text.front()); text.remove_prefix(1)) {
        nanoseconds += unitNs / divisor * static_cast<std::uint64_t>(text.front() - '0');
        divisor = divisor > unitNs ? divisor : divisor * 10;
    }
    return nanoseconds;
}

} // namespace

bool readDuration(std::string_view text, std::uint64_t plainNs, std::uint64_t& nanoseconds)
{
    const std::size_t unitAt = std::min(text.find_first_not_of("0123456789."), text.size());
    const std::string_view unit = text.substr(unitAt);
    const auto* row = std::ranges::find(units, unit, &unitRow::name);
    const std::uint64_t unitNs = unit.empty() ? plainNs : row != units.end() ? row->nanoseconds : 0;
    std::string_view number = text.substr(0, unitAt);
    if (unitNs == 0 || std::ranges::none_of(number, isDigit)) {
        return false;
    }
    std::uint64_t whole = 0;
    if (!takeDigits(number, whole) || whole > most / unitNs) {
        return false;
    }
    std::uint64_t fractionNs = 0;
    if (number.starts_with('.')) {
        number.remove_prefix(1);
        fractionNs = takeFraction(number, unitNs);
    }
    nanoseconds = whole * unitNs;
    if (!number.empty() || nanoseconds > most - fractionNs) {
        return false;
    }
    nanoseconds += fractionNs;
    return true;
}

std::string durationText(std::uint64_t nanoseconds)
{
    if (nanoseconds == 0) {
        return "0";
    }
    const auto* row =
        std::ranges::find_if(units, [nanoseconds](const unitRow& unit) { return nanoseconds % unit.nanoseconds == 0; });
    return std::to_string(nanoseconds / row->nanoseconds) + std::string(row->name);
}

} // namespace kest
