#include "contents/values.h"

#include <gtest/gtest.h>

#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

/// Reads bytes as a row that lies at the start of its block.
decodedValue decoded(const row& field, const Bytes& block, const knownFields& known = {})
{
    return decodeValue(field, {.block = block, .at = 0, .length = field.length}, known);
}

std::string text(const row& field, std::string_view digits) { return decoded(field, fromHex(digits)).text; }

std::string problem(const row& field, std::string_view digits) { return decoded(field, fromHex(digits)).problem; }

TEST(Values, NumbersOfBothByteOrders)
{
    EXPECT_EQ("4660", text({.as = kind::number, .length = 2}, "1234"));
    EXPECT_EQ("13330", text({.as = kind::number, .length = 2, .order = byteOrder::little}, "1234"));
    EXPECT_EQ("-2", text({.as = kind::number, .length = 2, .isSigned = true}, "fffe"));
    EXPECT_EQ("-128", text({.as = kind::number, .isSigned = true}, "80"));
    EXPECT_EQ("0xFFFFFFFFFFFFFFFF", text({.as = kind::number, .length = 8}, "ffffffffffffffff"));
    EXPECT_EQ("-1", text({.as = kind::number, .length = 8, .isSigned = true}, "ffffffffffffffff"));
    EXPECT_EQ("-9223372036854775807", text({.as = kind::number, .length = 8, .isSigned = true}, "8000000000000001"));
}

TEST(Values, BitsOfNumbers)
{
    EXPECT_EQ("10", text({.as = kind::number, .bit = 4}, "a5"));
    EXPECT_EQ("5", text({.as = kind::number, .bits = 4}, "a5"));
    EXPECT_EQ("-6", text({.as = kind::number, .bit = 4, .bits = 4, .isSigned = true}, "a5"));
    EXPECT_EQ("35", text({.as = kind::number, .length = 2, .bit = 4, .bits = 8}, "1234"));
}

TEST(Values, PiecesOfANumberFromOtherBytes)
{
    static constexpr place high[] = {{.at = 2, .bit = 4, .bits = 4}, {.at = 1, .bits = 1}};
    // 0x90, above it 0x7, above it 1
    EXPECT_EQ("6032", text({.as = kind::number, .more = high}, "90 01 71"));
    EXPECT_EQ("some of its bits are missing", problem({.as = kind::number, .more = high}, "90 01"));
}

TEST(Values, AreScaledExactly)
{
    EXPECT_EQ("2.2", text({.as = kind::number, .by = {.divisor = 100, .plus = 1}}, "78"));
    EXPECT_EQ("2007", text({.as = kind::number, .by = {.plus = 1990}}, "11"));
    EXPECT_EQ("26.5", text({.as = kind::number, .length = 2, .isSigned = true, .by = {.divisor = 256}}, "1a80"));
    EXPECT_EQ("it can't be scaled: a base is 0, is missing or does not fit",
              problem({.as = kind::number, .length = 8, .by = {.factor = 256}}, "7fffffffffffffff"));
}

TEST(Values, BasesThatOtherFieldsGive)
{
    constexpr row time{.as = kind::number,
                       .by = {.factor = 1000, .factorField = "dividend", .divisorField = "divisor"},
                       .fine = {.at = 1, .by = {.factorField = "fine"}}};
    knownFields known;
    known.remember("dividend", 1);
    known.remember("divisor", 8);
    known.remember("fine", 1);
    // 10 * 1000 / 8 - 3
    EXPECT_EQ("1247", decoded(time, fromHex("0afd"), known).text);
    known.remember("divisor", 0);
    EXPECT_EQ("it can't be scaled: a base is 0, is missing or does not fit",
              decoded(time, fromHex("0afd"), known).problem);
    EXPECT_EQ(verdict::damaged, decoded(time, fromHex("0afd"), {}).is);
}

