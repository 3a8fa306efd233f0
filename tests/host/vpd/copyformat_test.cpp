#include "platform/host/vpd/copyformat.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <string>

#include "tests/host/vpd/copyexample.h"
#include "tests/host/vpd/servedcopies.h"

namespace kest::test
{
namespace
{

using host::copyKind;
using host::copyLayout;

const Bytes example(copyExample.begin(), copyExample.end());

copyKind kindOf(const Bytes& file)
{
    host::copyHeader header;
    return host::kindOfCopy(file, header);
}

/// The example with other bytes from an offset on.
Bytes exampleWith(std::size_t offset, const Bytes& others)
{
    Bytes file = example;
    std::ranges::copy(others, file.begin() + static_cast<std::ptrdiff_t>(offset));
    return file;
}

TEST(CopyFormat, TheFileIsThatOfTheDocument)
{
    EXPECT_EQ(example, host::copyFileOf(Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9'},
                                        {.deviceBytes = 256, .capturedMs = 1714564800250}));
}

TEST(CopyFormat, TheHeaderIsReadBack)
{
    host::copyHeader header;
    EXPECT_EQ(copyKind::withSums, host::kindOfCopy(example, header));
    EXPECT_EQ(9U, header.heldBytes);
    EXPECT_EQ(256U, header.facts.deviceBytes);
    EXPECT_EQ(1714564800250, header.facts.capturedMs.value_or(0));
}

TEST(CopyFormat, TimeAndSizeMayBeUnknown)
{
    const Bytes file = host::copyFileOf(Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9'}, {});
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0x4D, 0x9A, 0xFD, 0xE8}),
              Bytes(file.begin() + 28, file.begin() + 44));
    host::copyHeader header{.heldBytes = 1, .facts = {.deviceBytes = 1, .capturedMs = 1}};
    EXPECT_EQ(copyKind::withSums, host::kindOfCopy(file, header));
    EXPECT_EQ(0U, header.facts.deviceBytes);
    EXPECT_FALSE(header.facts.capturedMs);
}

TEST(CopyFormat, PartsLieOneBehindTheOther)
{
    const copyLayout one(4096);
    EXPECT_EQ(1U, one.blocks());
    EXPECT_EQ(48U, one.dataOffset());
    EXPECT_EQ(4144U, one.endMarkOffset());
    EXPECT_EQ(4160U, one.fileBytes());
    const copyLayout two(4097);
    EXPECT_EQ(2U, two.blocks());
    EXPECT_EQ(48U, two.sumOffset(1));
    EXPECT_EQ(52U, two.dataOffset());
    EXPECT_EQ(4096U, two.blockBytes(0));
    EXPECT_EQ(1U, two.blockBytes(1));
    EXPECT_EQ(16793660U, copyLayout(16777216).fileBytes());
    EXPECT_EQ(16793660U, host::largestCopyFileBytes);
}

