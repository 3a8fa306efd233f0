/// Copies without check sums, of a newer version, and what lists say of each kind.
#include "platform/host/vpd/copyfile.h"

#include <algorithm>
#include <cerrno>
#include <gmock/gmock.h>

#include "tests/host/vpd/copyexample.h"
#include "tests/host/vpd/servedcopies.h"

namespace kest::test
{
namespace
{

using testing::ElementsAre;

TEST_F(ServedCopies, RawOnesAreServedAndTraced)
{
    put(21, {'r', 'a', 'w'});
    EXPECT_EQ((Bytes{'r', 'a', 'w'}), read(21, 0, 0));
    EXPECT_THAT(textsOf(recordsOf("VPD")), ElementsAre(" copy 21 of qorn/P3_Root is raw: its bytes are unproved"));
    put(7, Bytes(copyExample.begin(), copyExample.end()));
    EXPECT_EQ(9U, read(7, 0, 0).size());
    EXPECT_EQ(1U, recordsOf("VPD").size()) << "proved bytes need no word";
    host::copyInfo found;
    EXPECT_EQ(0, host::checkCopy(21, found));
    EXPECT_EQ(host::copyState::unproved, found.state);
    EXPECT_EQ(3U, found.sizeBytes);
    EXPECT_EQ(0U, found.facts.deviceBytes);
    EXPECT_FALSE(found.facts.capturedMs);
}

TEST_F(ServedCopies, RawOnesStayRawWhenWritten)
{
    put(21, {'r', 'a', 'w'});
    EXPECT_TRUE(write(21, {'o'}, 1));
    EXPECT_EQ((Bytes{'r', 'o', 'w'}), fileOf(21));
}

/// A client that may write puts bytes there that look like a file with check sums.
TEST_F(ServedCopies, NoWriteMakesARawOneLookProved)
{
    put(21, Bytes(73, 0xFF));
    EXPECT_FALSE(write(21, Bytes(copyExample.begin(), copyExample.end()), 0));
    EXPECT_THAT(why(), ElementsAre(0x80001404, EILSEQ));
    EXPECT_EQ(Bytes(73, 0xFF), fileOf(21));
    EXPECT_FALSE(write(21, Bytes(copyExample.begin(), copyExample.begin() + 16), 0));
    EXPECT_EQ(Bytes(73, 0xFF), fileOf(21));
    ASSERT_EQ(0, host::replaceCopy(7, Bytes(73, 0xFF)));
    EXPECT_TRUE(write(7, Bytes(copyExample.begin(), copyExample.end()), 0)) << "where check sums are, bytes are bytes";
    EXPECT_EQ(Bytes(copyExample.begin(), copyExample.end()), read(7, 0, 0));
}

TEST_F(ServedCopies, NewerOnesAreAnEntryOfTheirOwn)
{
    Bytes file(copyExample.begin(), copyExample.end());
    file[19] = 2;
    std::ranges::copy(Bytes{0xBB, 0xF9, 0xCA, 0xDB}, file.begin() + 40);
    put(7, file);
    EXPECT_EQ(Bytes{}, read(7, 1, 0));
    EXPECT_THAT(why(), ElementsAre(0x80001404, ENOTSUP));
    EXPECT_FALSE(write(7, {1}, 0));
    EXPECT_THAT(why(), ElementsAre(0x80001404, ENOTSUP));
    host::copyInfo found;
    EXPECT_EQ(0, host::checkCopy(7, found));
    EXPECT_EQ(host::copyState::unreadable, found.state);
}

TEST_F(ServedCopies, ListsSayWhatIsProved)
{
    ASSERT_EQ(0, host::replaceCopy(2, Bytes(100, 1), {.deviceBytes = 128, .capturedMs = 7}));
    put(3, Bytes(100, 1));
    put(4, Bytes(copyExample.begin(), copyExample.end()));
    flip(4, 8 * 48);
    put(5, {});
    put(6, Bytes(copyExample.begin(), copyExample.begin() + 30));
    std::vector<host::copyInfo> copies;
    ASSERT_EQ(0, host::listCopies(copies));
    std::vector<std::pair<host::copyState, std::uint64_t>> found;
    for (const host::copyInfo& copy : copies) {
        found.emplace_back(copy.state, copy.sizeBytes);
    }
    using host::copyState;
    EXPECT_THAT(found, ElementsAre(std::pair{copyState::proved, 1}, std::pair{copyState::proved, 100},
                                   std::pair{copyState::unproved, 100}, std::pair{copyState::damaged, 9},
                                   std::pair{copyState::damaged, 0}, std::pair{copyState::damaged, 0}));
    EXPECT_EQ(128U, copies.at(1).facts.deviceBytes);
    EXPECT_EQ(7, copies.at(1).facts.capturedMs.value_or(0));
}

} // namespace
} // namespace kest::test
