/// FRU information that is damaged.
#include <gtest/gtest.h>

#include "tests/contents/fruimage.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

TEST(FruDamage, EachSumIsJudgedByItself)
{
    // one bit of the board's manufacturer
    const reading what = readExactly("fru", changedFru(fruBoardAt + 7, 0x40));
    ASSERT_EQ(1U, damagedNodes(what).size());
    EXPECT_EQ("stored is 0xFB, computed is 0xFC", problemOf(what, "board.checksum"));
    EXPECT_EQ("@cme", textOf(what, "board.manufacturer"));
    const reading record = readExactly("fru", changedFru(fruRecordsAt + 5, 0xEF));
    ASSERT_EQ(1U, damagedNodes(record).size());
    EXPECT_EQ("stored is 0x52, computed is 0x51", problemOf(record, "record.1.checksum"));
}

TEST(FruDamage, AnAreaLongerThanTheImageIsDamagedAndItsFieldsAreShown)
{
    const reading what = readExactly("fru", changedFru(fruBoardAt + 1, 0xFF));
    EXPECT_EQ("it should have 2040 bytes, and there are 177", problemOf(what, "board"));
    EXPECT_EQ("Acme", textOf(what, "board.manufacturer"));
    // where the sum of so long an area would be, nothing is
    EXPECT_EQ("(there is none)", textOf(what, "board.checksum"));
}

TEST(FruDamage, AnAreaWithoutLengthIsDamaged)
{
    const reading what = readExactly("fru", changedFru(fruChassisAt + 1, 0));
    EXPECT_EQ("its length is 0 bytes, and the least is 8", problemOf(what, "chassis"));
    EXPECT_EQ("(there is none)", textOf(what, "chassis.type"));
}

TEST(FruDamage, AStringLongerThanItsAreaIsDamaged)
{
    const reading what = readExactly("fru", changedFru(fruBoardAt + 18, 0xFF));
    // the last byte is the area's checksum
    EXPECT_EQ("its length is 63, and there are 12 bytes before the end of its area",
              problemOf(what, "board.partNumber"));
    EXPECT_EQ("", textOf(what, "board.partNumber"));
    EXPECT_EQ("42", textOf(what, "board.serialNumber"));
}

TEST(FruDamage, StringsWithoutAnEndAreDamaged)
{
    Bytes image = fullFru();
    // a string of 7 bytes in place of the end; behind it is the sum
    image.at(fruBoardAt + 23) = 0x07;
    const reading what = readExactly("fru", image);
    EXPECT_EQ("there is no byte that ends the strings", problemOf(what, "board.end"));
}

TEST(FruDamage, AChecksumDoesNotEndTheStrings)
{
    // one empty text, and a sum that is C1
    const Bytes image = fromHex("01 00 00 01 00 00 00 fe 01 01 19 64 00 00 c0 c1");
    const reading what = readExactly("fru", image);
    EXPECT_EQ("", problemOf(what, "board.checksum"));
    EXPECT_EQ("there is no byte that ends the strings", problemOf(what, "board.end"));
    EXPECT_FALSE(isWhole(what));
}

TEST(FruDamage, AreasAndRecordsOfAnotherVersionAreDamaged)
{
    EXPECT_EQ("it is 2, and allowed is 1 alone", problemOf(readExactly("fru", changedFru(8, 2)), "internal.version"));
    EXPECT_EQ("it is 2, and allowed is 1 alone",
              problemOf(readExactly("fru", changedFru(fruChassisAt, 2)), "chassis.version"));
    EXPECT_EQ("it is 3, and allowed is 1 alone",
              problemOf(readExactly("fru", changedFru(fruBoardAt, 3)), "board.version"));
    EXPECT_EQ("it is 0, and allowed is 1 alone",
              problemOf(readExactly("fru", changedFru(fruProductAt, 0)), "product.version"));
    EXPECT_EQ("it is 3, and allowed is 2 alone",
              problemOf(readExactly("fru", changedFru(fruRecordsAt + 1, 3)), "record.1.version"));
    // an OEM may define another version of its own record
    const reading oem = readExactly("fru", changedFru(fruBytes - 9, 0x83));
    EXPECT_EQ("", problemOf(oem, "record.7.version"));
    EXPECT_EQ(verdict::unknown, findNode(oem, "record.7.version")->is);
}

