#include "sim/filestamp.h"

#include <gtest/gtest.h>

namespace kest::sim::test
{

namespace
{

constexpr std::uint64_t ms = 1'000'000, second = 1'000'000'000;

TEST(FileStamp, OfAFileThatWasJustChangedMayHideTheNextChange)
{
    const fileStamp stamp{.size = 1, .modifiedNs = 5 * second, .changedNs = 70 * second + 1};
    EXPECT_FALSE(stamp.isSettled(70 * second + 1, 100 * ms));
    EXPECT_FALSE(stamp.isSettled(70 * second + 100 * ms, 100 * ms));
    EXPECT_TRUE(stamp.isSettled(70 * second + 100 * ms + 1, 100 * ms));
}

TEST(FileStamp, WithoutPartsOfASecondNeedsSeconds)
{
    const fileStamp stamp{.size = 1, .modifiedNs = 5 * second, .changedNs = 70 * second};
    EXPECT_FALSE(stamp.isSettled(72 * second + 999 * ms, 100 * ms));
    EXPECT_TRUE(stamp.isSettled(73 * second, 100 * ms));
    EXPECT_FALSE(stamp.isSettled(73 * second, 4 * second));
}

TEST(FileStamp, FromTheFutureIsNeverSettled)
{
    const fileStamp stamp{.size = 1, .modifiedNs = 5 * second, .changedNs = 70 * second + 1};
    EXPECT_FALSE(stamp.isSettled(69 * second, 0));
}

} // namespace
} // namespace kest::sim::test
