#include "contents/reader.h"

#include <gtest/gtest.h>

#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

/// Reads hexadecimal digits by rows.
template <std::size_t Count>
reading readBy(const row (&rows)[Count], std::string_view digits, std::size_t length = 0)
{
    // readings keep pointers to their format
    static format as;
    as = {.name = "test", .length = length, .rows = rows};
    return readAs(as, fromHex(digits));
}

TEST(Reader, RowsWhoseConditionsDoNotHoldAreLeftOut)
{
    static constexpr row rows[] = {
        {.name = "type", .label = "Type", .as = kind::number},
        {.name = "first", .label = "First", .at = 1, .when = {.field = "type", .least = 1, .most = 1}},
        {.name = "second", .label = "Second", .at = 1, .when = {.field = "type", .oneOf = 1U << 2 | 1U << 5}},
        {.name = "low", .label = "Low", .at = 1, .when = {.field = "type", .mask = 0x0F, .least = 2, .most = 3}},
        {.name = "both",
         .label = "Both",
         .at = 1,
         .when = {.field = "type", .least = 2},
         .also = {.field = "type", .most = 0x20}},
        {.name = "never", .label = "Never", .at = 1, .when = {.field = "missing"}},
    };
    const reading one = readBy(rows, "01 aa");
    EXPECT_EQ("AA", textOf(one, "first"));
    EXPECT_EQ("(there is none)", textOf(one, "second"));
    EXPECT_EQ("(there is none)", textOf(one, "low"));
    EXPECT_EQ("(there is none)", textOf(one, "both"));
    const reading other = readBy(rows, "12 aa");
    EXPECT_EQ("(there is none)", textOf(other, "first"));
    EXPECT_EQ("(there is none)", textOf(other, "second"));
    EXPECT_EQ("AA", textOf(other, "low"));
    EXPECT_EQ("AA", textOf(other, "both"));
    EXPECT_EQ("(there is none)", textOf(other, "never"));
    EXPECT_EQ("AA", textOf(readBy(rows, "02 aa"), "second"));
}

TEST(Reader, FieldsOfABlockThatEndsEarlyAreLeftOutAndTheBlockIsDamaged)
{
    static constexpr row inner[] = {{.name = "a", .label = "A"}, {.name = "b", .label = "B", .at = 1, .length = 2}};
    static constexpr row rows[] = {{.name = "length", .label = "Length", .as = kind::number},
                                   {.name = "block",
                                    .label = "Block",
                                    .as = kind::block,
                                    .at = 1,
                                    .where = {.lengthField = "length"},
                                    .rows = inner}};
    const reading what = readBy(rows, "02 aa bb cc");
    EXPECT_EQ("AA", textOf(what, "block.a"));
    EXPECT_EQ("(there is none)", textOf(what, "block.b"));
    EXPECT_EQ("it ends before some of its fields", problemOf(what, "block"));
    EXPECT_FALSE(isWhole(what));
    EXPECT_TRUE(isWhole(readBy(rows, "03 aa bb cc")));
}

TEST(Reader, AnImageShorterThanItsFormatSaysSo)
{
    static constexpr row rows[] = {{.name = "a", .label = "A"}, {.name = "b", .label = "B", .at = 3}};
    EXPECT_EQ("the image ends before some of its fields", readBy(rows, "aa bb").problem);
    EXPECT_EQ("the image ends before some of its fields", readBy(rows, "aa bb cc dd", 5).problem);
    EXPECT_EQ("", readBy(rows, "aa bb cc dd", 4).problem);
    EXPECT_EQ("AA", textOf(readBy(rows, "aa bb"), "a"));
}