TEST(Values, SpecialNumbersHaveTheirText)
{
    static constexpr named special[] = {{0xFF, "model year"}};
    EXPECT_EQ("model year", text({.as = kind::number, .unit = "week", .names = special}, "ff"));
    EXPECT_EQ("12", text({.as = kind::number, .unit = "week", .names = special}, "0c"));
}

TEST(Values, AChoiceThatHasNoTextIsNotKnown)
{
    static constexpr named types[] = {{1, "one"}, {2, "two"}};
    EXPECT_EQ("two", text({.as = kind::choice, .names = types}, "02"));
    const decodedValue other = decoded({.as = kind::choice, .names = types}, fromHex("0b"));
    EXPECT_EQ("0x0B", other.text);
    EXPECT_EQ(verdict::unknown, other.is);
    EXPECT_EQ(11U, other.raw);
}

TEST(Values, FlagsNameTheBitsThatAreSet)
{
    static constexpr named bits[] = {{0, "lowest"}, {7, "highest"}};
    EXPECT_EQ("lowest, highest", text({.as = kind::flags, .names = bits}, "81"));
    EXPECT_EQ(verdict::good, decoded({.as = kind::flags, .names = bits}, fromHex("81")).is);
    EXPECT_EQ("none", text({.as = kind::flags, .names = bits}, "00"));
}

TEST(Values, FlagsWithABitThatHasNoNameAreNotKnown)
{
    static constexpr named bits[] = {{0, "lowest"}, {7, "highest"}};
    const decodedValue what = decoded({.as = kind::flags, .names = bits}, fromHex("89"));
    EXPECT_EQ("lowest, bit 3 (not known), highest", what.text);
    EXPECT_EQ((fieldValue{std::vector<std::string>{"lowest", "bit 3", "highest"}}), what.value);
    EXPECT_EQ(verdict::unknown, what.is);
}

TEST(Values, DecimalDigits)
{
    EXPECT_EQ("2019", text({.as = kind::bcd, .by = {.plus = 2000}}, "19"));
    EXPECT_EQ("123456", text({.as = kind::bcd, .length = 3}, "123456"));
    EXPECT_EQ("these are not decimal digits", problem({.as = kind::bcd}, "1a"));
}

TEST(Values, TextEndsBeforeItsPadding)
{
    EXPECT_EQ("AB", text({.as = kind::text, .length = 4}, "41422020"));
    EXPECT_EQ("AB", text({.as = kind::text, .length = 4}, "41420000"));
    EXPECT_EQ(" A B", text({.as = kind::text, .length = 4}, "20412042"));
    EXPECT_EQ("", text({.as = kind::text, .length = 4}, "20200000"));
    EXPECT_EQ("it is not ASCII text", problem({.as = kind::text, .length = 4}, "41004200"));
    EXPECT_EQ("41 1B 5B 42", text({.as = kind::text, .length = 4}, "411b5b42"));
}

TEST(Values, ATextHasThePaddingOfItsRowAlone)
{
    EXPECT_EQ("AB", text({.as = kind::text, .length = 4, .padding = "\n "}, "41420a20"));
    EXPECT_EQ("AB", text({.as = kind::text, .length = 4, .padding = "\xFF"}, "4142ffff"));
    EXPECT_EQ("AB ", text({.as = kind::text, .length = 3, .padding = "\n"}, "414220"));
    EXPECT_EQ("it is not ASCII text", problem({.as = kind::text, .length = 4}, "41420a20"));
    EXPECT_EQ("it is not ASCII text", problem({.as = kind::text, .length = 4}, "4142ffff"));
    EXPECT_EQ("FF FF", text({.as = kind::text, .length = 2}, "ffff"));
}

