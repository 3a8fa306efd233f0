/// What is served of persisted copies that are whole or damaged.
#include "platform/tavo.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <random>

#include "tests/host/vpd/copyexample.h"
#include "tests/host/vpd/servedcopies.h"

namespace kest::test
{
namespace
{

using testing::ElementsAre;

TEST_F(ServedCopies, TheDocumentedFileIsServed)
{
    put(7, Bytes(copyExample.begin(), copyExample.end()));
    EXPECT_EQ((Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9'}), read(7, 0, 0));
    EXPECT_EQ((Bytes{'8', '9'}), read(7, 10, 7));
    host::copyInfo found;
    EXPECT_EQ(0, host::checkCopy(7, found));
    EXPECT_EQ(host::copyState::proved, found.state);
    EXPECT_EQ(9U, found.sizeBytes);
    EXPECT_EQ(256U, found.facts.deviceBytes);
    EXPECT_EQ(1714564800250, found.facts.capturedMs.value_or(0));
}

TEST_F(ServedCopies, EachFlippedBitIsAnEntryAndNoByteIsServed)
{
    for (std::size_t bit = 0; bit < 8 * copyExample.size(); ++bit) {
        Bytes file(copyExample.begin(), copyExample.end());
        file[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        put(7, file);
        const std::uint32_t where = bit / 8 >= 44 && bit / 8 < 57 ? 0 : 0xFFFFFFFF;
        EXPECT_EQ(Bytes{}, read(7, 1, 0)) << bit;
        EXPECT_THAT(why(), ElementsAre(0x80001407, where)) << bit;
        EXPECT_FALSE(write(7, {'X'}, 8)) << bit;
        EXPECT_THAT(why(), ElementsAre(0x80001407, where)) << bit;
        EXPECT_EQ(file, fileOf(7)) << bit;
        host::copyInfo found;
        EXPECT_EQ(0, host::checkCopy(7, found));
        EXPECT_EQ(host::copyState::damaged, found.state) << bit;
    }
}

TEST_F(ServedCopies, EachLengthButTheRightOneIsAnEntry)
{
    for (std::size_t length = 1; length < copyExample.size() + 20; ++length) {
        Bytes file(copyExample.begin(), copyExample.end());
        file.resize(length);
        put(7, file);
        EXPECT_EQ(length == 73 ? 9U : 0U, read(7, 0, 0).size()) << length;
        if (length != 73) {
            EXPECT_THAT(why(), ElementsAre(0x80001407, 0xFFFFFFFF)) << length;
        }
    }
}

TEST_F(ServedCopies, TheEntryNamesTheCopy)
{
    put(7, Bytes(copyExample.begin(), copyExample.end()));
    flip(7, 8 * 50);
    EXPECT_EQ(Bytes{}, read(7, 3, 2));
    unsigned int count = 0;
    const std::uint32_t* words = entry->getSRC(0)->getHexData(count);
    EXPECT_EQ(7U, words[4]);
    EXPECT_EQ(3U, words[5]);
    EXPECT_EQ(2U, words[6]);
    EXPECT_EQ("qorn/P3_Root", textOf(1));
    EXPECT_EQ(path(7), textOf(2));
    EXPECT_FALSE(write(7, {'X'}, 2));
    EXPECT_EQ("qorn/P3_Root", textOf(1));
    EXPECT_EQ(path(7), textOf(2));
}

/// 10000 bytes: a header of 44 bytes, three check sums, blocks at 56, 4152 and 8248.
TEST_F(ServedCopies, TheBlocksBesideADamagedOneAreServed)
{
    for (const std::size_t damagedByte : {std::size_t{48}, std::size_t{4152}, std::size_t{8247}}) {
        ASSERT_EQ(0, host::replaceCopy(7, pattern(10000)));
        flip(7, 8 * damagedByte + 3);
        const Bytes all = pattern(10000);
        EXPECT_EQ(Bytes(all.begin(), all.begin() + 4096), read(7, 4096, 0));
        EXPECT_EQ(Bytes(all.begin() + 8192, all.end()), read(7, 0, 8192));
        for (const auto& [offset, length] : {std::pair{4095U, 2U}, {4096U, 1U}, {8191U, 1U}, {8191U, 2U}, {0U, 0U}}) {
            EXPECT_EQ(Bytes{}, read(7, length, offset)) << damagedByte;
            EXPECT_THAT(why(), ElementsAre(0x80001407, 4096)) << damagedByte;
        }
        host::copyInfo found;
        EXPECT_EQ(0, host::checkCopy(7, found));
        EXPECT_EQ(host::copyState::damaged, found.state);
        EXPECT_THAT(found.damaged, ElementsAre(4096));
    }
}

TEST_F(ServedCopies, RangesOfEverySizeAreServed)
{
    for (const std::size_t size : {std::size_t{4095}, std::size_t{4096}, std::size_t{4097}, std::size_t{20000},
                                   std::size_t{131072}, std::size_t{16777216}}) {
        const Bytes all = pattern(size);
        ASSERT_EQ(0, host::replaceCopy(7, all));
        EXPECT_EQ(all, read(7, 0, 0));
        for (const std::size_t from : {std::size_t{0}, std::size_t{1}, size / 2, size - 1}) {
            for (const std::size_t length : {std::size_t{1}, std::size_t{5000}}) {
                const std::size_t end = std::min(size, from + length);
                EXPECT_EQ(Bytes(all.begin() + static_cast<long>(from), all.begin() + static_cast<long>(end)),
                          read(7, static_cast<unsigned>(length), static_cast<unsigned>(from)))
                    << size << " " << from;
            }
        }
        EXPECT_EQ(Bytes{}, read(7, 1, static_cast<unsigned>(size)));
        EXPECT_THAT(why(), ElementsAre(0x80001402, size));
    }
}

/// Up to five bytes wrong, too few to hide both marks; or an end that is lost.
TEST_F(ServedCopies, WhateverIsDamagedTheBytesAreRightOrNotServed)
{
    // the same numbers in every run
    std::mt19937 numbers(20240501);
    const auto below = [&numbers](std::size_t limit) { return static_cast<unsigned>(numbers() % limit); };
    int refused = 0;
    for (int round = 0; round < 500; ++round) {
        const Bytes all = pattern(1 + below(30000));
        ASSERT_EQ(0, host::replaceCopy(7, all));
        Bytes file = fileOf(7);
        if (below(4) == 0) {
            file.resize(16 + below(file.size() - 16));
        } else {
            for (unsigned left = 1 + below(5); left > 0; --left) {
                file[below(file.size())] ^= static_cast<std::uint8_t>(1 + below(255));
            }
        }
        put(7, file);
        const unsigned offset = below(all.size());
        const Bytes served = read(7, 1 + below(9000), offset);
        EXPECT_EQ(entry != nullptr, served.empty()) << round;
        EXPECT_TRUE(std::equal(served.begin(), served.end(), all.begin() + offset)) << round;
        refused += entry != nullptr ? 1 : 0;
    }
    EXPECT_LT(100, refused);
}

TEST_F(ServedCopies, AWriteKeepsTimeAndSizeOfTheDevice)
{
    put(7, Bytes(copyExample.begin(), copyExample.end()));
    EXPECT_TRUE(write(7, {'X', 'Y'}, 3));
    EXPECT_EQ(host::copyFileOf(Bytes{'1', '2', '3', 'X', 'Y', '6', '7', '8', '9'},
                               {.deviceBytes = 256, .capturedMs = 1714564800250}),
              fileOf(7));
}

TEST_F(ServedCopies, AWriteOverAWholeDamagedBlockMakesItGood)
{
    ASSERT_EQ(0, host::replaceCopy(7, pattern(10000)));
    flip(7, 8 * 4152);
    const Bytes damaged = fileOf(7);
    EXPECT_FALSE(write(7, Bytes(4095, 1), 4096));
    EXPECT_THAT(why(), ElementsAre(0x80001407, 4096));
    EXPECT_EQ(damaged, fileOf(7));
    EXPECT_TRUE(write(7, {9}, 0));
    EXPECT_EQ(Bytes{}, read(7, 1, 4096)) << "a write elsewhere proves nothing here";
    EXPECT_TRUE(write(7, Bytes(4096, 1), 4096));
    EXPECT_EQ(Bytes(10, 1), read(7, 10, 5000));
}

} // namespace
} // namespace kest::test