TEST(Reader, AnImageWithoutItsSignatureIsNotWhole)
{
    static constexpr row rows[] = {{.name = "a", .label = "A"}};
    static constexpr signature one[] = {{.at = 0, .bytes = "\x11"}};
    static constexpr signature other[] = {{.at = 0, .bytes = "\x22"}};
    static constexpr format as{.name = "test", .signatures = one, .otherwise = other, .rows = rows};
    EXPECT_TRUE(isWhole(readAs(as, fromHex("11"))));
    EXPECT_TRUE(isWhole(readAs(as, fromHex("22"))));
    const reading what = readAs(as, fromHex("33"));
    EXPECT_EQ("the bytes that identify the format are not there", what.problem);
    EXPECT_EQ("33", textOf(what, "a"));
    static constexpr format longer{.name = "test", .least = 3, .signatures = one, .rows = rows};
    EXPECT_FALSE(isWhole(readAs(longer, fromHex("11 00"))));
}

TEST(Reader, BytesThatNoRowCoversAreShown)
{
    static constexpr row rows[] = {{.name = "a", .label = "A", .at = 2}};
    const reading what = readBy(rows, "11 22 aa 33 44 ff ff ff ff ff ff ff ff");
    EXPECT_EQ("11 22", textOf(what, "other.at0"));
    EXPECT_EQ(verdict::unknown, findNode(what, "other.at0")->is);
    EXPECT_EQ("33 44", textOf(what, "other.at3"));
    EXPECT_EQ("8 of FF", textOf(what, "other.at5"));
    EXPECT_EQ(verdict::good, findNode(what, "other.at5")->is);
    EXPECT_TRUE(isWhole(what));
}

TEST(Reader, RepetitionsAreCountedByAField)
{
    static constexpr row inner[] = {{.name = "v", .label = "V", .as = kind::number}};
    static constexpr row rows[] = {{.name = "count", .label = "Count", .as = kind::number},
                                   {.name = "item",
                                    .label = "Item",
                                    .as = kind::repetition,
                                    .at = 1,
                                    .length = 2,
                                    .rows = inner,
                                    .countField = "count"}};
    const reading what = readBy(rows, "02 05 00 06 00 07 00");
    EXPECT_EQ("5", textOf(what, "item.1.v"));
    EXPECT_EQ("6", textOf(what, "item.2.v"));
    EXPECT_EQ("(there is none)", textOf(what, "item.3.v"));
    EXPECT_TRUE(isWhole(what));
    const reading cut = readBy(rows, "04 05 00 06");
    EXPECT_EQ("5", textOf(cut, "item.1.v"));
    EXPECT_EQ("6", textOf(cut, "item.2.v"));
    EXPECT_EQ("the image ends before some of its fields", cut.problem);
}

TEST(Reader, RepetitionsWithoutACountGoOnAsLongAsTheyFit)
{
    static constexpr row inner[] = {{.name = "v", .label = "V", .as = kind::number, .length = 2}};
    static constexpr row rows[] = {
        {.name = "item", .label = "Item", .as = kind::repetition, .length = 2, .rows = inner, .stopAtZeros = 1}};
    EXPECT_EQ("258", textOf(readBy(rows, "01 01 01 02 01"), "item.2.v"));
    EXPECT_TRUE(isWhole(readBy(rows, "01 01 01 02 01")));
    EXPECT_EQ("(there is none)", textOf(readBy(rows, "01 01 00 02 01 03"), "item.2.v"));
    EXPECT_EQ("(there is none)", textOf(readBy(rows, "01 01 00 02 01 03"), "item.3.v"));
}

TEST(Reader, RepetitionsThatMustFillTheirBlockLeaveNoBytes)
{
    static constexpr row inner[] = {{.name = "v", .label = "V", .as = kind::number, .length = 2}};
    static constexpr row rows[] = {
        {.name = "item", .label = "Item", .as = kind::repetition, .length = 2, .rows = inner, .mustFill = true}};
    EXPECT_TRUE(isWhole(readBy(rows, "01 01 01 02")));
    const reading what = readBy(rows, "01 01 01 02 33");
    EXPECT_EQ("258", textOf(what, "item.2.v"));
    EXPECT_EQ("33", textOf(what, "item.rest"));
    EXPECT_EQ("an element has 2 bytes, and there are 1 before the end of its area", problemOf(what, "item.rest"));
    EXPECT_EQ("(there is none)", textOf(what, "other.at4"));
    EXPECT_FALSE(isWhole(what));
}

