#include "sim/ramp.h"

#include <gtest/gtest.h>

namespace kest::sim::test
{

namespace
{

TEST(Ramp, RisesAndFallsEvenly)
{
    const temperatureRamp up{
        .fromMicroCelsius = 25'000'000, .toMicroCelsius = 45'000'000, .begin = 1000, .lastingNs = 10'000};
    EXPECT_EQ(25'000'000, up.at(0));
    EXPECT_EQ(25'000'000, up.at(1000));
    EXPECT_EQ(35'000'000, up.at(6000));
    EXPECT_EQ(44'998'000, up.at(10'999));
    EXPECT_EQ(45'000'000, up.at(11'000));
    EXPECT_EQ(45'000'000, up.at(1'000'000));
    const temperatureRamp down{.fromMicroCelsius = 5'000'000, .toMicroCelsius = -10'000'000, .lastingNs = 15};
    EXPECT_EQ(4'000'000, down.at(1));
    EXPECT_EQ(-9'000'000, down.at(14));
}

// A quotient of doubles would be rounded to 666'667, and on some hosts be another one with a longer product.
TEST(Ramp, IsReckonedInWholeNumbersAndRoundsTowardsItsBegin)
{
    const temperatureRamp up{.fromMicroCelsius = 0, .toMicroCelsius = 1'000'000, .lastingNs = 3};
    EXPECT_EQ(333'333, up.at(1));
    EXPECT_EQ(666'666, up.at(2));
    const temperatureRamp down{.fromMicroCelsius = 0, .toMicroCelsius = -1'000'000, .lastingNs = 3};
    EXPECT_EQ(-666'666, down.at(2));
}

// The ends of what events may bring: 2e9 millionths within a day, which is 86'400'000'000'000 ns.
TEST(Ramp, LongestAndSteepestOneFits)
{
    const temperatureRamp day{
        .fromMicroCelsius = -1'000'000'000, .toMicroCelsius = 1'000'000'000, .lastingNs = 86'400'000'000'000};
    EXPECT_EQ(-333'333'334, day.at(28'800'000'000'000));
    EXPECT_EQ(333'333'333, day.at(57'600'000'000'000));
    // 65,536 ns are its step
    EXPECT_EQ(-1'000'000'000, day.at(65'535));
    EXPECT_EQ(-999'999'999, day.at(65'536));
    EXPECT_EQ(1'000'000'000, day.at(86'400'000'000'000));
}

TEST(Ramp, WithoutATimeIsAStep)
{
    const temperatureRamp step{.fromMicroCelsius = 0, .toMicroCelsius = 7, .begin = 5};
    EXPECT_EQ(7, step.at(5));
}

} // namespace

} // namespace kest::sim::test
