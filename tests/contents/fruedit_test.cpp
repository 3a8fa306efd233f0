#include "contents/fruedit.h"

#include <gtest/gtest.h>

#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

/// A header and a board area of 24 bytes, of which one is padding.
const Bytes board = fromHex("01 00 00 01 00 00 00 fe "
                            "01 03 19 00 00 00 c4 41 43 4d 45 c2 42 44 c2 53 31 c2 50 31 c0 c1 00 b7");

editResult set(const Bytes& image, const std::vector<fieldSetting>& settings) { return setFruFields(image, settings); }

Bytes with(Bytes image, std::size_t at, std::uint8_t byte)
{
    image.at(at) = byte;
    return image;
}

TEST(FruEdit, MakesTheAreasOfItsFields)
{
    const std::vector<fieldSetting> fields{{"board.manufacturer", "ACME"},
                                           {"Board.Product Name", "BD"},
                                           {"board.serialNumber", "S1"},
                                           {"board.partNumber", "P1"}};
    EXPECT_EQ(board, makeFru(0, fields).bytes);
    Bytes large = board;
    large.resize(64, 0xFF);
    EXPECT_EQ(large, makeFru(64, fields).bytes);
    EXPECT_EQ("the content has 32 bytes, the image 31", makeFru(31, fields).refusal);
    EXPECT_EQ(fromHex("01 00 00 00 00 00 00 ff"), makeFru(0, {}).bytes);
}

TEST(FruEdit, MakesAreasOneBehindTheOther)
{
    // chassis: 3 + 3 ("CP") + 1 (empty) + 1 (end) + 1 (checksum) bytes in 16; product: 3 + 7 + 3 ("XY") + 1 + 1 in 16
    const std::vector<fieldSetting> fields{
        {"product.custom1", "XY"}, {"chassis.partNumber", "CP"}, {"chassis.type", "Rack-mount chassis"}};
    EXPECT_EQ(fromHex("01 00 01 00 03 00 00 fb "
                      "01 02 17 c2 43 50 c0 c1 00 00 00 00 00 00 00 10 "
                      "01 02 19 c0 c0 c0 c0 c0 c0 c0 c2 58 59 c1 00 70"),
              makeFru(0, fields).bytes);
}

TEST(FruEdit, GrowsIntoThePaddingOfItsArea)
{
    EXPECT_EQ(fromHex("01 00 00 01 00 00 00 fe "
                      "01 03 19 00 00 00 c4 41 43 4d 45 c2 42 44 c3 53 31 32 c2 50 31 c0 c1 84"),
              set(board, {{"board.serialNumber", "S12"}}).bytes);
    EXPECT_EQ("the board area has 24 bytes and would need 25: it can't grow over what is behind it",
              set(board, {{"board.serialNumber", "S123"}}).refusal);
    // one field gives what another takes
    EXPECT_EQ("", set(board, {{"board.serialNumber", "S123"}, {"board.partNumber", ""}}).refusal);
    // bytes behind the texts that are no padding, with the checksum that belongs to them
    EXPECT_EQ("the board area would grow over bytes behind its texts that are no padding",
              set(with(with(board, 30, 0x5A), 31, 0x5D), {{"board.serialNumber", "S12"}}).refusal);
}

TEST(FruEdit, LeavesPaddingWhereATextBecomesShorter)
{
    EXPECT_EQ(fromHex("01 00 00 01 00 00 00 fe "
                      "01 03 19 00 00 00 c4 41 43 4d 45 c2 42 44 c0 c2 50 31 c0 c1 00 00 00 3d"),
              set(board, {{"board.serialNumber", ""}}).bytes);
}

