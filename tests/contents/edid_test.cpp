#include <algorithm>
#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/damage.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

Bytes vgaMonitor() { return exampleImage("edid-128-dell-e178wfp-vga.bin"); }
Bytes olderMonitor() { return exampleImage("edid-128-syncmaster245b-from-bus.bin"); }

TEST(Edid, IsRecognised)
{
    for (const Bytes& image : {vgaMonitor(), olderMonitor(), exampleImage("edid-384-acer-xv273k-dp.bin")}) {
        const auto found = recognise(image);
        ASSERT_EQ(1U, found.size());
        EXPECT_EQ("edid", found.front()->name);
    }
}

TEST(Edid, IdentityOfAMonitor)
{
    const reading what = readExactly("edid", vgaMonitor());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("DEL", textOf(what, "manufacturer"));
    EXPECT_EQ("0xD016", textOf(what, "product"));
    EXPECT_EQ("877022280", textOf(what, "serialNumber"));
    EXPECT_EQ("26", textOf(what, "week"));
    EXPECT_EQ("2008", textOf(what, "year"));
    EXPECT_EQ("1", textOf(what, "version"));
    EXPECT_EQ("4", textOf(what, "revision"));
    EXPECT_EQ("G340H86P4FLH", textOf(what, "descriptor.2.serialNumber"));
    EXPECT_EQ("DELL E178WFP", textOf(what, "descriptor.4.name"));
    EXPECT_EQ("0", textOf(what, "extensions"));
    EXPECT_EQ("0x78", textOf(what, "checksum"));
}

TEST(Edid, DisplayOfAMonitor)
{
    const reading what = readExactly("edid", vgaMonitor());
    // 6A 25 17 78 EF
    EXPECT_EQ("analogue", textOf(what, "signal"));
    EXPECT_EQ("0.700 V, 0.000 V", textOf(what, "signalLevel"));
    EXPECT_EQ("sync on green, separate syncs", textOf(what, "analogueSupports"));
    EXPECT_EQ("37 cm", textOf(what, "width"));
    EXPECT_EQ("23 cm", textOf(what, "height"));
    EXPECT_EQ("2.2", textOf(what, "gamma"));
    EXPECT_EQ("active off, suspend, standby", textOf(what, "powerStates"));
    EXPECT_EQ("RGB", textOf(what, "colours"));
    EXPECT_EQ("continuous frequency, first timing is native, sRGB", textOf(what, "features"));
}

TEST(Edid, ColoursOfAMonitor)
{
    const reading what = readExactly("edid", vgaMonitor());
    // B6 90 A6 54 51 91 25 17 50 54: 666, 339, 325, 582, 150, 93, 320, 336 of 1024
    EXPECT_EQ("0.650391", textOf(what, "redX"));
    EXPECT_EQ("0.331055", textOf(what, "redY"));
    EXPECT_EQ("0.317383", textOf(what, "greenX"));
    EXPECT_EQ("0.568359", textOf(what, "greenY"));
    EXPECT_EQ("0.146484", textOf(what, "blueX"));
    EXPECT_EQ("0.09082", textOf(what, "blueY"));
    EXPECT_EQ("0.3125", textOf(what, "whiteX"));
    EXPECT_EQ("0.328125", textOf(what, "whiteY"));
}

TEST(Edid, ShortTimingsOfAMonitor)
{
    const reading what = readExactly("edid", vgaMonitor());
    // A5 4B 00; then 81 80, 71 4F, 95 00, 01 01
    EXPECT_EQ("1280x1024 at 75 Hz, 1024x768 at 75 Hz, 1024x768 at 60 Hz, 800x600 at 75 Hz, 800x600 at 60 Hz, "
              "640x480 at 75 Hz, 640x480 at 60 Hz, 720x400 at 70 Hz",
              textOf(what, "establishedTimings"));
    EXPECT_EQ("1280 pixels", textOf(what, "standardTiming.1.width"));
    EXPECT_EQ("5:4", textOf(what, "standardTiming.1.aspect"));
    EXPECT_EQ("60 Hz", textOf(what, "standardTiming.1.rate"));
    EXPECT_EQ("1152 pixels", textOf(what, "standardTiming.2.width"));
    EXPECT_EQ("4:3", textOf(what, "standardTiming.2.aspect"));
    EXPECT_EQ("75 Hz", textOf(what, "standardTiming.2.rate"));
    EXPECT_EQ("16:10", textOf(what, "standardTiming.3.aspect"));
    EXPECT_EQ(nullptr, findNode(what, "standardTiming.4"));
}