TEST(Reader, RepetitionsThatBeginBehindTheImageAreDamaged)
{
    static constexpr row inner[] = {{.name = "v", .label = "V", .as = kind::number}};
    static constexpr row rows[] = {
        {.name = "at", .label = "At", .as = kind::number},
        {.name = "item", .label = "Item", .as = kind::repetition, .where = {.atField = "at"}, .rows = inner},
    };
    EXPECT_EQ("7", textOf(readBy(rows, "01 07"), "item.1.v"));
    EXPECT_TRUE(isWhole(readBy(rows, "00 07")));
    const reading what = readBy(rows, "03 07");
    EXPECT_EQ("it begins 3 bytes after the start of an area of 2 bytes", problemOf(what, "item"));
    EXPECT_EQ("(there is none)", textOf(what, "item.1.v"));
    EXPECT_FALSE(isWhole(what));
}

TEST(Reader, AProductMultipliesSumsOfFields)
{
    // the fields of 1080i: 1920 + 280 pixels a line, 562.5 lines a field, 74.25 MHz
    static constexpr factor factors[] = {
        {.field = "clock"},
        {.field = "pixels", .plusField = "pixelsBlank", .divides = true},
        {.field = "lines", .plus = 1, .plusField = "linesBlank", .times = 2, .divides = true},
    };
    static constexpr row rows[] = {
        {.name = "clock", .label = "Clock", .as = kind::number, .length = 2},
        {.name = "pixels", .label = "Pixels", .as = kind::number, .at = 2, .length = 2},
        {.name = "pixelsBlank", .label = "Blank pixels", .as = kind::number, .at = 4, .length = 2},
        {.name = "lines", .label = "Lines", .as = kind::number, .at = 6, .length = 2},
        {.name = "linesBlank", .label = "Blank lines", .as = kind::number, .at = 8, .length = 2},
        {.name = "rate",
         .label = "Rate",
         .as = kind::product,
         .length = 0,
         .by = {.factor = 20000},
         .factors = factors,
         .decimals = 2},
    };
    EXPECT_EQ("60", textOf(readBy(rows, "1d01 0780 0118 021c 0016"), "rate"));
    // 59.94 Hz, as 74.18 MHz makes it: 59.943434
    EXPECT_EQ("59.94", textOf(readBy(rows, "1cfa 0780 0118 021c 0016"), "rate"));
}

TEST(Reader, WhatAnElementReadsIsForgottenAtItsEnd)
{
    static constexpr row inner[] = {
        {.name = "type", .label = "Type", .as = kind::number},
        {.name = "extra", .label = "Extra", .at = 1, .when = {.field = "flag"}},
        {.name = "flag", .label = "Flag", .as = kind::number, .when = {.field = "type", .least = 1}},
    };
    static constexpr row rows[] = {
        {.name = "item", .label = "Item", .as = kind::repetition, .length = 2, .rows = inner, .count = 2}};
    EXPECT_EQ("(there is none)", textOf(readBy(rows, "01 aa 00 bb"), "item.2.extra"));
}

