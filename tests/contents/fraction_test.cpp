#include "contents/fraction.h"

#include <gtest/gtest.h>
#include <limits>

namespace kest::contents::test
{
namespace
{

constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();

std::string textOf(std::int64_t numerator, std::int64_t denominator)
{
    const auto number = fractionOf(numerator, denominator);
    return number ? decimalText(*number) : "(none)";
}

TEST(Fraction, IsInLowestTermsWithAPositiveDenominator)
{
    EXPECT_EQ((fraction{3, 2}), fractionOf(12, 8));
    EXPECT_EQ((fraction{-3, 2}), fractionOf(12, -8));
    EXPECT_EQ((fraction{0, 1}), fractionOf(0, 7));
}

TEST(Fraction, HasNoZeroDenominator) { EXPECT_FALSE(fractionOf(1, 0).has_value()); }

TEST(Fraction, DecimalDigits)
{
    EXPECT_EQ("0", textOf(0, 3));
    EXPECT_EQ("17", textOf(17, 1));
    EXPECT_EQ("0.125", textOf(1, 8));
    EXPECT_EQ("-0.0625", textOf(-1, 16));
    EXPECT_EQ("2.2", textOf(220, 100));
    EXPECT_EQ("0.333333", textOf(1, 3));
    EXPECT_EQ("0.666667", textOf(2, 3));
    EXPECT_EQ("1", textOf(99'999'999, 100'000'000));
    EXPECT_EQ("0", textOf(-1, 10'000'000));
    EXPECT_EQ("9223372036854775807", textOf(most, 1));
}

TEST(Fraction, AsFewDecimalsAsAreWanted)
{
    EXPECT_EQ("60.05", decimalText({60'053'381, 1'000'000}, 2));
    EXPECT_EQ("60", decimalText({59'999, 1'000}, 2));
    EXPECT_EQ("59.99", decimalText({59'994, 1'000}, 2));
    EXPECT_EQ("60.1", decimalText({601, 10}, 2));
    EXPECT_EQ("3", decimalText({5, 2}, 0));
    EXPECT_EQ("-0.07", decimalText({-1, 15}, 2));
}

TEST(Fraction, WhatDoesNotFitIsNone)
{
    EXPECT_FALSE(product({most, 1}, {2, 1}).has_value());
    EXPECT_FALSE(sum({most, 1}, {1, 1}).has_value());
    EXPECT_FALSE(sum({most, 3}, {most, 7}).has_value());
    EXPECT_FALSE(fractionOf(std::numeric_limits<std::int64_t>::min(), 1).has_value());
    EXPECT_FALSE(fractionOf(1, most).has_value());
    EXPECT_EQ((fraction{5, 6}), sum({1, 2}, {1, 3}));
    EXPECT_EQ((fraction{1, 3}), product({1, 2}, {2, 3}));
}

} // namespace
} // namespace kest::contents::test