TEST(Edid, StandardTimingsAtTheEdges)
{
    Bytes image = vgaMonitor();
    // 256 pixels, 60 Hz; a code without a meaning; and the largest
    image[38] = 0x01;
    image[39] = 0x00;
    image[40] = 0x00;
    image[41] = 0x40;
    image[42] = 0xFF;
    image[43] = 0xFF;
    const reading what = readExactly("edid", image);
    EXPECT_EQ("256 pixels", textOf(what, "standardTiming.1.width"));
    EXPECT_EQ("16:10", textOf(what, "standardTiming.1.aspect"));
    EXPECT_EQ("00 40", textOf(what, "standardTiming.2.code"));
    EXPECT_EQ("2288 pixels", textOf(what, "standardTiming.3.width"));
    EXPECT_EQ("123 Hz", textOf(what, "standardTiming.3.rate"));
}

TEST(Edid, DetailedTimingOfAMonitor)
{
    const reading what = readExactly("edid", vgaMonitor());
    // AB 22 A0 A0 50 84 1A 30 30 20 36 00 72 E6 10 00 00 1A
    EXPECT_EQ("88.75 MHz", textOf(what, "descriptor.1.pixelClock"));
    EXPECT_EQ("1440 pixels", textOf(what, "descriptor.1.horizontalActive"));
    EXPECT_EQ("160 pixels", textOf(what, "descriptor.1.horizontalBlanking"));
    EXPECT_EQ("900 lines", textOf(what, "descriptor.1.verticalActive"));
    EXPECT_EQ("26 lines", textOf(what, "descriptor.1.verticalBlanking"));
    // 88.75 MHz / 1600 / 926 is 59.9014 Hz
    EXPECT_EQ("59.9 Hz", textOf(what, "descriptor.1.verticalRate"));
    EXPECT_EQ("48 pixels", textOf(what, "descriptor.1.horizontalFrontPorch"));
    EXPECT_EQ("32 pixels", textOf(what, "descriptor.1.horizontalSync"));
    EXPECT_EQ("3 lines", textOf(what, "descriptor.1.verticalFrontPorch"));
    EXPECT_EQ("6 lines", textOf(what, "descriptor.1.verticalSync"));
    EXPECT_EQ("370 mm", textOf(what, "descriptor.1.width"));
    EXPECT_EQ("230 mm", textOf(what, "descriptor.1.height"));
    EXPECT_EQ("progressive", textOf(what, "descriptor.1.scan"));
    EXPECT_EQ("none", textOf(what, "descriptor.1.stereo"));
    EXPECT_EQ("digital separate", textOf(what, "descriptor.1.sync"));
    EXPECT_EQ("negative", textOf(what, "descriptor.1.verticalPolarity"));
    EXPECT_EQ("positive", textOf(what, "descriptor.1.horizontalPolarity"));
}

TEST(Edid, FieldsOfATimingLieInItsDescriptor)
{
    const reading what = readExactly("edid", vgaMonitor());
    const node* const descriptor = findNode(what, "descriptor.1");
    ASSERT_NE(nullptr, descriptor);
    ASSERT_FALSE(descriptor->children.empty());
    EXPECT_EQ("descriptor.1.pixelClock", descriptor->children.front().name);
    EXPECT_EQ(54U, descriptor->children.front().offset);
}

TEST(Edid, TimingWithAnalogueSync)
{
    Bytes image = vgaMonitor();
    // interlaced, left on even lines, bipolar analogue composite, serration, on all colours
    image[71] = 0xCF;
    const reading what = readExactly("edid", image);
    EXPECT_EQ("interlaced", textOf(what, "descriptor.1.scan"));
    EXPECT_EQ("2-way interleaved, left on even lines", textOf(what, "descriptor.1.stereo"));
    EXPECT_EQ("bipolar analogue composite", textOf(what, "descriptor.1.sync"));
    EXPECT_EQ("with serration", textOf(what, "descriptor.1.serration"));
    EXPECT_EQ("all colours", textOf(what, "descriptor.1.analogueSync"));
    EXPECT_EQ(nullptr, findNode(what, "descriptor.1.verticalPolarity"));
}

