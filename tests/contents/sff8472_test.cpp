#include <algorithm>
#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/damage.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

constexpr std::size_t addressLength = 256;

Bytes dwdmModule() { return exampleImage("sff-512-FS-DWDM-SFP10G-80.bin"); }

TEST(Sff8472, IsRecognised)
{
    const auto found = recognise(dwdmModule());
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("sff8472", found.front()->name);
}

TEST(Sff8472, IdentityOfAModule)
{
    const reading what = readExactly("sff8472", dwdmModule());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("SFP, SFP+, SFP28", textOf(what, "identifier"));
    EXPECT_EQ("FIBERSTORE", textOf(what, "vendor"));
    EXPECT_EQ("DWDM-SFP10G-80", textOf(what, "partNumber"));
    EXPECT_EQ("0001", textOf(what, "revision"));
    EXPECT_EQ("D87C3000362", textOf(what, "serialNumber"));
    EXPECT_EQ("180103", textOf(what, "date"));
    EXPECT_EQ("0x00000E", textOf(what, "oui"));
    EXPECT_EQ("0x47", textOf(what, "baseChecksum"));
    EXPECT_EQ("0xDC", textOf(what, "extendedChecksum"));
}

TEST(Sff8472, PropertiesOfAModule)
{
    const reading what = readExactly("sff8472", dwdmModule());
    EXPECT_EQ("serial interface alone", textOf(what, "extendedIdentifier"));
    EXPECT_EQ("LC", textOf(what, "connector"));
    EXPECT_EQ("none", textOf(what, "compliance"));
    EXPECT_EQ("64B/66B", textOf(what, "encoding"));
    // 6F: 111 of 100 MBd
    EXPECT_EQ("11100 MBd", textOf(what, "signallingRate"));
    EXPECT_EQ("80 km", textOf(what, "lengthSingleModeKm"));
    EXPECT_EQ("not given", textOf(what, "lengthOm3"));
    // 05 FD
    EXPECT_EQ("1533 nm", textOf(what, "wavelength"));
    // 05 1A
    EXPECT_EQ("loss of signal, TX_FAULT, TX_DISABLE, linear receiver output, cooled", textOf(what, "options"));
    // 68, F0, 04
    EXPECT_EQ("received power is an average, calibrated internally, diagnostics", textOf(what, "diagnosticType"));
    EXPECT_EQ("soft RX_LOS, soft TX_FAULT, soft TX_DISABLE, alarm and warning flags", textOf(what, "enhancedOptions"));
    EXPECT_EQ("10.4", textOf(what, "documentRevision"));
}

TEST(Sff8472, ValuesOfTheDiagnostics)
{
    const reading what = readExactly("sff8472", dwdmModule());
    // 21A5 of 1/256, 82C7 of 100 uV, 83B5 of 2 uA, 2B61 and 03BC of 0.1 uW
    EXPECT_EQ("33.644531 °C", textOf(what, "diagnostics.temperature"));
    EXPECT_EQ("3.3479 V", textOf(what, "diagnostics.voltage"));
    EXPECT_EQ("67.434 mA", textOf(what, "diagnostics.bias"));
    EXPECT_EQ("1.1105 mW", textOf(what, "diagnostics.transmitPower"));
    EXPECT_EQ("0.0956 mW", textOf(what, "diagnostics.receivePower"));
    EXPECT_EQ("none", textOf(what, "diagnostics.alarms"));
    EXPECT_EQ("soft RS(0), RS(0), RS(1)", textOf(what, "diagnostics.states"));
    EXPECT_EQ("0x22", textOf(what, "diagnostics.checksum"));
    const node* const temperature = findNode(what, "diagnostics.temperature");
    ASSERT_NE(nullptr, temperature);
    EXPECT_EQ(352U, temperature->offset);
}

