#include "contents/tlvedit.h"

#include <gtest/gtest.h>

#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

const Bytes twoFields = fromHex("54 6c 76 49 6e 66 6f 00 01 00 0e 21 02 41 42 23 02 53 31 fe 04 44 60 4b 07");

/// Bytes and `count` more of one value.
Bytes filled(Bytes bytes, std::size_t count, std::uint8_t value)
{
    bytes.insert(bytes.end(), count, value);
    return bytes;
}

editResult set(const Bytes& image, const std::vector<fieldSetting>& settings) { return setTlvFields(image, settings); }

TEST(TlvEdit, MakesATable)
{
    const editResult made =
        makeTlv(0, std::vector<fieldSetting>{{.field = "productName", .value = "AB"}, {"serialNumber", "S1"}});
    EXPECT_EQ("", made.refusal);
    EXPECT_EQ(twoFields, made.bytes);
    EXPECT_EQ(fromHex("54 6c 76 49 6e 66 6f 00 01 00 06 fe 04 d4 43 1c 18"), makeTlv(0, {}).bytes);
    EXPECT_EQ(filled(fromHex("54 6c 76 49 6e 66 6f 00 01 00 06 fe 04 d4 43 1c 18"), 3, 0xFF), makeTlv(20, {}).bytes);
    EXPECT_EQ("the table would have 17 bytes, there is room for 16", makeTlv(16, {}).refusal);
}

TEST(TlvEdit, MakesFieldsOfEveryKind)
{
    const std::vector<fieldSetting> fields{{"manufacture date", "2024-02-29 23:59:59"},
                                           {"device_version", "255"},
                                           {"MacCount", "0x100"},
                                           {"countryCode", "DE"},
                                           {"0xFD", "0000008112"},
                                           {"0x50", "AB"}};
    EXPECT_EQ(fromHex("54 6c 76 49 6e 66 6f 00 01 00 30 25 13 30 32 2f 32 39 2f 32 30 32 34 20 32 33 3a 35 39 3a 35 39 "
                      "26 01 ff 2a 02 01 00 2c 02 44 45 fd 05 00 00 00 81 12 50 01 ab fe 04 84 52 7c 8a"),
              makeTlv(0, fields).bytes);
}

TEST(TlvEdit, GrowsOverBlankBytes)
{
    const Bytes longer = fromHex("54 6c 76 49 6e 66 6f 00 01 00 11 21 02 41 42 23 05 53 31 32 33 34 fe 04 71 fb 39 62");
    for (const std::uint8_t blank : {std::uint8_t{0xFF}, std::uint8_t{0x00}}) {
        EXPECT_EQ(filled(longer, 7, blank), set(filled(twoFields, 10, blank), {{"0x23", "S1234"}}).bytes);
    }
    EXPECT_EQ("the table would grow to offset 28 (0x1C), but something else begins behind its present end at 25 (0x19)",
              set(filled(twoFields, 10, 0x5A), {{"0x23", "S1234"}}).refusal);
    EXPECT_EQ("the table would have 28 bytes, there is room for 27",
              set(filled(twoFields, 2, 0xFF), {{"serialNumber", "S1234"}}).refusal);
}

TEST(TlvEdit, AddsAFieldBehindTheOthers)
{
    EXPECT_EQ(fromHex("54 6c 76 49 6e 66 6f 00 01 00 16 21 02 41 42 23 02 53 31 24 06 00 11 22 33 44 55 fe 04 6e 55 cd "
                      "a3 ff"),
              set(filled(twoFields, 9, 0xFF), {{"baseMac", "00:11:22:33:44:55"}}).bytes);
}

TEST(TlvEdit, RemovesAFieldThatBecomesEmpty)
{
    const Bytes without = fromHex("54 6c 76 49 6e 66 6f 00 01 00 0a 21 02 41 42 fe 04 8d 53 af 81");
    EXPECT_EQ(filled(without, 4, 0xFF), set(twoFields, {{"serialNumber", ""}}).bytes);
    EXPECT_EQ(filled(without, 7, 0x00), set(filled(twoFields, 3, 0x00), {{"serialNumber", ""}}).bytes);
    EXPECT_EQ(without, set(without, {{"serialNumber", ""}}).bytes);
}