TEST(FruEdit, LeavesPaddingThatATextCanGrowIntoAgain)
{
    // padding of FF, and the checksum that belongs to it
    const Bytes padded = with(with(board, 30, 0xFF), 31, 0xB8);
    const Bytes shorter = set(padded, {{"board.serialNumber", ""}}).bytes;
    EXPECT_EQ(fromHex("01 00 00 01 00 00 00 fe "
                      "01 03 19 00 00 00 c4 41 43 4d 45 c2 42 44 c0 c2 50 31 c0 c1 ff ff ff 40"),
              shorter);
    EXPECT_EQ(padded, set(shorter, {{"board.serialNumber", "S1"}}).bytes);
    // only the padding that a text takes must be free: here the last byte is not
    const Bytes partly = with(with(shorter, 30, 0x5A), 31, 0xE5);
    EXPECT_EQ("", set(partly, {{"board.serialNumber", "S1"}}).refusal);
    EXPECT_EQ(0x5A, set(partly, {{"board.serialNumber", "S1"}}).bytes.at(30));
}

/// In 8 bits its length and type would be C1, the mark behind the last text.
TEST(FruEdit, CodesASingleCharacterInSixBits)
{
    EXPECT_EQ(fromHex("01 00 00 01 00 00 00 fe "
                      "01 03 19 00 00 00 c4 41 43 4d 45 c2 42 44 81 17 c2 50 31 c0 c1 00 00 65"),
              set(board, {{"board.serialNumber", "7"}}).bytes);
    EXPECT_EQ("board.serialNumber can't be 'a': a single character must be a digit, a capital letter or a sign",
              set(board, {{"board.serialNumber", "a"}}).refusal);
}

TEST(FruEdit, SetsTheDate)
{
    const Bytes dated = fromHex("01 00 00 01 00 00 00 fe "
                                "01 03 19 b5 0c a4 c4 41 43 4d 45 c2 42 44 c2 53 31 c2 50 31 c0 c1 00 52");
    EXPECT_EQ(dated, set(board, {{"board.date", "2016-06-10 01:57"}}).bytes);
    EXPECT_EQ(board, set(dated, {{"board.date", ""}}).bytes);
    EXPECT_EQ("board.date can't be '2030-01-01 00:00': a date and time from 1996-01-01 00:01 to 2027-11-24 20:15 is "
              "allowed, in whole minutes: 2016-06-10 01:57",
              set(board, {{"board.date", "2030-01-01 00:00"}}).refusal);
}

TEST(FruEdit, AddsCustomFieldsOneAfterTheOther)
{
    const Bytes roomy = makeFru(0, std::vector<fieldSetting>{{"chassis.custom1", "0123456789"}}).bytes;
    ASSERT_EQ(32U, roomy.size());
    const Bytes two = set(roomy, {{"chassis.custom1", "AB"}, {"chassis.custom2", "CD"}}).bytes;
    EXPECT_EQ(fromHex("01 03 02 c0 c0 c2 41 42 c2 43 44 c1"), Bytes(two.begin() + 8, two.begin() + 20));
    const Bytes one = set(two, {{"chassis.custom2", ""}}).bytes;
    EXPECT_EQ(fromHex("01 03 02 c0 c0 c2 41 42 c1 00 00 00"), Bytes(one.begin() + 8, one.begin() + 20));
    const Bytes emptied = set(two, {{"chassis.custom1", ""}}).bytes;
    EXPECT_EQ(fromHex("01 03 02 c0 c0 c0 c2 43 44 c1 00 00"), Bytes(emptied.begin() + 8, emptied.begin() + 20));
    const editResult gap = set(one, {{"chassis.custom3", "EF"}});
    EXPECT_EQ("there is no custom field before chassis.custom3", gap.refusal);
    EXPECT_EQ("the next custom field is chassis.custom2", gap.tryThis);
    EXPECT_TRUE(set(one, {{"chassis.custom0", "EF"}}).wrongUse);
}

