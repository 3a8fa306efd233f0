#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

/// A335BNLT, version 00A5, serial number 3613BBBK0042, no configuration; the rest of the part is erased.
Bytes boardImage()
{
    Bytes image = fromHex("aa 55 33 ee 41 33 33 35 42 4e 4c 54 30 30 41 35 33 36 31 33 42 42 42 4b 30 30 34 32");
    image.resize(256, 0xFF);
    return image;
}

TEST(Beaglebone, FieldsOfABoard)
{
    const auto found = recognise(boardImage());
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("beaglebone", found.front()->name);
    const reading what = readExactly("beaglebone", boardImage());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("0xAA5533EE", textOf(what, "header"));
    EXPECT_EQ("A335BNLT", textOf(what, "board.name"));
    EXPECT_EQ("00A5", textOf(what, "board.version"));
    EXPECT_EQ("3613BBBK0042", textOf(what, "board.serialNumber"));
    EXPECT_EQ("196 of FF", textOf(what, "other.at60"));
}

TEST(Beaglebone, AnotherBoardsHeaderIsNotRecognised)
{
    Bytes image = boardImage();
    image.at(5) = 0x34;
    EXPECT_TRUE(recognise(image).empty());
}

} // namespace
} // namespace kest::contents::test
