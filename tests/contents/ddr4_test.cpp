#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/damage.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

Bytes laptopModule() { return exampleImage("spd-512-ddr4-M471A1G44AB0.bin"); }

Bytes recordAt(std::size_t at)
{
    const Bytes all = exampleImage("composite-65536-spd-records.bin");
    return {all.begin() + static_cast<std::ptrdiff_t>(at), all.begin() + static_cast<std::ptrdiff_t>(at + 512)};
}

TEST(Ddr4, IsRecognised)
{
    const auto found = recognise(laptopModule());
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("ddr4", found.front()->name);
}

TEST(Ddr4, IdentityOfAModule)
{
    const reading what = readExactly("ddr4", laptopModule());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("M471A1G44AB0-CWE", textOf(what, "module.partNumber"));
    EXPECT_EQ("bank 1, code 0xCE (Samsung)", textOf(what, "module.manufacturer"));
    EXPECT_EQ("bank 1, code 0xCE (Samsung)", textOf(what, "module.dramManufacturer"));
    EXPECT_EQ("0x00000000", textOf(what, "module.serialNumber"));
    EXPECT_EQ("not given", textOf(what, "module.date"));
    EXPECT_EQ("0xF5E8", textOf(what, "crc"));
    EXPECT_EQ("0x08DB", textOf(what, "specific.crc"));
}

TEST(Ddr4, SerialNumberAndDate)
{
    Bytes image = laptopModule();
    image[322] = 0x02;
    image[323] = 0x20;
    image[324] = 0x52;
    image[325] = 0x40;
    image[328] = 0xA1;
    const reading what = readExactly("ddr4", image);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("0x400000A1", textOf(what, "module.serialNumber"));
    EXPECT_EQ("2020 week 52", textOf(what, "module.date"));
    EXPECT_EQ("0x02", textOf(what, "module.location"));
}

TEST(Ddr4, GeometryOfAModule)
{
    const reading what = readExactly("ddr4", laptopModule());
    // 23 11 0C 03 46 29 00 08 00 60 00 03 02 03
    EXPECT_EQ("384", textOf(what, "bytesUsed"));
    EXPECT_EQ("512", textOf(what, "bytesTotal"));
    EXPECT_EQ("1.1", textOf(what, "revision"));
    EXPECT_EQ("DDR4", textOf(what, "memoryType"));
    EXPECT_EQ("SO-DIMM", textOf(what, "moduleType"));
    EXPECT_EQ("none", textOf(what, "hybrid"));
    EXPECT_EQ("no", textOf(what, "isHybrid"));
    EXPECT_EQ("16 Gb", textOf(what, "density"));
    EXPECT_EQ("2", textOf(what, "bankGroups"));
    EXPECT_EQ("4", textOf(what, "banks"));
    EXPECT_EQ("17", textOf(what, "rowBits"));
    EXPECT_EQ("10", textOf(what, "columnBits"));
    EXPECT_EQ("monolithic", textOf(what, "package"));
    EXPECT_EQ("1", textOf(what, "dies"));
    EXPECT_EQ("unlimited", textOf(what, "mostActivates"));
    EXPECT_EQ("one row for each bank group", textOf(what, "packageRepair"));
    EXPECT_EQ("yes", textOf(what, "softPackageRepair"));
    EXPECT_EQ("operable at 1.2 V, endurant at 1.2 V", textOf(what, "voltage"));
    EXPECT_EQ("16 bits", textOf(what, "deviceWidth"));
    EXPECT_EQ("1", textOf(what, "ranks"));
    EXPECT_EQ("64 bits", textOf(what, "busWidth"));
    // 16 Gb * 64 / 16 * 1
    EXPECT_EQ("8192 MiB", textOf(what, "capacity"));
    EXPECT_EQ("no", textOf(what, "thermalSensor"));
}