TEST(FruEdit, RefusesFieldsAndValuesThatNoImageTakes)
{
    const editResult unknown = set(board, {{"board.colour", "red"}});
    EXPECT_EQ("the board area has no field 'colour' that can be set", unknown.refusal);
    EXPECT_EQ("fields: language, date, manufacturer, productName, serialNumber, partNumber, fruFileId, custom1",
              unknown.tryThis);
    EXPECT_TRUE(unknown.wrongUse);
    for (const char* field : {"serialNumber", "header.version", "record.1.type", "board", "board.", "board.checksum"}) {
        EXPECT_TRUE(set(board, {{field, "1"}}).wrongUse) << field;
    }
    EXPECT_EQ("board.serialNumber can't be '" + std::string(64, 'x') +
                  "': 0 to 63 characters are allowed, these are 64",
              set(board, {{"board.serialNumber", std::string(64, 'x')}}).refusal);
    EXPECT_EQ("board.language can't be 'German': English alone is allowed; texts in other languages are in characters "
              "of 2 bytes, which can't be set",
              set(board, {{"board.language", "German"}}).refusal);
    EXPECT_EQ("board.language can't be 'Klingon': English alone is allowed; texts in other languages are in characters "
              "of 2 bytes, which can't be set",
              set(board, {{"board.language", "Klingon"}}).refusal);
}

TEST(FruEdit, RefusesAnAreaThatIsNotThere)
{
    const editResult absent = set(board, {{"product.name", "X1"}});
    EXPECT_EQ("there is no product area, and making one would move others", absent.refusal);
    EXPECT_EQ("'kestctl seeprom make fru' makes an image with the areas that are given", absent.tryThis);
    EXPECT_FALSE(absent.wrongUse);
}

TEST(FruEdit, RefusesAreasThatLieOnEachOther)
{
    // a record in the padding of a board area of 32 bytes: its header at 24, four bytes of data behind it
    const Bytes shared = fromHex("01 00 00 01 00 03 00 fb "
                                 "01 04 19 00 00 00 c2 41 42 c1 00 00 00 00 00 00 "
                                 "c0 82 04 f6 c4 01 02 03 04 00 00 00 00 00 00 d2");
    EXPECT_EQ("the board area lies on bytes of the area 'Records', which an edit would change",
              set(shared, {{"board.manufacturer", "CD"}}).refusal);
    // board and chassis in one place
    const Bytes twice = with(with(board, 2, 0x01), 7, 0xFD);
    EXPECT_EQ("the board area lies on bytes of the area 'Chassis', which an edit would change",
              set(twice, {{"board.serialNumber", "S2"}}).refusal);
}

TEST(FruEdit, RefusesTextsOfOtherLanguagesButNotThoseThatAreAlwaysEnglish)
{
    // language 22, and the checksum that belongs to it
    const Bytes german = with(with(board, 10, 0x16), 31, 0xBA);
    EXPECT_EQ("board.productName: the texts of this area are in another language than English, in characters of 2 "
              "bytes, which can't be set",
              set(german, {{"board.productName", "AB"}}).refusal);
    EXPECT_EQ("", set(german, {{"board.serialNumber", "S2"}}).refusal);
}

TEST(FruEdit, RefusesDamagedInformation)
{
    const auto refusal = [](const Bytes& image) { return set(image, {{"board.serialNumber", "S2"}}).refusal; };
    EXPECT_EQ("damaged FRU information is not edited: it has no common header", refusal(Bytes(7)));
    EXPECT_EQ("damaged FRU information is not edited: it has no common header", refusal(with(board, 0, 2)));
    EXPECT_EQ("damaged FRU information is not edited: the checksum of its header is 0xFF, computed 0xFE",
              refusal(with(board, 7, 0xFF)));
    const std::string head = "a damaged board area is not edited: ";
    EXPECT_EQ(head + "its checksum is 0xB8, computed 0xB7", refusal(with(board, 31, 0xB8)));
    EXPECT_EQ(head + "its version is 2, known is 1", refusal(with(with(board, 8, 2), 31, 0xB6)));
    EXPECT_EQ(head + "its length of 32 bytes can't be right", refusal(with(board, 9, 4)));
    EXPECT_EQ(head + "its length of 0 bytes can't be right", refusal(with(board, 9, 0)));
    // the last text is longer, no mark follows it; the checksum belongs to that
    EXPECT_EQ(head + "its texts pass its end", refusal(with(with(board, 28, 0xC9), 31, 0xAE)));
    // the area begins behind the image
    EXPECT_EQ(head + "its length of 0 bytes can't be right",
              refusal(fromHex("01 00 00 20 00 00 00 df 00 00 00 00 00 00 00 00")));
}

} // namespace
} // namespace kest::contents::test