TEST(Sff8472, ThresholdsOfTheDiagnostics)
{
    const reading what = readExactly("sff8472", dwdmModule());
    EXPECT_EQ("75 °C", textOf(what, "diagnostics.thresholds.temperature.highAlarm"));
    EXPECT_EQ("-5 °C", textOf(what, "diagnostics.thresholds.temperature.lowAlarm"));
    EXPECT_EQ("70 °C", textOf(what, "diagnostics.thresholds.temperature.highWarning"));
    EXPECT_EQ("0 °C", textOf(what, "diagnostics.thresholds.temperature.lowWarning"));
    EXPECT_EQ("3.6 V", textOf(what, "diagnostics.thresholds.voltage.highAlarm"));
    EXPECT_EQ("3 V", textOf(what, "diagnostics.thresholds.voltage.lowAlarm"));
    EXPECT_EQ("130 mA", textOf(what, "diagnostics.thresholds.bias.highAlarm"));
    EXPECT_EQ("1 mA", textOf(what, "diagnostics.thresholds.bias.lowWarning"));
    EXPECT_EQ("5.6234 mW", textOf(what, "diagnostics.thresholds.transmitPower.highAlarm"));
    EXPECT_EQ("1 mW", textOf(what, "diagnostics.thresholds.transmitPower.lowWarning"));
    EXPECT_EQ("0.5012 mW", textOf(what, "diagnostics.thresholds.receivePower.highAlarm"));
    EXPECT_EQ("0.0025 mW", textOf(what, "diagnostics.thresholds.receivePower.lowAlarm"));
}

TEST(Sff8472, CalibrationOfTheDiagnostics)
{
    Bytes image = dwdmModule();
    // 0.5, slope 1 + 128/256, offset -2
    image[addressLength + 68] = 0x3F;
    image[addressLength + 69] = 0x00;
    image[addressLength + 77] = 0x80;
    image[addressLength + 86] = 0xFF;
    image[addressLength + 87] = 0xFE;
    const reading what = readExactly("sff8472", image);
    EXPECT_EQ("0.5", textOf(what, "diagnostics.calibration.receivePower1"));
    EXPECT_EQ("0", textOf(what, "diagnostics.calibration.receivePower4"));
    EXPECT_EQ("1.5", textOf(what, "diagnostics.calibration.biasSlope"));
    EXPECT_EQ("1", textOf(what, "diagnostics.calibration.voltageSlope"));
    EXPECT_EQ("-2", textOf(what, "diagnostics.calibration.temperatureOffset"));
}

TEST(Sff8472, NegativeTemperature)
{
    Bytes image = dwdmModule();
    image[addressLength + 96] = 0xF6;
    image[addressLength + 97] = 0x80;
    EXPECT_EQ("-9.5 °C", textOf(readExactly("sff8472", image), "diagnostics.temperature"));
}

TEST(Sff8472, ValuesForExternalCalibrationHaveNoUnits)
{
    Bytes image = dwdmModule();
    image[92] = 0x58;
    const reading what = readExactly("sff8472", image);
    EXPECT_EQ("received power is an average, calibrated externally, diagnostics", textOf(what, "diagnosticType"));
    EXPECT_EQ(nullptr, findNode(what, "diagnostics.temperature"));
    EXPECT_EQ(nullptr, findNode(what, "diagnostics.thresholds"));
    EXPECT_EQ("21 A5 82 C7 83 B5 2B 61 03 BC", textOf(what, "diagnostics.counts"));
}

TEST(Sff8472, FastModuleGivesItsRateInByte66)
{
    Bytes image = dwdmModule();
    // 103 of 250 MBd, +- 2 %
    image[12] = 0xFF;
    image[66] = 103;
    image[67] = 2;
    const reading what = readExactly("sff8472", image);
    EXPECT_EQ("25750 MBd", textOf(what, "signallingRate"));
    EXPECT_EQ("2 %", textOf(what, "rateRange"));
    EXPECT_EQ(nullptr, findNode(what, "rateAbove"));
}

TEST(Sff8472, PassiveCableHasNoWavelength)
{
    Bytes image = dwdmModule();
    image[8] = 0x04;
    image[18] = 3;
    const reading what = readExactly("sff8472", image);
    EXPECT_EQ("passive cable", textOf(what, "compliance"));
    EXPECT_EQ("3 m", textOf(what, "lengthCable"));
    EXPECT_EQ(nullptr, findNode(what, "wavelength"));
    EXPECT_EQ("05 FD", textOf(what, "cableCompliance"));
}