TEST(Values, NumbersThatAreNotAllowedAreDamaged)
{
    static constexpr named special[] = {{0, "none"}};
    constexpr row position{.as = kind::number, .names = special, .allowed = {.least = 4, .most = 109}};
    EXPECT_EQ("none", text(position, "00"));
    EXPECT_EQ("4", text(position, "04"));
    EXPECT_EQ("109", text(position, "6d"));
    EXPECT_EQ("it is 3, and allowed is 4 to 109", problem(position, "03"));
    EXPECT_EQ("it is 110, and allowed is 4 to 109", problem(position, "6e"));
    // rows that refer to it still find what is stored
    EXPECT_EQ(110U, decoded(position, fromHex("6e")).raw);
    static constexpr named versions[] = {{1, "1"}};
    constexpr row version{.as = kind::choice, .names = versions, .allowed = {.least = 1, .most = 1}};
    EXPECT_EQ("1", text(version, "01"));
    EXPECT_EQ("it is 2, and allowed is 1 alone", problem(version, "02"));
    EXPECT_EQ(verdict::damaged, decoded(version, fromHex("02")).is);
}

TEST(Values, Identifiers)
{
    EXPECT_EQ("7C:FE:90:F5:36:40", text({.as = kind::macAddress, .length = 6}, "7cfe90f53640"));
    // D 00100, E 00101, L 01100
    EXPECT_EQ("DEL", text({.as = kind::eisaId, .length = 2}, "10ac"));
    EXPECT_EQ("these are not three letters", problem({.as = kind::eisaId, .length = 2}, "0000"));
    EXPECT_EQ("these are not three letters", problem({.as = kind::eisaId, .length = 2}, "90ac"));
    EXPECT_EQ("bank 1, code 0xCE", text({.as = kind::jedecId, .length = 2}, "80ce"));
    EXPECT_EQ("bank 6, code 0x9B", text({.as = kind::jedecId, .length = 2}, "859b"));
    EXPECT_EQ("not given", text({.as = kind::jedecId, .length = 2}, "0000"));
    EXPECT_EQ("a byte has even parity", problem({.as = kind::jedecId, .length = 2}, "80cf"));
    EXPECT_EQ("00112233-4455-6677-8899-aabbccddeeff",
              text({.as = kind::uuid, .length = 16}, "00112233445566778899aabbccddeeff"));
}

TEST(Values, Dates)
{
    EXPECT_EQ("not given", text({.as = kind::minutesSince1996, .length = 3}, "000000"));
    EXPECT_EQ("1996-01-01 00:01", text({.as = kind::minutesSince1996, .length = 3}, "010000"));
    // 59 days and a minute: 1996 is a leap year
    EXPECT_EQ("1996-02-29 00:01", text({.as = kind::minutesSince1996, .length = 3}, "e14b01"));
    EXPECT_EQ("2027-11-24 20:15", text({.as = kind::minutesSince1996, .length = 3}, "ffffff"));
    EXPECT_EQ("2021 week 07", text({.as = kind::yearWeekBcd, .length = 2}, "2107"));
    EXPECT_EQ("not given", text({.as = kind::yearWeekBcd, .length = 2}, "0000"));
    EXPECT_EQ("there is no such week", problem({.as = kind::yearWeekBcd, .length = 2}, "2154"));
    EXPECT_EQ("these are not decimal digits", problem({.as = kind::yearWeekBcd, .length = 2}, "2a07"));
}

TEST(Values, RealNumbers)
{
    EXPECT_EQ("1", text({.as = kind::real, .length = 4}, "3f800000"));
    EXPECT_EQ("-0.15625", text({.as = kind::real, .length = 4}, "be200000"));
    EXPECT_EQ("it is not a finite number", problem({.as = kind::real, .length = 4}, "7f800000"));
}

TEST(Values, OfAnotherLengthThanTheirKindAreDamaged)
{
    EXPECT_EQ("it has 5 bytes instead of 6", problem({.as = kind::macAddress, .length = 5}, "7cfe90f536"));
    EXPECT_EQ("it has 0 bytes instead of 1", problem({.as = kind::version, .length = 0}, ""));
    EXPECT_EQ("some of its bits are missing", problem({.as = kind::number, .length = 0}, ""));
    EXPECT_EQ("1.4", text({.as = kind::version}, "14"));
}

} // namespace
} // namespace kest::contents::test