TEST(TlvEdit, KeepsTheLengthOfAPaddedText)
{
    const Bytes padded = fromHex("54 6c 76 49 6e 66 6f 00 01 00 10 23 04 53 31 00 00 21 02 41 42 fe 04 b3 d5 b5 a7");
    EXPECT_EQ(fromHex("54 6c 76 49 6e 66 6f 00 01 00 10 23 04 53 39 39 00 21 02 41 42 fe 04 92 8f 5f e9"),
              set(padded, {{"serialNumber", "S99"}}).bytes);
}

TEST(TlvEdit, RefusesFieldsAndValuesThatNoTableTakes)
{
    const editResult unknown = set(twoFields, {{"colour", "red"}});
    EXPECT_EQ("a TlvInfo table has no field 'colour' that can be set", unknown.refusal);
    EXPECT_EQ("fields: productName, partNumber, serialNumber, baseMac, manufactureDate, deviceVersion, labelRevision, "
              "platformName, onieVersion, macCount, manufacturer, countryCode, vendor, diagVersion, serviceTag; or a "
              "code such as 0x23",
              unknown.tryThis);
    EXPECT_TRUE(unknown.wrongUse);
    for (const char* code : {"crc", "0xFE", "0x00", "0xFF", "0x", "0x100", "vendorExtension"}) {
        EXPECT_TRUE(set(twoFields, {{code, "00"}}).wrongUse) << code;
    }
    const editResult wrong = set(twoFields, {{"baseMac", "none"}});
    EXPECT_EQ("baseMac can't be 'none': a MAC address is allowed: six bytes such as 00:11:22:33:44:55", wrong.refusal);
    EXPECT_TRUE(wrong.wrongUse);
    EXPECT_EQ("0xFD can't be '000081': 4 to 255 bytes are allowed, each as two hexadecimal digits",
              set(twoFields, {{"0xFD", "000081"}}).refusal);
}

TEST(TlvEdit, RefusesADamagedTable)
{
    const auto refusalWith = [](std::size_t at, std::uint8_t byte) {
        Bytes image = twoFields;
        image[at] = byte;
        const editResult result = set(image, {{"serialNumber", "S2"}});
        EXPECT_FALSE(result.wrongUse);
        EXPECT_TRUE(result.bytes.empty());
        return result.refusal;
    };
    const std::string head = "a damaged TlvInfo table is not edited: ";
    EXPECT_EQ(head + "it is no TlvInfo table", refusalWith(0, 0x55));
    EXPECT_EQ(head + "its version is 2, known is 1", refusalWith(8, 2));
    EXPECT_EQ(head + "its 26 bytes pass the end of the image at 25", refusalWith(10, 0x0F));
    EXPECT_EQ(head + "its last entry is no CRC-32", refusalWith(10, 0x08));
    EXPECT_EQ(head + "the entry at offset 15 (0xF) passes the end of the table", refusalWith(16, 0x09));
    EXPECT_EQ(head + "its CRC-32 is 0x44604B08, computed 0x44604B07", refusalWith(24, 0x08));
    EXPECT_EQ(head + "it is no TlvInfo table", set(Bytes(10), {}).refusal);
    const Bytes twice = fromHex("54 6c 76 49 6e 66 6f 00 01 00 0c fe 04 00 00 00 00 fe 04 e0 0a b3 5d");
    EXPECT_EQ(head + "it has a CRC-32 before its end", set(twice, {}).refusal);
}

TEST(TlvEdit, RefusesAFieldThatTheTableHasSeveralTimes)
{
    const Bytes image = exampleImage("tlvinfo-4096-switch.bin");
    EXPECT_EQ("the table has several entries with the code 0xFD", set(image, {{"0xFD", "00000000"}}).refusal);
}

TEST(TlvEdit, RefusesMoreEntriesThanTheLengthCanSay)
{
    // 254 entries of 257 bytes and the checksum's 6: 65284 bytes
    Bytes image = fromHex("54 6c 76 49 6e 66 6f 00 01 ff 04");
    for (int count = 0; count < 254; ++count) {
        image.insert(image.end(), {0xFD, 0xFF});
        image.resize(image.size() + 255);
    }
    const Bytes sum = fromHex("fe 04 81 d0 15 24");
    image.insert(image.end(), sum.begin(), sum.end());
    image.resize(70000);
    EXPECT_EQ("", set(image, {{"serialNumber", std::string(249, 'x')}}).refusal);
    EXPECT_EQ("the table would have more than 65546 bytes, there is room for 70000",
              set(image, {{"serialNumber", std::string(250, 'x')}}).refusal);
}

} // namespace
} // namespace kest::contents::test