TEST(FruDamage, ControlCharactersAreNoTextAndShownAsBytes)
{
    const reading what = readExactly("fru", changedFru(fruBoardAt + 7, 0x1B));
    EXPECT_EQ("it has a control character", problemOf(what, "board.manufacturer"));
    EXPECT_EQ("1B 63 6D 65", textOf(what, "board.manufacturer"));
    EXPECT_EQ("it has a control character",
              problemOf(readExactly("fru", changedFru(fruBoardAt + 7, 0x7F)), "board.manufacturer"));
    EXPECT_EQ("it has a control character",
              problemOf(readExactly("fru", changedFru(fruBoardAt + 7, 0x9F)), "board.manufacturer"));
    // the second character of a name in UTF-16
    EXPECT_EQ("it has a control character",
              problemOf(readExactly("fru", changedFru(fruProductAt + 6, 0x9B)), "product.manufacturer"));
    EXPECT_EQ("\xC2\xA0"
              "cme",
              textOf(readExactly("fru", changedFru(fruBoardAt + 7, 0xA0)), "board.manufacturer"));
}

TEST(FruDamage, TextsMayEndInNul)
{
    const reading what = readExactly("fru", changedFru(fruBoardAt + 10, 0x00));
    EXPECT_EQ("", problemOf(what, "board.manufacturer"));
    EXPECT_EQ("Acm", textOf(what, "board.manufacturer"));
    EXPECT_EQ("it has a control character",
              problemOf(readExactly("fru", changedFru(fruBoardAt + 9, 0x00)), "board.manufacturer"));
}

TEST(FruDamage, ARecordLongerThanTheImageIsDamaged)
{
    // the OEM record is the last of 209 bytes
    const reading what = readExactly("fru", changedFru(fruBytes - 8, 6));
    EXPECT_EQ("its length is 6, and there are 5 bytes before the end of its area", problemOf(what, "record.7"));
    EXPECT_EQ("(there is none)", textOf(what, "record.7.data"));
    EXPECT_EQ("09 08", textOf(what, "record.6.data"));
}

TEST(FruDamage, RecordsWithoutALastOneAreDamaged)
{
    Bytes image = fullFru();
    // bit 7 of the OEM record's second byte; its header then sums to 0x80
    image.at(fruBytes - 9) = 0x02;
    image.at(fruBytes - 6) = 0xEB;
    const reading what = readExactly("fru", image);
    ASSERT_EQ(1U, damagedNodes(what).size());
    EXPECT_EQ("its last entry is missing", problemOf(what, "record"));
}

TEST(FruDamage, AnAreaBehindTheImageIsDamaged)
{
    Bytes image = changedFru(4, 0x1B);
    image.at(7) = 0xD1;
    const reading what = readExactly("fru", image);
    EXPECT_EQ("it begins 216 bytes after the start of an area of 209 bytes", problemOf(what, "product"));
}

TEST(FruDamage, AreasThatLieOnEachOtherAreDamaged)
{
    // the product area begins where the board area does
    Bytes image = changedFru(4, 0x04);
    image.at(7) = 0xE8;
    const reading what = readExactly("fru", image);
    EXPECT_EQ("", problemOf(what, "board"));
    EXPECT_EQ("it lies on bytes of the area 'Board'", problemOf(what, "product"));
    // the chassis area has a block of 8 bytes too many, which is the board's first
    EXPECT_EQ("it lies on bytes of the area 'Chassis'",
              problemOf(readExactly("fru", changedFru(fruChassisAt + 1, 3)), "board"));
}

TEST(FruDamage, RecordsMayStandBeforeOtherAreas)
{
    // header, a DC load record in 24 bytes with 6 of fill, a board area
    const Bytes image = fromHex("01 00 00 04 00 01 00 fa "
                                "02 82 0d 2e 41 01 4a 01 29 01 6b 01 00 00 00 00 ee 02 ff ff ff ff ff ff "
                                "01 01 00 00 00 00 c1 3d");
    const reading what = readExactly("fru", image);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("3.3 V", textOf(what, "record.1.nominalVoltage"));
    // the record's length leads into the board area
    Bytes longer = image;
    longer.at(10) = 0x14;
    EXPECT_EQ("its length is 20, and there are 19 bytes before the end of its area",
              problemOf(readExactly("fru", longer), "record.1"));
}

TEST(FruDamage, ReservedDigitsOfBcdPlusAreDamagedAndShownAsBytes)
{
    const reading what = readExactly("fru", changedFru(fruChassisAt + 4, 0x1D));
    EXPECT_EQ("a digit of its BCD plus text is reserved", problemOf(what, "chassis.partNumber"));
    EXPECT_EQ("1D 34 B5 C6", textOf(what, "chassis.partNumber"));
}

} // namespace
} // namespace kest::contents::test