TEST(Edid, BitsOfColoursAreSharedAndNoneIsLeft)
{
    Bytes image = vgaMonitor();
    std::fill_n(image.begin() + 25, 10, std::uint8_t{0xFF});
    const reading what = readExactly("edid", image);
    EXPECT_EQ("0.999023", textOf(what, "whiteY"));
    EXPECT_EQ(nullptr, findNode(what, "other.bitsAt25"));
    EXPECT_EQ(nullptr, findNode(what, "other.bitsAt26"));
    EXPECT_EQ(nullptr, findNode(what, "other.bitsAt34"));
}

TEST(Edid, TimingWithoutPixelsHasNoRate)
{
    Bytes image = vgaMonitor();
    image[56] = 0;
    image[57] = 0;
    image[58] = 0;
    const reading what = readExactly("edid", image);
    EXPECT_EQ("0 pixels", textOf(what, "descriptor.1.horizontalActive"));
    EXPECT_EQ(nullptr, findNode(what, "descriptor.1.verticalRate"));
}

TEST(Edid, RangeLimitsOfAMonitor)
{
    const reading what = readExactly("edid", vgaMonitor());
    EXPECT_EQ("50 Hz", textOf(what, "descriptor.3.verticalLeast"));
    EXPECT_EQ("77 Hz", textOf(what, "descriptor.3.verticalMost"));
    EXPECT_EQ("30 kHz", textOf(what, "descriptor.3.horizontalLeast"));
    EXPECT_EQ("83 kHz", textOf(what, "descriptor.3.horizontalMost"));
    EXPECT_EQ("CVT", textOf(what, "descriptor.3.timingSupport"));
    // 11 B2 05 F8 58 F0 00: 140 MHz less 44 times 0.25 MHz; 0x205 times 8 pixels
    EXPECT_EQ("129 MHz", textOf(what, "descriptor.3.pixelClockMost"));
    EXPECT_EQ("1.1", textOf(what, "descriptor.3.cvtVersion"));
    EXPECT_EQ("4136 pixels", textOf(what, "descriptor.3.pixelsMost"));
    EXPECT_EQ("15:9, 5:4, 16:10, 16:9, 4:3", textOf(what, "descriptor.3.aspects"));
    EXPECT_EQ("16:10", textOf(what, "descriptor.3.preferredAspect"));
    EXPECT_EQ("standard, reduced", textOf(what, "descriptor.3.blankings"));
    EXPECT_EQ("vertical stretch, vertical shrink, horizontal stretch, horizontal shrink",
              textOf(what, "descriptor.3.scalings"));
    EXPECT_EQ("0 Hz", textOf(what, "descriptor.3.preferredRate"));
    EXPECT_EQ(nullptr, findNode(what, "descriptor.3.timingData"));
}

TEST(Edid, PixelClockOfRangeLimitsIsInQuartersOfAMegahertzWithCvtAlone)
{
    Bytes image = vgaMonitor();
    // 140 MHz less 63 times 0.25 MHz
    image[102] = 0xFC;
    EXPECT_EQ("124.25 MHz", textOf(readExactly("edid", image), "descriptor.3.pixelClockMost"));
    image[100] = 0x02;
    const reading what = readExactly("edid", image);
    EXPECT_EQ("secondary GTF", textOf(what, "descriptor.3.timingSupport"));
    EXPECT_EQ("140 MHz", textOf(what, "descriptor.3.pixelClockMost"));
    EXPECT_EQ("11 FC 05 F8 58 F0 00", textOf(what, "descriptor.3.timingData"));
}

TEST(Edid, InterlacedTimingHasHalfALineMore)
{
    Bytes image = vgaMonitor();
    // 74.25 MHz; 1920 and 280 pixels; 540 and 22 lines of a field: 562.5 of 2200 pixels make 60 Hz
    const Bytes timing = fromHex("01 1d 80 18 71 1c 16 20 58 2c 25 00 72 e6 10 00 00 9e");
    std::copy(timing.begin(), timing.end(), image.begin() + 54);
    const reading what = readExactly("edid", image);
    EXPECT_EQ("74.25 MHz", textOf(what, "descriptor.1.pixelClock"));
    EXPECT_EQ("540 lines", textOf(what, "descriptor.1.verticalActive"));
    EXPECT_EQ("22 lines", textOf(what, "descriptor.1.verticalBlanking"));
    EXPECT_EQ("interlaced", textOf(what, "descriptor.1.scan"));
    EXPECT_EQ("60 Hz", textOf(what, "descriptor.1.verticalRate"));
}

