#include "sim/thermostat.h"

#include <array>
#include <gtest/gtest.h>

namespace kest::sim::test
{
namespace
{

constexpr comparedLimit passed{.passed = true, .left = false};
constexpr comparedLimit between{.passed = false, .left = false};
constexpr comparedLimit left{.passed = false, .left = true};

class Thermostat : public ::testing::Test
{
protected:
    void compare(comparedLimit limit, std::uint64_t conversions)
    {
        const std::array limits{limit};
        under.compare(limits, conversions, queue);
    }

    thermostat under;
    std::uint8_t queue = 1;
};

TEST_F(Thermostat, AlarmLastsUntilTheHysteresisIsLeft)
{
    compare(passed, 1);
    EXPECT_EQ(1, under.alarms());
    compare(between, 100);
    EXPECT_EQ(1, under.alarms());
    compare(left, 1);
    EXPECT_EQ(0, under.alarms());
    compare(between, 100);
    EXPECT_EQ(0, under.alarms());
}

TEST_F(Thermostat, AlarmBeginsAndEndsAfterAsManyConversionsInARowAsTheQueueHas)
{
    queue = 4;
    compare(passed, 3);
    EXPECT_EQ(0, under.alarms());
    compare(passed, 1);
    EXPECT_EQ(1, under.alarms());
    compare(left, 3);
    EXPECT_EQ(1, under.alarms());
    compare(left, 1);
    EXPECT_EQ(0, under.alarms());
}

TEST_F(Thermostat, AConversionWithinTheLimitBeginsTheCountAnew)
{
    queue = 2;
    compare(passed, 1);
    compare(between, 1);
    compare(passed, 1);
    EXPECT_EQ(0, under.alarms());
    compare(passed, 1);
    EXPECT_EQ(1, under.alarms());
}

TEST_F(Thermostat, ManyConversionsAtOnceChangeAnAlarmOnce)
{
    queue = 6;
    compare(passed, std::uint64_t{1} << 63);
    EXPECT_EQ(1, under.alarms());
    compare(passed, std::uint64_t{1} << 63);
    EXPECT_EQ(1, under.alarms());
}

TEST_F(Thermostat, AHysteresisBeyondTheLimitEndsNoAlarmThatIsStillPassed)
{
    const comparedLimit both{.passed = true, .left = true};
    compare(both, 1);
    compare(both, 1);
    EXPECT_EQ(1, under.alarms());
}

TEST_F(Thermostat, LatchKeepsEachBeginAndEndUntilItIsReset)
{
    compare(passed, 1);
    EXPECT_EQ(1, under.latch());
    under.resetLatch();
    compare(passed, 1);
    EXPECT_EQ(0, under.latch());
    compare(left, 1);
    EXPECT_EQ(1, under.latch());
}

TEST_F(Thermostat, LimitsHaveAlarmsOfTheirOwn)
{
    const std::array limits{between, passed, left};
    under.compare(limits, 1, 1);
    EXPECT_EQ(2, under.alarms());
    EXPECT_EQ(2, under.latch());
    under.powerUp();
    EXPECT_EQ(0, under.alarms());
    EXPECT_EQ(0, under.latch());
}

} // namespace
} // namespace kest::sim::test
