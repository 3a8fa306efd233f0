#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/damage.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

Bytes soldered() { return exampleImage("spd-256-ddr3-soldered.bin"); }

/// A module of the composite: 256 bytes, with a part number and a serial number.
Bytes moduleAt(std::size_t at)
{
    const Bytes all = exampleImage("composite-65536-spd-records.bin");
    return {all.begin() + static_cast<std::ptrdiff_t>(at), all.begin() + static_cast<std::ptrdiff_t>(at + 256)};
}

TEST(Ddr3, IsRecognised)
{
    const auto found = recognise(soldered());
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("ddr3", found.front()->name);
}

TEST(Ddr3, GeometryOfSolderedMemory)
{
    const reading what = readExactly("ddr3", soldered());
    EXPECT_TRUE(isWhole(what));
    // 92 11 0B 03 03 00 00 01 03
    EXPECT_EQ("176", textOf(what, "bytesUsed"));
    EXPECT_EQ("256", textOf(what, "bytesTotal"));
    EXPECT_EQ("bytes 0 to 116", textOf(what, "crcCoverage"));
    EXPECT_EQ("1.1", textOf(what, "revision"));
    EXPECT_EQ("DDR3", textOf(what, "memoryType"));
    EXPECT_EQ("SO-DIMM", textOf(what, "moduleType"));
    EXPECT_EQ("2 Gb", textOf(what, "density"));
    EXPECT_EQ("8", textOf(what, "banks"));
    EXPECT_EQ("12", textOf(what, "rowBits"));
    EXPECT_EQ("9", textOf(what, "columnBits"));
    EXPECT_EQ("yes", textOf(what, "operableAt1V5"));
    EXPECT_EQ("none", textOf(what, "lowerVoltages"));
    EXPECT_EQ("1", textOf(what, "ranks"));
    EXPECT_EQ("8 bits", textOf(what, "deviceWidth"));
    EXPECT_EQ("64 bits", textOf(what, "busWidth"));
    EXPECT_EQ("none", textOf(what, "eccWidth"));
    // 2 Gb * 64 / 8 * 1
    EXPECT_EQ("2048 MiB", textOf(what, "capacity"));
    EXPECT_EQ("0x59B0", textOf(what, "crc"));
}

TEST(Ddr3, TimesOfSolderedMemory)
{
    const reading what = readExactly("ddr3", soldered());
    // the medium timebase is 1/8 ns: 0C, 6C, 78, 6C, 30, 6C
    EXPECT_EQ("1.5 ns", textOf(what, "tCKmin"));
    EXPECT_EQ("9", textOf(what, "casLatencies"));
    EXPECT_EQ("13.5 ns", textOf(what, "tAAmin"));
    EXPECT_EQ("15 ns", textOf(what, "tWRmin"));
    EXPECT_EQ("13.5 ns", textOf(what, "tRCDmin"));
    EXPECT_EQ("6 ns", textOf(what, "tRRDmin"));
    EXPECT_EQ("13.5 ns", textOf(what, "tRPmin"));
    // 0x120, 0x181, 0x504, 3C, 3C, 0x0F0
    EXPECT_EQ("36 ns", textOf(what, "tRASmin"));
    EXPECT_EQ("48.125 ns", textOf(what, "tRCmin"));
    EXPECT_EQ("160.5 ns", textOf(what, "tRFCmin"));
    EXPECT_EQ("7.5 ns", textOf(what, "tWTRmin"));
    EXPECT_EQ("7.5 ns", textOf(what, "tRTPmin"));
    EXPECT_EQ("30 ns", textOf(what, "tFAWmin"));
}

TEST(Ddr3, ModuleTypeOfSolderedMemory)
{
    const reading what = readExactly("ddr3", soldered());
    // byte 62 is 65: revision 3 of card F
    EXPECT_EQ("15 mm", textOf(what, "specific.height"));
    EXPECT_EQ("F", textOf(what, "specific.rawCard"));
    EXPECT_EQ("3", textOf(what, "specific.rawCardRevision"));
    EXPECT_EQ("standard", textOf(what, "specific.addressMapping"));
    EXPECT_EQ("not given", textOf(what, "module.manufacturer"));
    EXPECT_EQ("not given", textOf(what, "module.date"));
}

TEST(Ddr3, RevisionOfARawCardIsExtendedWithoutARegisterAlone)
{
    Bytes image = soldered();
    image[3] = 0x02;
    image[60] = 0x20;
    const reading unbuffered = readExactly("ddr3", image);
    EXPECT_EQ("15 mm", textOf(unbuffered, "specific.height"));
    EXPECT_EQ("4", textOf(unbuffered, "specific.rawCardRevision"));
    image[62] = 0xA0;
    const reading damaged = readExactly("ddr3", image);
    EXPECT_EQ("AM", textOf(damaged, "specific.rawCard"));
    EXPECT_EQ("it is 1, and allowed is 3 alone", problemOf(damaged, "specific.shortRevision"));
    image[3] = 0x01;
    const reading registered = readExactly("ddr3", image);
    EXPECT_EQ("1", textOf(registered, "specific.rawCardRevision"));
    EXPECT_EQ(nullptr, findNode(registered, "specific.shortRevision"));
}

TEST(Ddr3, DataOfTheManufacturer)
{
    Bytes image = soldered();
    image[150] = 0x12;
    image[175] = 0x34;
    const reading what = readExactly("ddr3", image);
    const node* const data = findNode(what, "module.manufacturerData");
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(150U, data->offset);
    EXPECT_EQ(26U, data->length);
    EXPECT_EQ("12 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 34", data->text);
}