TEST(Ddr4, TimesOfAModule)
{
    const reading what = readExactly("ddr4", laptopModule());
    // steps of 125 ps, corrected by the bytes 117 to 125: 9C is -100 ps, B5 is -75 ps, E7 is -25 ps
    EXPECT_EQ("0.625 ns", textOf(what, "tCKmin"));
    EXPECT_EQ("1.6 ns", textOf(what, "tCKmax"));
    EXPECT_EQ("10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23", textOf(what, "casLatencies"));
    EXPECT_EQ("13.75 ns", textOf(what, "tAAmin"));
    EXPECT_EQ("13.75 ns", textOf(what, "tRCDmin"));
    EXPECT_EQ("13.75 ns", textOf(what, "tRPmin"));
    EXPECT_EQ("32 ns", textOf(what, "tRASmin"));
    EXPECT_EQ("45.75 ns", textOf(what, "tRCmin"));
    EXPECT_EQ("350 ns", textOf(what, "tRFC1min"));
    EXPECT_EQ("260 ns", textOf(what, "tRFC2min"));
    EXPECT_EQ("160 ns", textOf(what, "tRFC4min"));
    EXPECT_EQ("30 ns", textOf(what, "tFAWmin"));
    EXPECT_EQ("5.3 ns", textOf(what, "tRRDSmin"));
    EXPECT_EQ("6.4 ns", textOf(what, "tRRDLmin"));
    EXPECT_EQ("5 ns", textOf(what, "tCCDLmin"));
    EXPECT_EQ("15 ns", textOf(what, "tWRmin"));
    EXPECT_EQ("2.5 ns", textOf(what, "tWTRSmin"));
    EXPECT_EQ("7.5 ns", textOf(what, "tWTRLmin"));
}

TEST(Ddr4, CapacityOfStackedAndOfMixedRanks)
{
    Bytes image = laptopModule();
    // 3DS of 4 dies of 16 Gb, 4 bits wide, 2 package ranks: 16 Gb * 4 * 64 / 4 * 2
    image[6] = 0xB2;
    image[12] = 0x08;
    EXPECT_EQ("262144 MiB", textOf(readExactly("ddr4", image), "capacity"));
    image[12] = 0x48;
    EXPECT_EQ(nullptr, findNode(readExactly("ddr4", image), "capacity"));
}

TEST(Ddr4, HigherRangeOfLatencies)
{
    Bytes image = laptopModule();
    // bit 7 of byte 23; bit 3 of byte 20 is then 23 + 3
    image[20] = 0x08;
    image[21] = 0;
    image[22] = 0;
    image[23] = 0x80;
    EXPECT_EQ("26", textOf(readExactly("ddr4", image), "casLatencies"));
}

TEST(Ddr4, ReservedBitsAreShown)
{
    Bytes image = laptopModule();
    // bit 4 of byte 9, whose bits 5 to 7 have a meaning; bits 4 to 7 of byte 36, whose others belong to tFAW
    image[9] = 0x70;
    image[36] = 0xA0;
    const reading what = readExactly("ddr4", image);
    EXPECT_EQ("0x10", textOf(what, "other.bitsAt9"));
    EXPECT_EQ("0xA0", textOf(what, "other.bitsAt36"));
    EXPECT_EQ(nullptr, findNode(what, "other.bitsAt27"));
    EXPECT_EQ(nullptr, findNode(readExactly("ddr4", laptopModule()), "other.bitsAt9"));
}

TEST(Ddr4, TimesOfAnUnknownTimebaseAreBytes)
{
    Bytes image = laptopModule();
    image[17] = 0x04;
    const reading what = readExactly("ddr4", image);
    EXPECT_EQ(nullptr, findNode(what, "tCKmin"));
    EXPECT_EQ("0x1 ps", textOf(what, "mediumTimebase"));
    EXPECT_EQ("05 0D F8 FF 01", textOf(what, "other.at18").substr(0, 14));
}

TEST(Ddr4, BytesOfAModuleWithoutRegister)
{
    const reading what = readExactly("ddr4", laptopModule());
    // 0F 11 02 00
    EXPECT_EQ("30 mm", textOf(what, "specific.height"));
    EXPECT_EQ("2 mm", textOf(what, "specific.thicknessFront"));
    EXPECT_EQ("2 mm", textOf(what, "specific.thicknessBack"));
    EXPECT_EQ("C", textOf(what, "specific.rawCard"));
    EXPECT_EQ("0", textOf(what, "specific.rawCardRevision"));
    EXPECT_EQ("standard", textOf(what, "specific.addressMapping"));
    EXPECT_EQ(nullptr, findNode(what, "specific.registers"));
}