TEST(Reader, SumsCoverWhatTheirRuleSays)
{
    static constexpr row rows[] = {
        {.name = "low",
         .label = "Low",
         .as = kind::checksum,
         .at = 4,
         .sum = {.as = sumKind::low8, .from = 1, .length = 3}},
        {.name = "zero", .label = "Zero", .as = kind::checksum, .fromEnd = 1, .sum = {.as = sumKind::zero8}},
    };
    // 0xF0 + 0x11 + 0x22 = 0x123; all six sum to 0x200
    const reading what = readBy(rows, "99 f0 11 22 23 21");
    EXPECT_TRUE(isWhole(what));
    const node* const low = findNode(what, "low");
    ASSERT_NE(nullptr, low);
    ASSERT_TRUE(low->sum.has_value());
    EXPECT_EQ(0x23U, low->sum->stored);
    EXPECT_EQ(0x23U, low->sum->computed);
    EXPECT_EQ(1U, low->sum->from);
    EXPECT_EQ(3U, low->sum->length);
    EXPECT_EQ("stored is 0x24, computed is 0x23", problemOf(readBy(rows, "99 f0 11 22 24 20"), "low"));
    EXPECT_EQ("stored is 0x22, computed is 0x21", problemOf(readBy(rows, "99 f0 11 22 23 22"), "zero"));
}

TEST(Reader, ASumOfBytesThatAreMissingIsDamaged)
{
    static constexpr row rows[] = {
        {.name = "sum", .label = "Sum", .as = kind::checksum, .sum = {.as = sumKind::low8, .from = 1, .length = 4}},
        {.name = "late", .label = "Late", .as = kind::checksum, .at = 1, .sum = {.as = sumKind::low8, .from = 2}},
        {.name = "field",
         .label = "Field",
         .as = kind::checksum,
         .sum = {.as = sumKind::low8, .lengthField = "missing"}}};
    const reading what = readBy(rows, "aa bb cc");
    EXPECT_EQ("the bytes that it covers are missing", problemOf(what, "sum"));
    EXPECT_EQ("the bytes that it covers are missing", problemOf(what, "late"));
    EXPECT_EQ("the bytes that it covers are missing", problemOf(what, "field"));
    EXPECT_FALSE(findNode(what, "sum")->sum.has_value());
    EXPECT_EQ(3U, checksums(what).size());
}

TEST(Reader, SumsOfSixteenAndThirtyTwoBits)
{
    static constexpr row rows[] = {
        {.name = "crc16",
         .label = "CRC-16",
         .as = kind::checksum,
         .at = 9,
         .length = 2,
         .sum = {.as = sumKind::crc16Xmodem, .length = 9}},
        {.name = "crc32",
         .label = "CRC-32",
         .as = kind::checksum,
         .at = 11,
         .length = 4,
         .sum = {.as = sumKind::crc32Big, .length = 9}},
    };
    // the check values of both for "123456789": 0x31C3, low byte first, and 0xCBF43926
    const reading what = readBy(rows, "31 32 33 34 35 36 37 38 39 c3 31 cb f4 39 26");
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("0x31C3", textOf(what, "crc16"));
    EXPECT_EQ("0xCBF43926", textOf(what, "crc32"));
}

TEST(Reader, AnAreaEndsBeforeTheNextOne)
{
    static constexpr std::string_view positions[] = {"a", "b", "c"};
    static constexpr row inner[] = {{.name = "data", .label = "Data", .length = 0}};
    static constexpr row rows[] = {
        {.name = "a", .label = "A", .as = kind::number},
        {.name = "b", .label = "B", .as = kind::number, .at = 1},
        {.name = "c", .label = "C", .as = kind::number, .at = 2},
        {.name = "area",
         .label = "Area",
         .as = kind::block,
         .length = 0,
         .where = {.atField = "b", .atUnit = 4, .beforeFields = positions},
         .rows = inner},
    };
    EXPECT_EQ("44 55 66 77", textOf(readBy(rows, "00 01 02 33 44 55 66 77 88 99"), "area.data"));
    EXPECT_EQ("44 55 66 77 88 99", textOf(readBy(rows, "00 01 00 33 44 55 66 77 88 99"), "area.data"));
    EXPECT_EQ("(there is none)", textOf(readBy(rows, "00 00 02 33 44 55 66 77 88 99"), "area"));
    EXPECT_EQ("it begins 12 bytes after the start of an area of 10 bytes",
              problemOf(readBy(rows, "00 03 00 33 44 55 66 77 88 99"), "area"));
}

