#include <algorithm>
#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

/// FRU information with every area. Its sums were computed by hand from the document.
Bytes fullImage()
{
    return fromHex("01 01 02 04 08 0c 00 e4 "
                   // internal use
                   "01 73 63 72 61 74 63 68 "
                   // chassis: type 0x17, BCD plus "1234-5.6", "S-1"
                   "01 02 17 44 12 34 b5 c6 c3 53 2d 31 c1 00 00 ac "
                   // board: language 25, minute 0x0F1234, "Acme", "IPMI" in 6 bits, "42", nothing, nothing, "Öé"
                   "01 04 19 34 12 0f c4 41 63 6d 65 83 29 dc a6 c2 34 32 c0 00 c2 d6 e9 c1 00 00 00 00 00 00 00 fb "
                   // product: language 53, two names in UTF-16, "P7", nothing, "SN9"
                   "01 04 35 c4 41 00 e9 00 c4 08 8a 68 56 c2 50 37 c0 c3 53 4e 39 c0 c0 c1 00 00 00 00 00 00 00 dd "
                   // power supply
                   "00 02 18 52 94 ee 12 84 03 1e 05 28 23 90 33 50 46 20 67 2f 3f 14 0e 52 23 32 96 00 0c "
                   // DC output
                   "01 02 0d 44 ac 82 50 fb 14 fb 8c fb 78 00 00 00 dc 05 "
                   // management access: a URL, a unique ID
                   "03 02 0a c7 2a 01 68 74 74 70 3a 2f 2f 73 6d "
                   "03 02 11 81 69 07 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f "
                   // base compatibility, a type that is not known, OEM
                   "04 02 07 2e c5 a2 12 00 0a 02 03 0f "
                   "50 02 02 ef bd 09 08 "
                   "c5 82 05 49 6b a2 12 00 01 02");
}

constexpr std::size_t chassisAt = 16;
constexpr std::size_t boardAt = 32;
constexpr std::size_t recordsAt = 96;

Bytes changed(std::size_t at, std::uint8_t value)
{
    Bytes image = fullImage();
    image.at(at) = value;
    return image;
}

TEST(Fru, EveryAreaOfAFullImage)
{
    const reading what = readExactly("fru", fullImage());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ(18U, checksums(what).size());
    EXPECT_EQ("73 63 72 61 74 63 68", textOf(what, "internal.data"));
    EXPECT_EQ("Rack-mount chassis", textOf(what, "chassis.type"));
    EXPECT_EQ("1234-5.6", textOf(what, "chassis.partNumber"));
    EXPECT_EQ("S-1", textOf(what, "chassis.serialNumber"));
    EXPECT_EQ("(there is none)", textOf(what, "chassis.custom1"));
    EXPECT_EQ("English", textOf(what, "board.language"));
    EXPECT_EQ("1997-11-16 21:40", textOf(what, "board.date"));
    EXPECT_EQ("Acme", textOf(what, "board.manufacturer"));
    EXPECT_EQ("IPMI", textOf(what, "board.productName"));
    EXPECT_EQ("42", textOf(what, "board.serialNumber"));
    EXPECT_EQ("", textOf(what, "board.partNumber"));
    EXPECT_EQ("", textOf(what, "board.fruFileId"));
    EXPECT_EQ("\xC3\x96\xC3\xA9", textOf(what, "board.custom1"));
}

TEST(Fru, TwoByteTextInAnotherLanguageThanEnglish)
{
    const reading what = readExactly("fru", fullImage());
    EXPECT_EQ("Japanese", textOf(what, "product.language"));
    EXPECT_EQ("A\xC3\xA9", textOf(what, "product.manufacturer"));
    EXPECT_EQ("\xE8\xA8\x88\xE5\x99\xA8", textOf(what, "product.name"));
    // part and serial numbers are English in every language
    EXPECT_EQ("P7", textOf(what, "product.partNumber"));
    EXPECT_EQ("SN9", textOf(what, "product.serialNumber"));
}