/// Every bit of marks and header shows by itself; every other bit shows when its block is looked at.
TEST(CopyFormat, NoFlippedBitPasses)
{
    for (std::size_t bit = 0; bit < 8 * example.size(); ++bit) {
        Bytes file = example;
        file[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        const bool inBlock = bit / 8 >= 44 && bit / 8 < 57;
        EXPECT_EQ(inBlock ? copyKind::withSums : copyKind::damaged, kindOf(file)) << bit;
        if (inBlock) {
            EXPECT_FALSE(host::provesBlock(std::span(file).subspan(44, 4), std::span(file).subspan(48, 9))) << bit;
        }
    }
    EXPECT_TRUE(host::provesBlock(std::span(example).subspan(44, 4), std::span(example).subspan(48, 9)));
}

TEST(CopyFormat, FilesThatAreCutOrLongerAreDamaged)
{
    for (std::size_t length = 1; length < example.size(); ++length) {
        EXPECT_EQ(copyKind::damaged, kindOf(Bytes(example.begin(), example.begin() + static_cast<long>(length))))
            << length;
    }
    for (std::size_t lost = 1; lost <= 57; ++lost) {
        EXPECT_EQ(copyKind::damaged, kindOf(Bytes(example.begin() + static_cast<long>(lost), example.end()))) << lost;
    }
    Bytes longer = example;
    longer.push_back(0);
    EXPECT_EQ(copyKind::damaged, kindOf(longer));
}

TEST(CopyFormat, ALostFrontOrEndMakesNoRawCopy)
{
    Bytes file = host::copyFileOf(pattern(9000), {});
    std::fill_n(file.begin(), 4096, std::uint8_t{0});
    EXPECT_EQ(copyKind::damaged, kindOf(file));
    file = host::copyFileOf(pattern(9000), {});
    std::fill_n(file.rbegin(), 4096, std::uint8_t{0xFF});
    EXPECT_EQ(copyKind::damaged, kindOf(file));
}

TEST(CopyFormat, ARawCopyIsWhatHasNoMark)
{
    EXPECT_EQ(copyKind::raw, kindOf({}));
    EXPECT_EQ(copyKind::raw, kindOf({'1', '2', '3'}));
    EXPECT_EQ(copyKind::raw, kindOf(pattern(256)));
    EXPECT_EQ(copyKind::raw, kindOf(Bytes(4096, 0xFF)));
    EXPECT_EQ(copyKind::raw, kindOf(Bytes(73, 0x00)));
    // 16 wrong bits are a damaged mark, 17 are another device's bytes; the mark at the end is gone
    Bytes file(example.begin(), example.begin() + 57);
    file[1] ^= 0xFF;
    file[2] ^= 0xFF;
    EXPECT_EQ(copyKind::damaged, kindOf(file));
    file[3] ^= 0x01;
    EXPECT_EQ(copyKind::raw, kindOf(file));
}

TEST(CopyFormat, ANewerVersionIsNoDamage)
{
    Bytes file = exampleWith(19, {2});
    EXPECT_EQ(copyKind::damaged, kindOf(file)) << "its check sum is that of version 1";
    std::ranges::copy(Bytes{0xBB, 0xF9, 0xCA, 0xDB}, file.begin() + 40);
    EXPECT_EQ(copyKind::newer, kindOf(file));
}

/// Someone made the header's check sum right.
TEST(CopyFormat, ForgedHeadersAreDamaged)
{
    Bytes file = exampleWith(20, {0, 0, 2, 0});
    std::ranges::copy(Bytes{0xEB, 0x90, 0x7F, 0xA3}, file.begin() + 40);
    EXPECT_EQ(copyKind::damaged, kindOf(file)) << "blocks of 512 bytes";
    // held bytes 0, one byte more, all bits: CRC-32 of each header by hand
    file = exampleWith(24, {0, 0, 0, 0});
    std::ranges::copy(Bytes{0x47, 0x72, 0x42, 0xD0}, file.begin() + 40);
    EXPECT_EQ(copyKind::damaged, kindOf(file)) << "no byte";
    file = exampleWith(24, {0, 0, 0, 10});
    std::ranges::copy(Bytes{0x7D, 0x2D, 0x24, 0xF6}, file.begin() + 40);
    EXPECT_EQ(copyKind::damaged, kindOf(file)) << "ten bytes";
    file = exampleWith(24, {0xFF, 0xFF, 0xFF, 0xFF});
    std::ranges::copy(Bytes{0x54, 0x36, 0xF6, 0x7A}, file.begin() + 40);
    EXPECT_EQ(copyKind::damaged, kindOf(file)) << "4294967295 bytes";
    EXPECT_EQ((Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9'}),
              Bytes(host::unprovedBytesOf(file).begin(), host::unprovedBytesOf(file).end()));
}

TEST(CopyFormat, WhatIsNotReadHasAReason)
{
    EXPECT_EQ(0, host::copyError(copyKind::withSums, 73));
    EXPECT_EQ(0, host::copyError(copyKind::raw, 16777216));
    EXPECT_EQ(EFBIG, host::copyError(copyKind::raw, 16777217));
    EXPECT_EQ(EBADMSG, host::copyError(copyKind::damaged, 73));
    EXPECT_EQ(ENOTSUP, host::copyError(copyKind::newer, 73));
}

TEST(CopyFormat, AChangeGivesTheFileOfTheChangedBytes)
{
    const host::copyFacts facts{.deviceBytes = 10000, .capturedMs = 5};
    for (const std::size_t offset : {std::size_t{0}, std::size_t{4095}, std::size_t{4096}, std::size_t{9000}}) {
        for (const std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{1000}}) {
            Bytes bytes = pattern(10000);
            Bytes file = host::copyFileOf(bytes, facts);
            const Bytes fresh(count, 0xA5);
            EXPECT_FALSE(host::changeCopyFile(file, copyLayout(10000), static_cast<std::uint32_t>(offset), fresh));
            std::ranges::copy(fresh, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
            EXPECT_EQ(host::copyFileOf(bytes, facts), file) << offset << " " << count;
        }
    }
}

TEST(CopyFormat, AChangeProvesWhatItKeepsOfABlock)
{
    Bytes file = host::copyFileOf(pattern(10000), {});
    // in block 1
    file[copyLayout(10000).dataOffset() + 5000] ^= 0x10;
    const Bytes damaged = file;
    EXPECT_EQ(1U, host::changeCopyFile(file, copyLayout(10000), 4000, Bytes(100, 0)).value_or(99));
    EXPECT_EQ(1U, host::changeCopyFile(file, copyLayout(10000), 8191, Bytes(2, 0)).value_or(99));
    EXPECT_EQ(1U, host::changeCopyFile(file, copyLayout(10000), 4097, Bytes(4095, 0)).value_or(99));
    EXPECT_EQ(damaged, file);
    // as a whole it is new
    EXPECT_FALSE(host::changeCopyFile(file, copyLayout(10000), 4096, Bytes(4096, 0)));
    Bytes bytes = pattern(10000);
    std::fill_n(bytes.begin() + 4096, 4096, std::uint8_t{0});
    EXPECT_EQ(host::copyFileOf(bytes, {}), file);
}

TEST(CopyFormat, BytesAreFoundInDamagedFiles)
{
    const auto bytesOf = [](const Bytes& file) {
        const auto found = host::unprovedBytesOf(file);
        return std::string(found.begin(), found.end());
    };
    EXPECT_EQ("123456789", bytesOf(example));
    EXPECT_EQ("123456789", bytesOf(exampleWith(16, {9, 9, 9, 9})));
    EXPECT_EQ("1234X6789", bytesOf(exampleWith(52, {'X'})));
    EXPECT_EQ("123", bytesOf(Bytes(example.begin(), example.begin() + 51))) << "the end is lost";
    EXPECT_EQ("", bytesOf(Bytes(example.begin(), example.begin() + 20)));
    EXPECT_EQ("raw", bytesOf({'r', 'a', 'w'}));
    Bytes large = host::copyFileOf(pattern(9000), {});
    large[17] = 1;
    const auto found = host::unprovedBytesOf(large);
    EXPECT_EQ(pattern(9000), Bytes(found.begin(), found.end())) << "by the file's size";
}

} // namespace
} // namespace kest::test
