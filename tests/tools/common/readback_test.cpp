#include "tools/common/readback.h"

#include <gtest/gtest.h>

namespace kest::tools
{
namespace
{

using host::iic::pageWaits;

byteVector bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

/// "taken old other firstOld" of a write at offset 4 into pages of 4 bytes.
std::string countOf(const std::string& wanted, const std::string& old, const std::string& now,
                    const std::vector<byteRange>& ranges)
{
    const byteVector wantedBytes = bytesOf(wanted);
    const byteVector oldBytes = bytesOf(old);
    const pageCount count = countPages({.whole = {4, static_cast<std::uint32_t>(wanted.size())},
                                        .wanted = wantedBytes,
                                        .old = oldBytes,
                                        .ranges = ranges},
                                       bytesOf(now), 4);
    return std::to_string(count.taken) + " " + std::to_string(count.old) + " " + std::to_string(count.other) + " " +
           std::to_string(count.firstOld);
}

TEST(PagesReadBack, AreTakenOldOrOther)
{
    EXPECT_EQ("2 0 0 0", countOf("aaaabbbb", "........", "aaaabbbb", {{4, 8}}));
    EXPECT_EQ("0 2 0 4", countOf("aaaabbbb", "........", "........", {{4, 8}}));
    EXPECT_EQ("1 1 0 8", countOf("aaaabbbb", "........", "aaaa....", {{4, 8}}));
    EXPECT_EQ("0 1 1 8", countOf("aaaabbbb", "........", "aa......", {{4, 8}}));
    // the first byte that should have changed
    EXPECT_EQ("0 1 0 6", countOf("..aa", "....", "....", {{4, 4}}));
    // pages that did not go out count for nothing, nor does the rest of a page
    EXPECT_EQ("0 1 0 12", countOf("aaaabbbbcc", "aaaabbbb..", "aaaabbbb..", {{12, 2}}));
    // ranges of their own
    EXPECT_EQ("1 1 0 12", countOf("aaaabbbbcccc", "....bbbb....", "aaaabbbb....", {{4, 4}, {12, 4}}));
}

TEST(PagesReadBack, ShowWhyTheyAreOld)
{
    const auto because = [](const pageCount& pages, const pageWaits& waits, bool behindHub = false) {
        return whyKept(pages, waits, behindHub);
    };
    EXPECT_EQ(keptBecause::writeProtected, because({.old = 3}, {.pages = 3}));
    EXPECT_EQ(keptBecause::writeProtected, because({.old = 3}, {.pages = 3}, true));
    EXPECT_EQ(keptBecause::neverBusy, because({.taken = 1, .old = 2}, {.pages = 3}));
    EXPECT_EQ(keptBecause::partlyProtected, because({.taken = 1, .old = 2}, {.pages = 3, .busyPages = 1}));
    EXPECT_EQ(keptBecause::lost, because({.taken = 1, .old = 2}, {.pages = 3, .busyPages = 2}));
    EXPECT_EQ(keptBecause::lost, because({.old = 1}, {.pages = 1, .busyPages = 1}));
    // a hub is busy with its own transfer
    EXPECT_EQ(keptBecause::notSeen, because({.old = 1}, {.pages = 1, .busyPages = 1}, true));
    EXPECT_EQ(keptBecause::notSeen, because({.old = 1}, {.pages = 1, .unaskedPages = 1}));
    EXPECT_EQ(keptBecause::notSeen, because({.old = 1}, {}));
}

} // namespace
} // namespace kest::tools
