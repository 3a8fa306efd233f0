#include "contents/fraction.h"

#include <limits>
#include <numeric>

namespace kest::contents
{

std::optional<fraction> fractionOf(std::int64_t numerator, std::int64_t denominator)
{
    // a tenfold rest of a division by it fits 64 bits
    constexpr std::int64_t greatest = std::int64_t{1} << 59;
    constexpr std::int64_t noMagnitude = std::numeric_limits<std::int64_t>::min();
    if (denominator == 0 || denominator == noMagnitude || numerator == noMagnitude) {
        return std::nullopt;
    }
    const std::int64_t common = std::gcd(numerator, denominator) * (denominator < 0 ? -1 : 1);
    const fraction lowest{.numerator = numerator / common, .denominator = denominator / common};
    return lowest.denominator > greatest ? std::nullopt : std::optional(lowest);
}

std::optional<fraction> product(const fraction& one, const fraction& other)
{
    std::int64_t numerator = 0;
    std::int64_t denominator = 0;
    if (__builtin_mul_overflow(one.numerator, other.numerator, &numerator) ||
        __builtin_mul_overflow(one.denominator, other.denominator, &denominator)) {
        return std::nullopt;
    }
    return fractionOf(numerator, denominator);
}

std::optional<fraction> sum(const fraction& one, const fraction& other)
{
    std::int64_t left = 0;
    std::int64_t right = 0;
    std::int64_t numerator = 0;
    std::int64_t denominator = 0;
    if (__builtin_mul_overflow(one.numerator, other.denominator, &left) ||
        __builtin_mul_overflow(other.numerator, one.denominator, &right) ||
        __builtin_add_overflow(left, right, &numerator) ||
        __builtin_mul_overflow(one.denominator, other.denominator, &denominator)) {
        return std::nullopt;
    }
    return fractionOf(numerator, denominator);
}

std::string decimalText(const fraction& number, unsigned decimals)
{
    const auto denominator = static_cast<std::uint64_t>(number.denominator);
    const bool negative = number.numerator < 0;
    const auto magnitude = static_cast<std::uint64_t>(negative ? -number.numerator : number.numerator);
    std::uint64_t whole = magnitude / denominator;
    std::uint64_t rest = magnitude % denominator;
    std::uint64_t behindPoint = 0;
    std::uint64_t scale = 1;
    for (unsigned digit = 0; digit < decimals; ++digit) {
        rest *= 10;
        behindPoint = behindPoint * 10 + rest / denominator;
        rest %= denominator;
        scale *= 10;
    }
    behindPoint += rest * 2 >= denominator ? 1 : 0;
    whole += behindPoint / scale;
    behindPoint %= scale;
    const std::string sign = negative && whole + behindPoint != 0 ? "-" : "";
    if (behindPoint == 0) {
        return sign + std::to_string(whole);
    }
    std::string digits = std::to_string(behindPoint);
    digits.insert(0, decimals - digits.size(), '0');
    digits.erase(digits.find_last_not_of('0') + 1);
    return sign + std::to_string(whole) + "." + digits;
}

double approximate(const fraction& number)
{
    return static_cast<double>(number.numerator) / static_cast<double>(number.denominator);
}

} // namespace kest::contents