TEST(Edid, OneSizeAloneIsTheAspectRatio)
{
    Bytes image = vgaMonitor();
    // (79 + 99) / 100
    image[21] = 79;
    image[22] = 0;
    const reading landscape = readExactly("edid", image);
    EXPECT_EQ("1.78", textOf(landscape, "screenAspect"));
    EXPECT_EQ(nullptr, findNode(landscape, "width"));
    EXPECT_EQ(nullptr, findNode(landscape, "height"));
    // 100 / (79 + 99)
    image[21] = 0;
    image[22] = 79;
    const reading portrait = readExactly("edid", image);
    EXPECT_EQ("0.56", textOf(portrait, "screenAspect"));
    EXPECT_EQ(nullptr, findNode(portrait, "height"));
    image[22] = 0;
    const reading neither = readExactly("edid", image);
    EXPECT_EQ("not given", textOf(neither, "width"));
    EXPECT_EQ("not given", textOf(neither, "height"));
    EXPECT_EQ(nullptr, findNode(neither, "screenAspect"));
}

TEST(Edid, OneSizeAloneOfAnEarlierRevisionIsNoAspectRatio)
{
    Bytes image = olderMonitor();
    image[21] = 79;
    image[22] = 0;
    const reading what = readExactly("edid", image);
    EXPECT_EQ("79 cm", textOf(what, "width"));
    EXPECT_EQ("not given", textOf(what, "height"));
    EXPECT_EQ(nullptr, findNode(what, "screenAspect"));
}

TEST(Edid, FieldsOfAnEarlierRevision)
{
    const reading what = readExactly("edid", olderMonitor());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("SAM", textOf(what, "manufacturer"));
    EXPECT_EQ("0x02B5", textOf(what, "product"));
    EXPECT_EQ("3", textOf(what, "revision"));
    EXPECT_EQ("sync on green, composite sync, separate syncs", textOf(what, "analogueSupports"));
    EXPECT_EQ("2.6", textOf(what, "gamma"));
    // byte 24 is 2A
    EXPECT_EQ("active off", textOf(what, "powerStates"));
    EXPECT_EQ("first timing is preferred", textOf(what, "features"));
    EXPECT_EQ("154 MHz", textOf(what, "descriptor.1.pixelClock"));
    EXPECT_EQ("1920 pixels", textOf(what, "descriptor.1.horizontalActive"));
    EXPECT_EQ("1200 lines", textOf(what, "descriptor.1.verticalActive"));
    EXPECT_EQ("75 Hz", textOf(what, "descriptor.2.verticalMost"));
    EXPECT_EQ("SyncMaster", textOf(what, "descriptor.3.name"));
    EXPECT_EQ("HS1Q102936", textOf(what, "descriptor.4.serialNumber"));
}

TEST(Edid, DigitalInputOfAnEarlierRevision)
{
    Bytes image = olderMonitor();
    image[20] = 0x81;
    const reading what = readExactly("edid", image);
    EXPECT_EQ("digital", textOf(what, "signal"));
    EXPECT_EQ("DFP 1.x", textOf(what, "interface"));
    EXPECT_EQ(nullptr, findNode(what, "colourDepth"));
}

TEST(Edid, UnknownDescriptorIsBytes)
{
    Bytes image = vgaMonitor();
    image[75] = 0x42;
    const reading what = readExactly("edid", image);
    EXPECT_EQ("0x42", textOf(what, "descriptor.2.tag"));
    EXPECT_EQ("00 47 33 34 30 48 38 36 50 34 46 4C 48 0A", textOf(what, "descriptor.2.data"));
}

TEST(Edid, ChangedByteIsFound) { expectBytesGuarded("edid", vgaMonitor(), "checksum", 0, 128); }

TEST(Edid, CutImageIsDamaged) { expectCutsDamaged("edid", vgaMonitor(), 128); }

} // namespace
} // namespace kest::contents::test
