#include "contents/valueencoder.h"

#include <gtest/gtest.h>

#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

TEST(ValueEncoder, TakesPrintableTexts)
{
    EXPECT_EQ(fromHex("41 20 7e"), encodeValue({}, "A ~").bytes);
    EXPECT_EQ("only printable ASCII characters are allowed", encodeValue({}, "A\nB").complaint);
    EXPECT_EQ("only printable ASCII characters are allowed", encodeValue({}, "\xC3\xBC").complaint);
    EXPECT_EQ("1 to 4 characters are allowed, these are 5", encodeValue({.mostBytes = 4}, "ABCDE").complaint);
    EXPECT_EQ("1 to 255 characters are allowed, these are 0", encodeValue({}, "").complaint);
    EXPECT_EQ(255U, encodeValue({}, std::string(255, 'x')).bytes.size());
}

TEST(ValueEncoder, TakesNumbersMostSignificantByteFirst)
{
    const valueRule word{.kind = valueKind::number, .mostBytes = 2};
    EXPECT_EQ(fromHex("01 02"), encodeValue(word, "258").bytes);
    EXPECT_EQ(fromHex("ff ff"), encodeValue(word, "0xffff").bytes);
    const std::string allowed = "a number from 0 to 65535 is allowed, decimal or hexadecimal after 0x";
    for (const char* wrong : {"65536", "-1", "", "0x", "12a", " 1", "+1", "99999999999999999999"}) {
        EXPECT_EQ(allowed, encodeValue(word, wrong).complaint) << wrong;
    }
    EXPECT_EQ("a number from 0 to 255 is allowed, decimal or hexadecimal after 0x",
              encodeValue({.kind = valueKind::number, .mostBytes = 1}, "256").complaint);
}

TEST(ValueEncoder, TakesAddressesOfStations)
{
    const valueRule station{.kind = valueKind::stationAddress};
    EXPECT_EQ(fromHex("00 11 22 aa bb cc"), encodeValue(station, "00:11:22:aa:BB:cc").bytes);
    EXPECT_EQ(fromHex("00 11 22 aa bb cc"), encodeValue(station, "00-11-22-AA-BB-CC").bytes);
    EXPECT_EQ(fromHex("00 11 22 aa bb cc"), encodeValue(station, "001122AABBCC").bytes);
    const std::string allowed = "a MAC address is allowed: six bytes such as 00:11:22:33:44:55";
    for (const char* wrong : {"", "00:11:22:33:44", "00:11:22:33:44:55:66", "00:11:22:33:44:5", "00:11:22:33:44:5g",
                              "00:11-22:33:44:55", "00:1122:33:44:55", "00:11:22:33:44:55:"}) {
        EXPECT_EQ(allowed, encodeValue(station, wrong).complaint) << wrong;
    }
    EXPECT_EQ("00:00:00:00:00:00 is the address of no station", encodeValue(station, "00:00:00:00:00:00").complaint);
    EXPECT_EQ("the address is one of a group: the first byte of a station's is even",
              encodeValue(station, "01:00:5e:00:00:01").complaint);
}

TEST(ValueEncoder, TakesDatesOfTheCalendarAsText)
{
    const valueRule date{.kind = valueKind::dateText};
    const std::string same = "02/29/2024 23:59:59";
    EXPECT_EQ(Bytes(same.begin(), same.end()), encodeValue(date, same).bytes);
    const std::string utc = "06/10/2016 01:57:00";
    EXPECT_EQ(Bytes(utc.begin(), utc.end()), encodeValue(date, "2016-06-10T01:57Z").bytes);
    const std::string allowed =
        "a date and time of the calendar is allowed: 06/10/2016 01:57:31 or 2016-06-10 01:57:31";
    for (const char* wrong :
         {"", "02/29/2023 00:00:00", "02/29/1900 00:00:00", "13/01/2020 00:00:00", "00/01/2020 00:00:00",
          "01/00/2020 00:00:00", "04/31/2020 00:00:00", "01/01/2020 24:00:00", "01/01/2020 00:60:00",
          "01/01/2020 00:00:60", "2020-01-01", "01.01.2020 00:00:00", "0a/01/2020 00:00:00"}) {
        EXPECT_EQ(allowed, encodeValue(date, wrong).complaint) << wrong;
    }
    EXPECT_EQ("", encodeValue(date, "02/29/2000 00:00:00").complaint);
}

TEST(ValueEncoder, CountsMinutesSince1996)
{
    const valueRule minutes{.kind = valueKind::minuteCount};
    EXPECT_EQ(fromHex("01 00 00"), encodeValue(minutes, "1996-01-01 00:01").bytes);
    // 31 days of January and 28 of February are 84960 minutes, the leap day 1440 more: 86400 is 0x015180
    EXPECT_EQ(fromHex("80 51 01"), encodeValue(minutes, "1996-03-01 00:00").bytes);
    EXPECT_EQ(fromHex("b5 0c a4"), encodeValue(minutes, "2016-06-10T01:57").bytes);
    EXPECT_EQ(fromHex("ff ff ff"), encodeValue(minutes, "2027-11-24 20:15").bytes);
    const std::string allowed = "a date and time from 1996-01-01 00:01 to 2027-11-24 20:15 is allowed, in whole "
                                "minutes: 2016-06-10 01:57";
    for (const char* wrong :
         {"", "1996-01-01 00:00", "1995-12-31 23:59", "2027-11-24 20:16", "9999-12-31 23:59", "2016-06-10 01:57:31"}) {
        EXPECT_EQ(allowed, encodeValue(minutes, wrong).complaint) << wrong;
    }
}

TEST(ValueEncoder, TakesCountriesAndBytes)
{
    const valueRule country{.kind = valueKind::countryCode};
    EXPECT_EQ(fromHex("44 45"), encodeValue(country, "DE").bytes);
    for (const char* wrong : {"", "D", "de", "DEU", "D1"}) {
        EXPECT_EQ("two capital letters are allowed, as in ISO 3166-1: DE", encodeValue(country, wrong).complaint);
    }
    const valueRule bytes{.kind = valueKind::hexBytes, .leastBytes = 4, .mostBytes = 5};
    EXPECT_EQ(fromHex("00 00 81 19"), encodeValue(bytes, "00 00 81 19").bytes);
    EXPECT_EQ(fromHex("00 00 81 19 ff"), encodeValue(bytes, "00008119fF").bytes);
    for (const char* wrong : {"", "000081", "000081190000", "0000811", "0000811x", "00 008119"}) {
        EXPECT_EQ("4 to 5 bytes are allowed, each as two hexadecimal digits", encodeValue(bytes, wrong).complaint);
    }
}

TEST(ValueEncoder, TakesAChoiceByTextOrNumber)
{
    constexpr named types[] = {{2, "Unknown"}, {23, "Rack-mount chassis"}};
    const valueRule choice{.kind = valueKind::choice, .mostBytes = 1, .names = types};
    EXPECT_EQ(fromHex("17"), encodeValue(choice, "rack mount chassis").bytes);
    EXPECT_EQ(fromHex("fe"), encodeValue(choice, "0xFE").bytes);
    EXPECT_EQ("a number from 0 to 255 is allowed, decimal or hexadecimal after 0x, or one of: Unknown, "
              "Rack-mount chassis",
              encodeValue(choice, "Shelf").complaint);
}

} // namespace
} // namespace kest::contents::test
