#include <algorithm>
#include <gtest/gtest.h>
#include <string_view>

#include "contents/recognise.h"
#include "tests/contents/damage.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

void put(Bytes& image, std::size_t at, std::string_view text)
{
    std::copy(text.begin(), text.end(), image.begin() + static_cast<std::ptrdiff_t>(at));
}

void put(Bytes& image, std::size_t at, const Bytes& bytes)
{
    std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(at));
}

/// A module that nobody made: 100GBASE-LR4, 10 km. The comments name the tables of SFF-8636 revision 2.10a.
Bytes longReachModule()
{
    Bytes image(256, 0x00);
    // lower page, table 6-1: QSFP28, revision 2.8 to 2.10, paged, no interrupt
    put(image, 0, fromHex("11 08 02"));
    // table 6-4, 6-5: receiver 3 without signal; transmitter 1 faulty; voltage below its warning
    put(image, 3, fromHex("04 01 00 00 10"));
    // table 6-6: received power of channel 3 below alarm and warning
    put(image, 9, fromHex("00 50"));
    // table 6-7: 38.5 degrees; 3.2854 V
    put(image, 22, fromHex("26 80"));
    put(image, 26, fromHex("80 56"));
    // table 6-8: received power 1.0, 0.5, 0, 6.5535 mW; bias 40, 41, 0, 42 mA; transmitted power 1.2 mW in each
    put(image, 34, fromHex("27 10 13 88 00 00 ff ff"));
    put(image, 42, fromHex("4e 20 50 14 00 00 52 08"));
    put(image, 50, fromHex("2e e0 2e e0 2e e0 2e e0"));
    // table 6-9: transmitter 4 disabled; power override, classes 5 to 7 enabled; all CDRs on
    put(image, 86, fromHex("08"));
    put(image, 93, fromHex("05"));
    put(image, 98, fromHex("ff"));
    // upper page 00h, table 6-14: QSFP28; power class 4, both CDRs, class 5; LC
    put(image, 128, fromHex("11 cd 07"));
    // table 6-17: bit 7 of byte 131, as byte 192 says; 64B/66B; FF, as byte 222 says
    put(image, 131, fromHex("80"));
    put(image, 139, fromHex("05 ff"));
    // table 6-18, 6-20: 10 km; 1310 nm DFB, cooled
    put(image, 142, fromHex("0a"));
    put(image, 147, fromHex("44"));
    put(image, 148, "EXAMPLE OPTICS  ");
    put(image, 165, fromHex("00 53 00"));
    put(image, 168, "QX-LR4-10       ");
    put(image, 184, "B2");
    // 1302.35 nm is 26047 of 0.05 nm; 1.035 nm is 207 of 0.005 nm; 70 degrees
    put(image, 186, fromHex("65 bf 00 cf 46"));
    // the low byte of the sum of the bytes 128 to 190
    image[191] = 0x0B;
    // table 6-21, 6-22: 100GBASE-LR4; CDR controls, losses of lock; TX_DISABLE, TX_FAULT
    put(image, 192, fromHex("03 00 f0 18"));
    put(image, 196, "XQ0042A         ");
    put(image, 212, "210930  ");
    // table 6-24: temperature, voltage, average received power, transmitted power; 25750 MBd is 103 of 250 MBd
    put(image, 220, fromHex("3c 10 67"));
    // and of the bytes 192 to 222
    image[223] = 0xFD;
    return image;
}

TEST(Sff8636, IsRecognised)
{
    const auto found = recognise(longReachModule());
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("sff8636", found.front()->name);
    for (const std::uint8_t identifier : {std::uint8_t{0x0C}, std::uint8_t{0x0D}}) {
        Bytes image = longReachModule();
        image[0] = identifier;
        image[128] = identifier;
        EXPECT_EQ(1U, recognise(image).size());
    }
}

TEST(Sff8636, PagesOfDifferentIdentifiersAreNoModule)
{
    Bytes image = longReachModule();
    image[128] = 0x0D;
    EXPECT_TRUE(recognise(image).empty());
}

TEST(Sff8636, IdentityOfAModule)
{
    const reading what = readExactly("sff8636", longReachModule());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("QSFP28", textOf(what, "identifier"));
    EXPECT_EQ("EXAMPLE OPTICS", textOf(what, "vendor"));
    EXPECT_EQ("QX-LR4-10", textOf(what, "partNumber"));
    EXPECT_EQ("B2", textOf(what, "revision"));
    EXPECT_EQ("XQ0042A", textOf(what, "serialNumber"));
    EXPECT_EQ("210930", textOf(what, "date"));
    EXPECT_EQ("0x005300", textOf(what, "oui"));
    EXPECT_EQ("0x0B", textOf(what, "baseChecksum"));
    EXPECT_EQ("0xFD", textOf(what, "extendedChecksum"));
}

