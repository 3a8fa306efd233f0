/// Exact numbers, for values that are whole multiples of a fraction of a unit.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kest::contents
{

/// In lowest terms; the denominator is from 1 to 2^59.
struct fraction {
    std::int64_t numerator = 0;
    std::int64_t denominator = 1;

    bool operator==(const fraction&) const = default;
};

/// @return nothing when the denominator is 0 or, in lowest terms, greater than 2^59
[[nodiscard]] std::optional<fraction> fractionOf(std::int64_t numerator, std::int64_t denominator);
/// @return nothing when the result does not fit
[[nodiscard]] std::optional<fraction> product(const fraction& one, const fraction& other);
[[nodiscard]] std::optional<fraction> sum(const fraction& one, const fraction& other);

/// Decimal digits, rounded half away from 0: "-0.0625". @param decimals  digits behind the point, at most; 0 to 6
[[nodiscard]] std::string decimalText(const fraction& number, unsigned decimals = 6);
[[nodiscard]] double approximate(const fraction& number);

} // namespace kest::contents