TEST(Fru, PowerRecords)
{
    const reading what = readExactly("fru", fullImage());
    EXPECT_EQ("750 W", textOf(what, "record.1.capacity"));
    EXPECT_EQ("900 VA", textOf(what, "record.1.peakVa"));
    EXPECT_EQ("30 A", textOf(what, "record.1.inrushCurrent"));
    EXPECT_EQ("5 ms", textOf(what, "record.1.inrushInterval"));
    EXPECT_EQ("90 V", textOf(what, "record.1.lowVoltage1"));
    EXPECT_EQ("132 V", textOf(what, "record.1.highVoltage1"));
    EXPECT_EQ("180 V", textOf(what, "record.1.lowVoltage2"));
    EXPECT_EQ("264 V", textOf(what, "record.1.highVoltage2"));
    EXPECT_EQ("47 Hz", textOf(what, "record.1.lowFrequency"));
    EXPECT_EQ("63 Hz", textOf(what, "record.1.highFrequency"));
    EXPECT_EQ("20 ms", textOf(what, "record.1.dropoutTolerance"));
    EXPECT_EQ("power factor correction, automatic voltage switch, hot swap", textOf(what, "record.1.features"));
    EXPECT_EQ("850 W", textOf(what, "record.1.peakCapacity"));
    EXPECT_EQ("2 s", textOf(what, "record.1.holdUpTime"));
    EXPECT_EQ("3.3 V", textOf(what, "record.1.combinedVoltage1"));
    EXPECT_EQ("5 V", textOf(what, "record.1.combinedVoltage2"));
    EXPECT_EQ("150 W", textOf(what, "record.1.combinedPower"));
    EXPECT_EQ("12 rotations/s", textOf(what, "record.1.tachometerThreshold"));
    EXPECT_EQ("2", textOf(what, "record.2.output"));
    EXPECT_EQ("yes", textOf(what, "record.2.standby"));
    EXPECT_EQ("-12 V", textOf(what, "record.2.nominalVoltage"));
    EXPECT_EQ("-12.6 V", textOf(what, "record.2.negativeDeviation"));
    EXPECT_EQ("-11.4 V", textOf(what, "record.2.positiveDeviation"));
    EXPECT_EQ("120 mV", textOf(what, "record.2.ripple"));
    EXPECT_EQ("1500 mA", textOf(what, "record.2.mostCurrent"));
}

TEST(Fru, PowerRecordMayLeaveItsPeaksOpen)
{
    Bytes image = fullImage();
    const reading before = readExactly("fru", image);
    const node* const peak = findNode(before, "record.1.peakVa");
    ASSERT_NE(nullptr, peak);
    // FFFF, and FF behind it
    std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(peak->offset), 3, std::uint8_t{0xFF});
    const reading what = readExactly("fru", image);
    EXPECT_EQ("not given", textOf(what, "record.1.peakVa"));
    EXPECT_EQ("not given", textOf(what, "record.1.inrushCurrent"));
    EXPECT_EQ("5 ms", textOf(what, "record.1.inrushInterval"));
}

TEST(Fru, OtherRecords)
{
    const reading what = readExactly("fru", fullImage());
    EXPECT_EQ("system management URL", textOf(what, "record.3.accessType"));
    EXPECT_EQ("http://sm", textOf(what, "record.3.text"));
    EXPECT_EQ("system unique ID", textOf(what, "record.4.accessType"));
    EXPECT_EQ("00010203-0405-0607-0809-0a0b0c0d0e0f", textOf(what, "record.4.uniqueId"));
    EXPECT_EQ("4770", textOf(what, "record.5.manufacturer"));
    EXPECT_EQ("0x0A", textOf(what, "record.5.entity"));
    EXPECT_EQ("0F", textOf(what, "record.5.codeMask"));
    EXPECT_EQ("09 08", textOf(what, "record.6.data"));
    EXPECT_EQ(verdict::unknown, findNode(what, "record.6.data")->is);
    EXPECT_EQ("4770", textOf(what, "record.7.manufacturer"));
    EXPECT_EQ("01 02", textOf(what, "record.7.data"));
    EXPECT_EQ("yes", textOf(what, "record.7.isLast"));
}

TEST(Fru, EachSumIsJudgedByItself)
{
    // one bit of the board's manufacturer
    const reading what = readExactly("fru", changed(boardAt + 7, 0x40));
    ASSERT_EQ(1U, damagedNodes(what).size());
    EXPECT_EQ("stored is 0xFB, computed is 0xFC", problemOf(what, "board.checksum"));
    EXPECT_EQ("@cme", textOf(what, "board.manufacturer"));
    const reading record = readExactly("fru", changed(recordsAt + 5, 0xEF));
    ASSERT_EQ(1U, damagedNodes(record).size());
    EXPECT_EQ("stored is 0x52, computed is 0x51", problemOf(record, "record.1.checksum"));
}

TEST(Fru, AnAreaLongerThanTheImageIsDamagedAndItsFieldsAreShown)
{
    const reading what = readExactly("fru", changed(boardAt + 1, 0xFF));
    EXPECT_EQ("it should have 2040 bytes, and there are 177", problemOf(what, "board"));
    EXPECT_EQ("Acme", textOf(what, "board.manufacturer"));
    // where the sum of so long an area would be, nothing is
    EXPECT_EQ("(there is none)", textOf(what, "board.checksum"));
}

TEST(Fru, AnAreaWithoutLengthIsDamaged)
{
    const reading what = readExactly("fru", changed(chassisAt + 1, 0));
    EXPECT_EQ("its length is 0 bytes, and the least is 8", problemOf(what, "chassis"));
    EXPECT_EQ("(there is none)", textOf(what, "chassis.type"));
}

TEST(Fru, AStringLongerThanItsAreaIsDamaged)
{
    const reading what = readExactly("fru", changed(boardAt + 18, 0xFF));
    EXPECT_EQ("its length is 63, and there are 13 bytes before the end of its area",
              problemOf(what, "board.partNumber"));
    EXPECT_EQ("", textOf(what, "board.partNumber"));
    EXPECT_EQ("42", textOf(what, "board.serialNumber"));
}

