#include "sim/adapter.h"

#include <gtest/gtest.h>

namespace kest::sim::test
{

namespace
{

using Texts = std::vector<std::string>;

TEST(Adapter, WithoutLimitsHasNoTexts) { EXPECT_EQ(Texts{}, adapterLimits({})); }

TEST(Adapter, NamesEachOfItsLimits)
{
    EXPECT_EQ((Texts{"at most 32 bytes a message", "at most 1 message a transaction"}),
              adapterLimits({.messageBytes = 32, .messages = 1}));
    EXPECT_EQ((Texts{"SMBus calls only, with at most 2 bytes"}), adapterLimits({.smbus = smbusCalls::words}));
    EXPECT_EQ((Texts{"SMBus calls only, with at most 32 bytes", "no messages without data"}),
              adapterLimits({.smbus = smbusCalls::blocks, .noEmptyMessages = true}));
    EXPECT_EQ(
        (Texts{"clock stretching of at most 500 microseconds", "a bit lost now and then behind a stretched clock"}),
        adapterLimits({.stretchLimitUs = 500, .losesBits = true}));
    EXPECT_EQ((Texts{"a STOP between messages", "at most 25 ms a transaction", "a time-out where nobody acknowledges"}),
              adapterLimits({.timeoutMs = 25, .absentTimesOut = true, .stopBetween = true}));
}

} // namespace

} // namespace kest::sim::test
