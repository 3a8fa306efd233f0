#include <algorithm>
#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/damage.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

Bytes laptopModule() { return exampleImage("spd-1024-ddr5-M425R1GB4BB0.bin"); }

TEST(Ddr5, IsRecognised)
{
    const auto found = recognise(laptopModule());
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("ddr5", found.front()->name);
}

TEST(Ddr5, IdentityOfAModule)
{
    const reading what = readExactly("ddr5", laptopModule());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("M425R1GB4BB0-CQKOD", textOf(what, "module.partNumber"));
    EXPECT_EQ("bank 1, code 0xCE (Samsung)", textOf(what, "module.manufacturer"));
    EXPECT_EQ("bank 1, code 0xCE (Samsung)", textOf(what, "module.dramManufacturer"));
    EXPECT_EQ("0x00000000", textOf(what, "module.serialNumber"));
    EXPECT_EQ("0x95", textOf(what, "module.dramStepping"));
    EXPECT_EQ("0xD109", textOf(what, "crc"));
}

TEST(Ddr5, SerialNumberAndDate)
{
    Bytes image = laptopModule();
    image[515] = 0x23;
    image[516] = 0x07;
    image[517] = 0x12;
    image[520] = 0x34;
    const reading what = readExactly("ddr5", image);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("0x12000034", textOf(what, "module.serialNumber"));
    EXPECT_EQ("2023 week 07", textOf(what, "module.date"));
}

TEST(Ddr5, GeometryOfAModule)
{
    const reading what = readExactly("ddr5", laptopModule());
    // 30 10 12 03 04 00 40 42 00
    EXPECT_EQ("1024", textOf(what, "bytesTotal"));
    EXPECT_EQ("0", textOf(what, "betaLevel"));
    EXPECT_EQ("1.0", textOf(what, "revision"));
    EXPECT_EQ("DDR5", textOf(what, "memoryType"));
    EXPECT_EQ("SO-DIMM", textOf(what, "moduleType"));
    EXPECT_EQ("16 Gb", textOf(what, "sdram.density"));
    EXPECT_EQ("1 die, monolithic", textOf(what, "sdram.package"));
    EXPECT_EQ("16", textOf(what, "sdram.rowBits"));
    EXPECT_EQ("10", textOf(what, "sdram.columnBits"));
    EXPECT_EQ("16 bits", textOf(what, "sdram.deviceWidth"));
    EXPECT_EQ("4", textOf(what, "sdram.bankGroups"));
    EXPECT_EQ("4", textOf(what, "sdram.banks"));
    // 16 Gb * 32 / 16 * 2
    EXPECT_EQ("8192 MiB", textOf(what, "capacity"));
    EXPECT_EQ("none", textOf(what, "secondSdram.density"));
    EXPECT_EQ(nullptr, findNode(what, "secondSdram.rowBits"));
    EXPECT_EQ("1.1 V", textOf(what, "vdd"));
    EXPECT_EQ("1.1 V", textOf(what, "vddq"));
    EXPECT_EQ("1.8 V", textOf(what, "vpp"));
}

TEST(Ddr5, TimesOfAModule)
{
    const reading what = readExactly("ddr5", laptopModule());
    // 0x01A0, 0x03F2 ps; 7A is 22, 26, 28, 30, 32 and 0D is 36, 40, 42
    EXPECT_EQ("0.416 ns", textOf(what, "tCKmin"));
    EXPECT_EQ("1.01 ns", textOf(what, "tCKmax"));
    EXPECT_EQ("22, 26, 28, 30, 32, 36, 40, 42", textOf(what, "casLatencies"));
    EXPECT_EQ("16 ns", textOf(what, "tAAmin"));
    EXPECT_EQ("16 ns", textOf(what, "tRCDmin"));
    EXPECT_EQ("16 ns", textOf(what, "tRPmin"));
    EXPECT_EQ("32 ns", textOf(what, "tRASmin"));
    EXPECT_EQ("48 ns", textOf(what, "tRCmin"));
    EXPECT_EQ("30 ns", textOf(what, "tWRmin"));
    EXPECT_EQ("295 ns", textOf(what, "tRFC1min"));
    EXPECT_EQ("160 ns", textOf(what, "tRFC2min"));
    EXPECT_EQ("130 ns", textOf(what, "tRFCsbmin"));
}

