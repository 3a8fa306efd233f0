#include <algorithm>
#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/damage.h"
#include "tests/contents/images.h"
#include "tests/contents/sff8636image.h"

namespace kest::contents::test
{
namespace
{

void put(Bytes& image, std::size_t at, const Bytes& bytes)
{
    std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(at));
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

TEST(Sff8636, LengthsBeyondTheirBytes)
{
    Bytes image = longReachModule();
    put(image, 142, fromHex("ff ff ff ff ff 00"));
    const reading fibre = readExactly("sff8636", image);
    EXPECT_EQ("more than 254 km", textOf(fibre, "lengthSingleMode"));
    EXPECT_EQ("more than 508 m", textOf(fibre, "lengthOm3"));
    EXPECT_EQ("more than 254 m", textOf(fibre, "lengthOm2"));
    EXPECT_EQ("more than 254 m", textOf(fibre, "lengthOm1"));
    EXPECT_EQ("more than 508 m", textOf(fibre, "lengthOm4"));
    image[147] = 0xA0;
    EXPECT_EQ("more than 254 m", textOf(readExactly("sff8636", image), "lengthCable"));
}

TEST(Sff8636, ZerosThatStandForSomethingElse)
{
    Bytes image = longReachModule();
    // no rate; the standard's highest temperature; extended Fibre Channel speeds
    image[140] = 0;
    image[190] = 0;
    put(image, 131, fromHex("00 00 00 00 00 00 00 02"));
    const reading what = readExactly("sff8636", image);
    EXPECT_EQ("not given", textOf(what, "signallingRate"));
    EXPECT_EQ("70 °C, the standard's", textOf(what, "caseTemperature"));
    EXPECT_EQ("FC extended", textOf(what, "compliance"));
}

TEST(Sff8636, ChangedByteIsFound)
{
    expectBytesGuarded("sff8636", longReachModule(), "baseChecksum", 128, 64);
    expectBytesGuarded("sff8636", longReachModule(), "extendedChecksum", 192, 32);
}

TEST(Sff8636, CutImageIsDamaged) { expectCutsDamaged("sff8636", longReachModule(), 256); }

} // namespace
} // namespace kest::contents::test
