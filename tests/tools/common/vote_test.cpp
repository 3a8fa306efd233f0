#include "tools/common/vote.h"

#include <gtest/gtest.h>

namespace kest::tools
{
namespace
{

using Reads = std::vector<std::vector<unsigned char>>;

TEST(Vote, TakesTheByteOfMostReads)
{
    const Reads reads{{1, 7}, {2, 7}, {1, 7}};
    const byteVote disputed = vote(reads, 0);
    EXPECT_EQ(1, disputed.byte);
    EXPECT_TRUE(disputed.majority);
    EXPECT_FALSE(disputed.unanimous);
    EXPECT_TRUE(vote(reads, 1).unanimous);
    EXPECT_FALSE(vote(Reads{{1}, {2}, {3}}, 0).majority);
}

TEST(Vote, TellsWhereReadsDiffer)
{
    const std::vector<unsigned char> one{1, 2, 3, 4}, other{1, 9, 3, 9};
    EXPECT_EQ((std::vector<std::uint32_t>{0x101, 0x103}), differing(0x100, one, other));
    EXPECT_TRUE(differing(0, one, one).empty());
}

} // namespace
} // namespace kest::tools