TEST(Sff8472, LengthsBeyondTheirBytes)
{
    Bytes image = dwdmModule();
    std::fill_n(image.begin() + 14, 6, std::uint8_t{0xFF});
    const reading fibre = readExactly("sff8472", image);
    EXPECT_EQ("more than 254 km", textOf(fibre, "lengthSingleModeKm"));
    EXPECT_EQ("more than 25400 m", textOf(fibre, "lengthSingleMode"));
    EXPECT_EQ("more than 2540 m", textOf(fibre, "lengthOm2"));
    EXPECT_EQ("more than 2540 m", textOf(fibre, "lengthOm1"));
    EXPECT_EQ("more than 2540 m", textOf(fibre, "lengthOm4"));
    EXPECT_EQ("more than 2540 m", textOf(fibre, "lengthOm3"));
    image[8] = 0x04;
    const reading cable = readExactly("sff8472", image);
    EXPECT_EQ("more than 254 m", textOf(cable, "lengthCable"));
    EXPECT_EQ("0xFF", textOf(cable, "lengthCableCode"));
    EXPECT_EQ(nullptr, findNode(cable, "lengthOm3"));
}

TEST(Sff8472, RateOfZeroIsNotGiven)
{
    Bytes image = dwdmModule();
    image[12] = 0;
    EXPECT_EQ("not given", textOf(readExactly("sff8472", image), "signallingRate"));
}

TEST(Sff8472, Byte62IsASpeedOnlyWhenByte10SaysSo)
{
    Bytes image = dwdmModule();
    const reading without = readExactly("sff8472", image);
    EXPECT_EQ(nullptr, findNode(without, "fibreChannelSpeed2"));
    EXPECT_EQ("2F", textOf(without, "other.at62"));
    image[10] = 0x02;
    const reading with = readExactly("sff8472", image);
    EXPECT_EQ("as byte 62 says", textOf(with, "compliance"));
    EXPECT_EQ("0x2F", textOf(with, "fibreChannelSpeed2"));
    EXPECT_EQ(nullptr, findNode(with, "other.at62"));
}

TEST(Sff8472, PowerLevelsAreOptions)
{
    Bytes image = dwdmModule();
    image[64] = 0x22;
    image[65] = 0x00;
    EXPECT_EQ("power level 2, power level 3", textOf(readExactly("sff8472", image), "options"));
}

TEST(Sff8472, ExtendedCompliance)
{
    Bytes image = dwdmModule();
    image[36] = 0x27;
    EXPECT_EQ("100GBASE-LR1", textOf(readExactly("sff8472", image), "extendedCompliance"));
    image[36] = 0x45;
    EXPECT_EQ("50GBASE-LR", textOf(readExactly("sff8472", image), "extendedCompliance"));
}

TEST(Sff8472, FirstAddressAloneIsWhole)
{
    Bytes image = dwdmModule();
    image.resize(addressLength);
    const reading what = readExactly("sff8472", image);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("D87C3000362", textOf(what, "serialNumber"));
    EXPECT_EQ(nullptr, findNode(what, "diagnostics"));
}

TEST(Sff8472, BytesBehindAModuleWithoutDiagnosticsAreUnknown)
{
    Bytes image = dwdmModule();
    image[92] = 0x00;
    const reading what = readExactly("sff8472", image);
    EXPECT_EQ(nullptr, findNode(what, "diagnostics"));
    const node* const rest = findNode(what, "other.at128");
    ASSERT_NE(nullptr, rest);
    EXPECT_EQ(verdict::unknown, rest->is);
    EXPECT_EQ(384U, rest->length);
}

TEST(Sff8472, ChangedByteIsFound)
{
    expectBytesGuarded("sff8472", dwdmModule(), "baseChecksum", 0, 64);
    expectBytesGuarded("sff8472", dwdmModule(), "extendedChecksum", 64, 32);
    expectBytesGuarded("sff8472", dwdmModule(), "diagnostics.checksum", addressLength, 96);
}

TEST(Sff8472, CutImageIsDamaged)
{
    Bytes image = dwdmModule();
    expectCutsDamaged("sff8472", {image.begin(), image.begin() + 128}, 128);
    for (std::size_t length = 2 * addressLength - 1; length > addressLength; --length) {
        image.resize(length);
        EXPECT_FALSE(isWhole(readExactly("sff8472", image))) << length;
    }
}

} // namespace
} // namespace kest::contents::test