TEST(Ddr4, RawCardsBeyondTheFirst)
{
    Bytes image = laptopModule();
    // revision 3 and an extension of 2; the fourth card behind AL
    image[128] = 0x4F;
    image[130] = 0xE3;
    const reading what = readExactly("ddr4", image);
    EXPECT_EQ("30 mm", textOf(what, "specific.height"));
    EXPECT_EQ("AR", textOf(what, "specific.rawCard"));
    EXPECT_EQ("5", textOf(what, "specific.rawCardRevision"));
    EXPECT_EQ("", problemOf(what, "specific.shortRevision"));
    // an extension belongs to revision 3 alone; the last card
    image[130] = 0xBE;
    const reading other = readExactly("ddr4", image);
    EXPECT_EQ("CB", textOf(other, "specific.rawCard"));
    EXPECT_EQ("it is 1, and allowed is 3 alone", problemOf(other, "specific.shortRevision"));
}

TEST(Ddr4, RegisterOfARegisteredModule)
{
    Bytes image = laptopModule();
    image[3] = 0x01;
    image[131] = 0x19; // register type 1, two rows of DRAMs, one register
    image[132] = 0x80;
    image[133] = 0x86;
    image[134] = 0x32;
    image[135] = 0x81;
    image[136] = 0x01;
    const reading what = readExactly("ddr4", image);
    EXPECT_EQ("RDIMM", textOf(what, "moduleType"));
    EXPECT_EQ("1", textOf(what, "specific.registers"));
    EXPECT_EQ("2", textOf(what, "specific.dramRows"));
    EXPECT_EQ("DDR4RCD02", textOf(what, "specific.registerType"));
    EXPECT_EQ("yes", textOf(what, "specific.heatSpreader"));
    EXPECT_EQ("bank 7, code 0x32 (Montage)", textOf(what, "specific.registerManufacturer"));
    EXPECT_EQ("0x81", textOf(what, "specific.registerRevision"));
    EXPECT_EQ("mirrored", textOf(what, "specific.addressMapping"));
}

TEST(Ddr4, ChangedByteIsFound)
{
    expectBytesGuarded("ddr4", laptopModule(), "crc", 0, 128);
    expectBytesGuarded("ddr4", laptopModule(), "specific.crc", 128, 128);
}

TEST(Ddr4, CutImageIsDamaged) { expectCutsDamaged("ddr4", laptopModule(), 512); }

TEST(Ddr4, RecordsOfTheComposite)
{
    for (const std::size_t at : {0x9D00U, 0x9F00U, 0xDB00U, 0xDD00U, 0xDF00U, 0xE100U, 0xE300U, 0xE500U, 0xE700U,
                                 0xE900U, 0xEB00U, 0xED00U, 0xEF00U}) {
        const Bytes image = recordAt(at);
        ASSERT_EQ(1U, recognise(image).size()) << at;
        EXPECT_TRUE(isWhole(readExactly("ddr4", image))) << at;
    }
    const reading module = readExactly("ddr4", recordAt(0xDB00));
    EXPECT_EQ("HMA851S6CJR6N-VK", textOf(module, "module.partNumber"));
    EXPECT_EQ("bank 1, code 0xAD (SK hynix)", textOf(module, "module.manufacturer"));
    EXPECT_EQ("0xFF", textOf(module, "module.dramStepping"));
    EXPECT_EQ("0.75 ns", textOf(module, "tCKmin"));
}

TEST(Ddr4, RecordsWithoutCrcAreDamaged)
{
    for (std::size_t at = 0; at <= 0x1E00; at += 0x200) {
        const Bytes image = recordAt(at);
        ASSERT_EQ(1U, recognise(image).size()) << at;
        const reading what = readExactly("ddr4", image);
        EXPECT_EQ("0x0000", textOf(what, "crc")) << at;
        EXPECT_FALSE(isWhole(what)) << at;
    }
}

} // namespace
} // namespace kest::contents::test