TEST(Ddr3, FineTimebaseCorrectsTheMediumOne)
{
    Bytes image = soldered();
    // 12 steps of 125 ps less 100 steps of 2.5 ps; 108 steps more 2 of 2.5 ps
    image[34] = 0x9C;
    image[35] = 0x02;
    const reading what = readExactly("ddr3", image);
    EXPECT_EQ("1.25 ns", textOf(what, "tCKmin"));
    EXPECT_EQ("13.505 ns", textOf(what, "tAAmin"));
}

TEST(Ddr3, StackedDies)
{
    Bytes image = soldered();
    image[33] = 0xA1;
    const reading what = readExactly("ddr3", image);
    EXPECT_EQ("not standard", textOf(what, "dieType"));
    EXPECT_EQ("2", textOf(what, "dies"));
    EXPECT_EQ("multi load stack", textOf(what, "signalLoading"));
}

TEST(Ddr3, TimebaseOfZeroIsDamage)
{
    Bytes image = soldered();
    image[11] = 0;
    const reading what = readExactly("ddr3", image);
    const node* const cycle = findNode(what, "tCKmin");
    ASSERT_NE(nullptr, cycle);
    EXPECT_EQ(verdict::damaged, cycle->is);
    EXPECT_EQ("0C", cycle->text);
}

TEST(Ddr3, IdentityOfAModule)
{
    const reading what = readExactly("ddr3", moduleAt(0xA600));
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("4KTF25664HZ-1G6E1", textOf(what, "module.partNumber"));
    EXPECT_EQ("bank 1, code 0x2C (Micron)", textOf(what, "module.manufacturer"));
    const node* const serial = findNode(what, "module.serialNumber");
    ASSERT_NE(nullptr, serial);
    EXPECT_EQ(122U, serial->offset);
    EXPECT_EQ(4U, serial->length);
}

TEST(Ddr3, RegistersOfARegisteredModule)
{
    Bytes image = soldered();
    image[3] = 0x01;
    image[63] = 0x05; // one register, one row of DRAMs
    image[64] = 0x80;
    image[65] = 0x80;
    image[66] = 0xB3;
    image[67] = 0x21;
    const reading what = readExactly("ddr3", image);
    EXPECT_EQ("RDIMM", textOf(what, "moduleType"));
    EXPECT_EQ("1", textOf(what, "specific.registers"));
    EXPECT_EQ("1", textOf(what, "specific.dramRows"));
    EXPECT_EQ("yes", textOf(what, "specific.heatSpreader"));
    EXPECT_EQ("bank 1, code 0xB3 (IDT)", textOf(what, "specific.registerManufacturer"));
    EXPECT_EQ("0x21", textOf(what, "specific.registerRevision"));
    EXPECT_EQ("SSTE32882", textOf(what, "specific.registerType"));
    EXPECT_EQ("00 00 00 00 00 00 00 00", textOf(what, "specific.controlWords"));
    EXPECT_EQ(nullptr, findNode(what, "specific.addressMapping"));
}

TEST(Ddr3, ChangedByteIsFound)
{
    expectBytesGuarded("ddr3", soldered(), "crc", 0, 117);
    expectBytesGuarded("ddr3", soldered(), "crc", 126, 2);
}

TEST(Ddr3, LongerCoverageIncludesTheIdentity)
{
    Bytes image = soldered();
    image[0] = 0x12;
    const reading what = readExactly("ddr3", image);
    EXPECT_EQ("bytes 0 to 125", textOf(what, "crcCoverage"));
    const node* const crc = findNode(what, "crc");
    ASSERT_NE(nullptr, crc);
    ASSERT_TRUE(crc->sum.has_value());
    EXPECT_EQ(126U, crc->sum->length);
}

TEST(Ddr3, SerialNumberIsOutsideOfTheShorterCoverage)
{
    Bytes image = soldered();
    image[122] = 0x5A;
    const reading what = readExactly("ddr3", image);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("0x5A000000", textOf(what, "module.serialNumber"));
}

TEST(Ddr3, CutImageIsDamaged) { expectCutsDamaged("ddr3", soldered(), 256); }

TEST(Ddr3, RecordsOfTheComposite)
{
    for (const std::size_t at :
         {0x9C00U, 0xA400U, 0xA500U, 0xA600U, 0xA800U, 0xA900U, 0xAA00U, 0xAC00U, 0xAD00U, 0xAE00U, 0xAF00U, 0xB200U,
          0xB300U, 0xB400U, 0xB500U, 0xB600U, 0xC300U, 0xC500U, 0xD100U}) {
        const Bytes image = moduleAt(at);
        ASSERT_EQ(1U, recognise(image).size()) << at;
        EXPECT_EQ("", problemOf(readExactly("ddr3", image), "crc")) << at;
    }
    for (const std::size_t at : {0xA100U, 0xA200U, 0xA300U, 0xB700U, 0xB800U, 0xCC00U, 0xD200U}) {
        const Bytes image = moduleAt(at);
        ASSERT_EQ(1U, recognise(image).size()) << at;
        EXPECT_NE("", problemOf(readExactly("ddr3", image), "crc")) << at;
    }
    // LPDDR3, and none
    EXPECT_TRUE(recognise(moduleAt(0xB900)).empty());
    EXPECT_TRUE(recognise(moduleAt(0xA700)).empty());
}

} // namespace
} // namespace kest::contents::test