TEST(Sff8636, PropertiesOfAModule)
{
    const reading what = readExactly("sff8636", longReachModule());
    EXPECT_EQ("4 (3.5 W)", textOf(what, "powerClass"));
    EXPECT_EQ("5 (4.0 W)", textOf(what, "highPowerClass"));
    EXPECT_EQ("CDR of the receiver, CDR of the transmitter", textOf(what, "extendedIdentifier"));
    EXPECT_EQ("LC", textOf(what, "connector"));
    EXPECT_EQ("as byte 192 says", textOf(what, "compliance"));
    EXPECT_EQ("100GBASE-LR4 or 25GBASE-LR", textOf(what, "extendedCompliance"));
    EXPECT_EQ("64B/66B", textOf(what, "encoding"));
    EXPECT_EQ("25750 MBd", textOf(what, "signallingRate"));
    EXPECT_EQ("1310 nm DFB", textOf(what, "technology"));
    EXPECT_EQ("cooled", textOf(what, "technologyFlags"));
    EXPECT_EQ("10 km", textOf(what, "lengthSingleMode"));
    EXPECT_EQ("1302.35 nm", textOf(what, "wavelength"));
    EXPECT_EQ("1.035 nm", textOf(what, "wavelengthTolerance"));
    EXPECT_EQ("70 °C", textOf(what, "caseTemperature"));
    EXPECT_EQ("transmitted power, received power is an average, supply voltage, temperature",
              textOf(what, "diagnosticType"));
}

TEST(Sff8636, StateOfAModule)
{
    const reading what = readExactly("sff8636", longReachModule());
    EXPECT_EQ("SFF-8636 2.8 to 2.10", textOf(what, "documentRevision"));
    EXPECT_EQ("no interrupt", textOf(what, "states"));
    EXPECT_EQ("receiver 3", textOf(what, "lossOfSignal"));
    EXPECT_EQ("transmitter 1", textOf(what, "faults"));
    EXPECT_EQ("low warning", textOf(what, "voltageLimits"));
    EXPECT_EQ("3 low warning, 3 low alarm", textOf(what, "receivePowerLimits"));
    EXPECT_EQ("38.5 °C", textOf(what, "temperature"));
    EXPECT_EQ("3.2854 V", textOf(what, "voltage"));
    EXPECT_EQ("1 mW", textOf(what, "receivePower.channel1"));
    EXPECT_EQ("0.5 mW", textOf(what, "receivePower.channel2"));
    EXPECT_EQ("0 mW", textOf(what, "receivePower.channel3"));
    EXPECT_EQ("6.5535 mW", textOf(what, "receivePower.channel4"));
    EXPECT_EQ("40 mA", textOf(what, "bias.channel1"));
    EXPECT_EQ("42 mA", textOf(what, "bias.channel4"));
    EXPECT_EQ("1.2 mW", textOf(what, "transmitPower.channel4"));
    EXPECT_EQ("4", textOf(what, "transmitDisable"));
    EXPECT_EQ("power override, classes 5 to 7 enabled", textOf(what, "powerControl"));
}

TEST(Sff8636, CopperCableHasAttenuations)
{
    Bytes image = longReachModule();
    // not equalised, 3 m; 4, 6, 8 and 11 dB
    image[142] = 0;
    image[146] = 3;
    image[147] = 0xA0;
    put(image, 186, fromHex("04 06 08 0b"));
    const reading what = readExactly("sff8636", image);
    EXPECT_EQ("copper, not equalised", textOf(what, "technology"));
    EXPECT_EQ("3 m", textOf(what, "lengthCable"));
    EXPECT_EQ("4 dB", textOf(what, "attenuation2G5"));
    EXPECT_EQ("6 dB", textOf(what, "attenuation5G"));
    EXPECT_EQ("8 dB", textOf(what, "attenuation7G"));
    EXPECT_EQ("11 dB", textOf(what, "attenuation12G9"));
    EXPECT_EQ(nullptr, findNode(what, "wavelength"));
}

TEST(Sff8636, LengthsOfMultimodeFibre)
{
    Bytes image = longReachModule();
    put(image, 142, fromHex("00 32 00 00 32 00"));
    const reading what = readExactly("sff8636", image);
    EXPECT_EQ("not given", textOf(what, "lengthSingleMode"));
    EXPECT_EQ("100 m", textOf(what, "lengthOm3"));
    EXPECT_EQ("100 m", textOf(what, "lengthOm4"));
    EXPECT_EQ("850 nm VCSEL", textOf(what, "technology"));
}

TEST(Sff8636, ChangedByteIsFound)
{
    expectBytesGuarded("sff8636", longReachModule(), "baseChecksum", 128, 64);
    expectBytesGuarded("sff8636", longReachModule(), "extendedChecksum", 192, 32);
}

TEST(Sff8636, CutImageIsDamaged) { expectCutsDamaged("sff8636", longReachModule(), 256); }

} // namespace
} // namespace kest::contents::test
