#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/fruimage.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

TEST(Fru, EveryAreaOfAFullImage)
{
    const reading what = readExactly("fru", fullFru());
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

TEST(Fru, AreasThatAreNotThere)
{
    // the header alone: version 1, a board area at 8, nothing else
    const reading what = readExactly("fru", fromHex("01 00 00 01 00 00 00 fe"));
    EXPECT_EQ("none", textOf(what, "header.internalOffset"));
    EXPECT_EQ("none", textOf(what, "header.chassisOffset"));
    EXPECT_EQ("8 bytes", textOf(what, "header.boardOffset"));
    EXPECT_EQ("none", textOf(what, "header.productOffset"));
    EXPECT_EQ("none", textOf(what, "header.recordOffset"));
}

TEST(Fru, TwoByteTextInAnotherLanguageThanEnglish)
{
    const reading what = readExactly("fru", fullFru());
    EXPECT_EQ("Japanese", textOf(what, "product.language"));
    EXPECT_EQ("A\xC3\xA9", textOf(what, "product.manufacturer"));
    EXPECT_EQ("\xE8\xA8\x88\xE5\x99\xA8", textOf(what, "product.name"));
    // part and serial numbers are English in every language
    EXPECT_EQ("P7", textOf(what, "product.partNumber"));
    EXPECT_EQ("SN9", textOf(what, "product.serialNumber"));
}

TEST(Fru, PowerRecords)
{
    const reading what = readExactly("fru", fullFru());
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
    Bytes image = fullFru();
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
    const reading what = readExactly("fru", fullFru());
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

TEST(Fru, IsRecognisedByItsHeaderOrByItsBoardArea)
{
    const auto names = [](const Bytes& image) {
        std::string all;
        for (const format* each : recognise(image)) {
            all += std::string(each->name) + " ";
        }
        return all;
    };
    EXPECT_EQ("fru ", names(fullFru()));
    EXPECT_EQ("fru ", names(changedFru(7, 0xE5))) << "the header's sum is wrong, the board area is there";
    Bytes image = changedFru(7, 0xE5);
    image.at(fruBoardAt) = 0x02;
    EXPECT_EQ("", names(image)) << "a board area of another version";
    EXPECT_EQ("", names(changedFru(0, 0x02)));
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