TEST(Fru, StringsWithoutAnEndAreDamaged)
{
    Bytes image = fullImage();
    // a string of 7 bytes in place of the end, and the sum is its last
    image.at(boardAt + 23) = 0x08;
    const reading what = readExactly("fru", image);
    EXPECT_EQ("there is no byte that ends the strings", problemOf(what, "board.end"));
}

TEST(Fru, ARecordLongerThanTheImageIsDamaged)
{
    // the OEM record is the last of 209 bytes
    const reading what = readExactly("fru", changed(209 - 8, 6));
    EXPECT_EQ("its length is 6, and there are 5 bytes before the end of its area", problemOf(what, "record.7"));
    EXPECT_EQ("(there is none)", textOf(what, "record.7.data"));
    EXPECT_EQ("09 08", textOf(what, "record.6.data"));
}

TEST(Fru, RecordsWithoutALastOneAreDamaged)
{
    Bytes image = fullImage();
    // bit 7 of the OEM record's second byte; its header then sums to 0x80
    image.at(209 - 9) = 0x02;
    image.at(209 - 6) = 0xEB;
    const reading what = readExactly("fru", image);
    ASSERT_EQ(1U, damagedNodes(what).size());
    EXPECT_EQ("its last entry is missing", problemOf(what, "record"));
}

TEST(Fru, AnAreaBehindTheImageIsDamaged)
{
    Bytes image = changed(4, 0x1B);
    image.at(7) = 0xD1;
    const reading what = readExactly("fru", image);
    EXPECT_EQ("it begins 216 bytes behind the start of an area of 209 bytes", problemOf(what, "product"));
}

TEST(Fru, ReservedDigitsOfBcdPlusAreDamagedAndShownAsBytes)
{
    const reading what = readExactly("fru", changed(chassisAt + 4, 0x1D));
    EXPECT_EQ("a digit of its BCD plus text is reserved", problemOf(what, "chassis.partNumber"));
    EXPECT_EQ("1D 34 B5 C6", textOf(what, "chassis.partNumber"));
}

TEST(Fru, IsRecognisedByItsHeaderOrByItsBoardArea)
{
    const auto names = [](const Bytes& image) {
        std::string all;
        for (const format* each : recognise(image)) {
            all += std::string(each->name) + " ";
        }
        return all;
    };
    EXPECT_EQ("fru ", names(fullImage()));
    EXPECT_EQ("fru ", names(changed(7, 0xE5))) << "the header's sum is wrong, the board area is there";
    Bytes image = changed(7, 0xE5);
    image.at(boardAt) = 0x02;
    EXPECT_EQ("", names(image)) << "a board area of another version";
    EXPECT_EQ("", names(changed(0, 0x02)));
    EXPECT_EQ("", names(Bytes(256, 0x00)));
    EXPECT_EQ("", names(Bytes(256, 0xFF)));
    EXPECT_EQ("", names(Bytes{}));
    EXPECT_EQ("", names(fromHex("01 01 02 04 08 0c 00")));
}

TEST(Fru, FieldsOfAMezzanine)
{
    const Bytes image = sharedImage("fru-256-fmcadc2.bin");
    if (image.empty()) {
        GTEST_SKIP() << "the image is not there";
    }
    const reading what = readExactly("fru", image);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ(16U, checksums(what).size());
    EXPECT_EQ("2014-10-09 19:23", textOf(what, "board.date"));
    EXPECT_EQ("Analog Devices", textOf(what, "board.manufacturer"));
    EXPECT_EQ("AD9625 FMC Sync board", textOf(what, "board.productName"));
    EXPECT_EQ("00008", textOf(what, "board.serialNumber"));
    EXPECT_EQ("AD-FMCADC2-EBZ", textOf(what, "board.partNumber"));
    EXPECT_EQ("", textOf(what, "board.fruFileId"));
    EXPECT_EQ("01 30 33 36 30 30 37", textOf(what, "board.custom2"));
    EXPECT_EQ("1.6 V", textOf(what, "record.1.leastVoltage"));
    EXPECT_EQ("750 mA", textOf(what, "record.2.mostCurrent"));
    EXPECT_EQ("4770", textOf(what, "record.7.manufacturer"));
}

TEST(Fru, FieldsOfABoard)
{
    const Bytes image = sharedImage("fru-252-nevis-ce.bin");
    if (image.empty()) {
        GTEST_SKIP() << "the image is not there";
    }
    const reading what = readExactly("fru", image);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("2024-09-09 11:20", textOf(what, "board.date"));
    EXPECT_EQ("ADRV9104 Cus.EVB", textOf(what, "board.productName"));
    EXPECT_EQ("1.71 V", textOf(what, "record.4.leastVoltage"));
    EXPECT_EQ("10 06 DC 46 06 DC 4A 06 DC 4E 06 DC 52 07 DC 56", textOf(what, "record.8.data"));
}

} // namespace
} // namespace kest::contents::test