constexpr row listHeader[] = {{.name = "t", .label = "T", .as = kind::number, .bit = 5},
                              {.name = "l", .label = "L", .as = kind::number, .bits = 5}};
constexpr row listPair[] = {{.name = "x", .label = "X"}, {.name = "y", .label = "Y", .at = 1}};
constexpr row listKnown[] = {
    {.name = "one", .label = "One", .as = kind::number, .tag = 1},
    {.name = "pair", .label = "Pair", .as = kind::block, .tag = 2, .lastTag = 3, .rows = listPair}};

TEST(Reader, ListsOfTypeAndLengthInOneByte)
{
    static constexpr row rows[] = {{.label = "List",
                                    .as = kind::list,
                                    .length = 0,
                                    .entries = {.headerLength = 1,
                                                .header = listHeader,
                                                .typeField = "t",
                                                .lengthField = "l",
                                                .zerosEnd = true,
                                                .known = listKnown}}};
    const reading what = readBy(rows, "21 07 42 aa bb 62 cc dd 81 ee 21 08 00 00");
    EXPECT_EQ("7", textOf(what, "one"));
    EXPECT_EQ("AA", textOf(what, "pair.x"));
    EXPECT_EQ("DD", textOf(what, "pair.2.y"));
    EXPECT_EQ("EE", textOf(what, "type0x04"));
    EXPECT_EQ(verdict::unknown, findNode(what, "type0x04")->is);
    EXPECT_EQ("8", textOf(what, "one.2"));
    EXPECT_EQ("2 of 00", textOf(what, "other.at12"));
    EXPECT_TRUE(isWhole(what));
    // a zero that is no fill is an entry
    const reading more = readBy(rows, "21 07 00 21 08");
    EXPECT_EQ("8", textOf(more, "one.2"));
}

TEST(Reader, AListHasNoMoreEntriesThanAnyDocumentAllows)
{
    static constexpr row rows[] = {
        {.label = "List",
         .as = kind::list,
         .length = 0,
         .entries = {
             .headerLength = 1, .header = listHeader, .typeField = "t", .lengthField = "l", .known = listKnown}}};
    static constexpr format as{.name = "test", .rows = rows};
    // entries without a value
    const reading what = readAs(as, Bytes(4097, 0x80));
    EXPECT_EQ(4096U, what.nodes.front().children.size());
    EXPECT_EQ("it has more than 4096 entries", what.nodes.front().problem);
    EXPECT_TRUE(isWhole(readAs(as, Bytes(4096, 0x80))));
}

TEST(Reader, AnEntryOfAnotherLengthThanItsRowIsDamaged)
{
    static constexpr row rows[] = {
        {.label = "List",
         .as = kind::list,
         .length = 0,
         .entries = {
             .headerLength = 1, .header = listHeader, .typeField = "t", .lengthField = "l", .known = listKnown}}};
    const reading what = readBy(rows, "22 07 08 41 aa");
    EXPECT_EQ("its length is 2 instead of 1", problemOf(what, "one"));
    EXPECT_EQ("07 08", textOf(what, "one"));
    EXPECT_EQ("it ends before some of its fields", problemOf(what, "pair"));
    EXPECT_EQ("AA", textOf(what, "pair.x"));
    const reading cut = readBy(rows, "21 07 44 aa bb");
    EXPECT_EQ("7", textOf(cut, "one"));
    EXPECT_EQ("its length is 4, and there are 2 bytes before the end of its area", problemOf(cut, "pair"));
    EXPECT_EQ("(there is none)", textOf(cut, "pair.x"));
    EXPECT_EQ("AA BB", textOf(cut, "other.at3"));
}

} // namespace
} // namespace kest::contents::test