TEST(Ddr5, TimesThatAreLimitedInClocks)
{
    const reading what = readExactly("ddr5", laptopModule());
    EXPECT_EQ("5 ns", textOf(what, "tRRDL"));
    EXPECT_EQ("8 clocks", textOf(what, "tRRDLClocks"));
    EXPECT_EQ("20 ns", textOf(what, "tCCDLWR"));
    EXPECT_EQ("32 clocks", textOf(what, "tCCDLWRClocks"));
    EXPECT_EQ("10 ns", textOf(what, "tCCDLWR2"));
    EXPECT_EQ("16.666 ns", textOf(what, "tFAW"));
    EXPECT_EQ("40 clocks", textOf(what, "tFAWClocks"));
    EXPECT_EQ("10 ns", textOf(what, "tCCDLWTR"));
    EXPECT_EQ("2.5 ns", textOf(what, "tCCDSWTR"));
    EXPECT_EQ("4 clocks", textOf(what, "tCCDSWTRClocks"));
    EXPECT_EQ("7.5 ns", textOf(what, "tRTP"));
    EXPECT_EQ("12 clocks", textOf(what, "tRTPClocks"));
}

TEST(Ddr5, PartsOnAModule)
{
    const reading what = readExactly("ddr5", laptopModule());
    EXPECT_EQ("bank 1, code 0xB3 (IDT)", textOf(what, "common.hub.manufacturer"));
    EXPECT_EQ("yes", textOf(what, "common.hub.installed"));
    EXPECT_EQ("SPD5118", textOf(what, "common.hub.type"));
    EXPECT_EQ("2.1", textOf(what, "common.hub.revision"));
    EXPECT_EQ("PMIC5100", textOf(what, "common.power.1.type"));
    EXPECT_EQ("2.0", textOf(what, "common.power.1.revision"));
    EXPECT_EQ("no", textOf(what, "common.power.2.installed"));
    EXPECT_EQ("no", textOf(what, "common.power.3.installed"));
    EXPECT_EQ("no", textOf(what, "common.sensors.installed"));
}

TEST(Ddr5, ShapeOfAModule)
{
    const reading what = readExactly("ddr5", laptopModule());
    // 0F 01 02 81 00 22
    EXPECT_EQ("30 mm", textOf(what, "common.height"));
    EXPECT_EQ("2 mm", textOf(what, "common.thicknessFront"));
    EXPECT_EQ("1 mm", textOf(what, "common.thicknessBack"));
    EXPECT_EQ("C", textOf(what, "common.rawCard"));
    EXPECT_EQ("XT, 0 to 95 °C", textOf(what, "common.temperatures"));
    EXPECT_EQ("no", textOf(what, "common.heatSpreader"));
    EXPECT_EQ("1", textOf(what, "common.dramRows"));
    EXPECT_EQ("1", textOf(what, "common.ranks"));
    EXPECT_EQ("2", textOf(what, "common.subChannels"));
    EXPECT_EQ("32 bits", textOf(what, "common.busWidth"));
    EXPECT_EQ("none", textOf(what, "common.eccWidth"));
}

TEST(Ddr5, RegisterOfARegisteredModule)
{
    Bytes image = laptopModule();
    image[3] = 0x01;
    image[240] = 0x86;
    image[241] = 0x32;
    image[242] = 0x80;
    image[243] = 0x13;
    const reading what = readExactly("ddr5", image);
    EXPECT_EQ("RDIMM", textOf(what, "moduleType"));
    EXPECT_EQ("yes", textOf(what, "common.register.installed"));
    EXPECT_EQ("bank 7, code 0x32 (Montage)", textOf(what, "common.register.manufacturer"));
    EXPECT_EQ("0x0", textOf(what, "common.register.type"));
    EXPECT_EQ("1.3", textOf(what, "common.register.revision"));
    EXPECT_EQ("no", textOf(what, "common.buffer.installed"));
}

TEST(Ddr5, ProfilesBehindTheModule)
{
    Bytes image = laptopModule();
    std::fill_n(image.begin() + 640, 384, std::uint8_t{0xFF});
    const reading without = readExactly("ddr5", image);
    EXPECT_EQ("none", textOf(without, "profiles"));
    EXPECT_EQ("none", textOf(without, "furtherProfiles"));
    const Bytes further = fromHex("45 58 50 4f");
    image[640] = 0x0C;
    image[641] = 0x4A;
    std::copy(further.begin(), further.end(), image.begin() + 832);
    const reading with = readExactly("ddr5", image);
    EXPECT_EQ("XMP", textOf(with, "profiles"));
    EXPECT_EQ("EXPO", textOf(with, "furtherProfiles"));
    image[641] = 0x4B;
    const reading other = readExactly("ddr5", image);
    EXPECT_EQ("0x0C4B", textOf(other, "profiles"));
    EXPECT_TRUE(isWhole(other));
}

TEST(Ddr5, ChangedByteIsFound) { expectBytesGuarded("ddr5", laptopModule(), "crc", 0, 512); }

TEST(Ddr5, CutImageIsDamaged) { expectCutsDamaged("ddr5", laptopModule(), 1024); }

} // namespace
} // namespace kest::contents::test
