#include <algorithm>
#include <gtest/gtest.h>
#include <numeric>
#include <tuple>

#include "tests/contents/damage.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

constexpr std::size_t blockLength = 128;

Bytes widescreen() { return exampleImage("edid-384-acer-xv273k-dp.bin"); }

/// Puts the checksum of a block right again.
void mend(Bytes& image, std::size_t block)
{
    const auto begin = image.begin() + static_cast<std::ptrdiff_t>(block * blockLength);
    const unsigned sum = std::accumulate(begin, begin + blockLength - 1, 0U);
    image[block * blockLength + blockLength - 1] = static_cast<std::uint8_t>(0x100U - (sum & 0xFFU));
}

TEST(EdidExtensions, BaseBlockBeforeThem)
{
    const reading what = readExactly("edid", widescreen());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("ACR", textOf(what, "manufacturer"));
    EXPECT_EQ("0x06B1", textOf(what, "product"));
    EXPECT_EQ("2231406419", textOf(what, "serialNumber"));
    EXPECT_EQ("2018", textOf(what, "year"));
    // B5, 3B
    EXPECT_EQ("10", textOf(what, "colourDepth"));
    EXPECT_EQ("DisplayPort", textOf(what, "interface"));
    EXPECT_EQ("RGB 4:4:4, YCbCr 4:4:4, YCbCr 4:2:2", textOf(what, "colours"));
    EXPECT_EQ("533.25 MHz", textOf(what, "descriptor.1.pixelClock"));
    EXPECT_EQ("3840 pixels", textOf(what, "descriptor.1.horizontalActive"));
    EXPECT_EQ("2160 lines", textOf(what, "descriptor.1.verticalActive"));
    EXPECT_EQ("17 lines", textOf(what, "descriptor.2.verticalFrontPorch"));
    EXPECT_EQ("2", textOf(what, "extensions"));
}

TEST(EdidExtensions, OffsetsOfRangeLimits)
{
    const reading what = readExactly("edid", widescreen());
    // byte 4 is 0C: 255 is added to both horizontal limits, FF and FF
    EXPECT_EQ("48 Hz", textOf(what, "descriptor.3.verticalLeast"));
    EXPECT_EQ("144 Hz", textOf(what, "descriptor.3.verticalMost"));
    EXPECT_EQ("510 kHz", textOf(what, "descriptor.3.horizontalLeast"));
    EXPECT_EQ("510 kHz", textOf(what, "descriptor.3.horizontalMost"));
    EXPECT_EQ("1070 MHz", textOf(what, "descriptor.3.pixelClockMost"));
}

TEST(EdidExtensions, DataBlocksOfCta)
{
    const reading what = readExactly("edid", widescreen());
    EXPECT_EQ("CTA-861", textOf(what, "extension.1.tag"));
    EXPECT_EQ("3", textOf(what, "extension.1.revision"));
    EXPECT_EQ("72", textOf(what, "extension.1.timingsAt"));
    EXPECT_EQ("YCbCr 4:2:2, YCbCr 4:4:4, basic audio, underscan", textOf(what, "extension.1.supports"));
    EXPECT_EQ("01 03 04 12 13 05 14 1F 90 07 02 5D 5E 5F 60 61 3F", textOf(what, "extension.1.block.video"));
    EXPECT_EQ("LPCM", textOf(what, "extension.1.block.audio.descriptor.1.format"));
    EXPECT_EQ("2", textOf(what, "extension.1.block.audio.descriptor.1.channels"));
    EXPECT_EQ("32 kHz, 44.1 kHz, 48 kHz", textOf(what, "extension.1.block.audio.descriptor.1.rates"));
    EXPECT_EQ("16 bits, 20 bits, 24 bits", textOf(what, "extension.1.block.audio.descriptor.1.sampleSizes"));
    EXPECT_EQ("front left and right", textOf(what, "extension.1.block.speakers.speakers"));
    EXPECT_EQ("video capability", textOf(what, "extension.1.block.extended.tag"));
    EXPECT_EQ("C0", textOf(what, "extension.1.block.extended.data"));
    EXPECT_EQ("0x000C03", textOf(what, "extension.1.block.vendor.oui"));
    EXPECT_EQ("HDMI", textOf(what, "extension.1.block.vendor.vendor"));
    EXPECT_EQ("10 00 38 78 20 00 60 01 02 03", textOf(what, "extension.1.block.vendor.data"));
    EXPECT_EQ("AMD", textOf(what, "extension.1.block.vendor.2.vendor"));
    EXPECT_EQ("colorimetry", textOf(what, "extension.1.block.extended.2.tag"));
    EXPECT_EQ("YCbCr 4:2:0 capability map", textOf(what, "extension.1.block.extended.3.tag"));
    EXPECT_EQ("HDR static metadata", textOf(what, "extension.1.block.extended.4.tag"));
    EXPECT_EQ("07 01 61 56 1C", textOf(what, "extension.1.block.extended.4.data"));
}

TEST(EdidExtensions, DetailedTimingsOfCta)
{
    const reading what = readExactly("edid", widescreen());
    // 07 82 80 54 70 38 4D 40 08 20 F8 0C 56 50 21 00 00 1A
    EXPECT_EQ("332.87 MHz", textOf(what, "extension.1.descriptor.1.pixelClock"));
    EXPECT_EQ("1920 pixels", textOf(what, "extension.1.descriptor.1.horizontalActive"));
    EXPECT_EQ("84 pixels", textOf(what, "extension.1.descriptor.1.horizontalBlanking"));
    EXPECT_EQ("1080 lines", textOf(what, "extension.1.descriptor.1.verticalActive"));
    EXPECT_EQ("63 lines", textOf(what, "extension.1.descriptor.1.verticalFrontPorch"));
    EXPECT_EQ("592 MHz", textOf(what, "extension.1.descriptor.2.pixelClock"));
    EXPECT_EQ("497.75 MHz", textOf(what, "extension.1.descriptor.3.pixelClock"));
    EXPECT_EQ("positive", textOf(what, "extension.1.descriptor.3.verticalPolarity"));
    EXPECT_EQ("0xC0", textOf(what, "extension.1.checksum"));
}

TEST(EdidExtensions, HeadersOfDisplayId)
{
    const reading what = readExactly("edid", widescreen());
    EXPECT_EQ("DisplayID", textOf(what, "extension.2.tag"));
    EXPECT_EQ("1.2", textOf(what, "extension.2.section.version"));
    EXPECT_EQ("121 bytes", textOf(what, "extension.2.section.dataLength"));
    EXPECT_EQ("type I timing", textOf(what, "extension.2.section.block.1.type"));
    EXPECT_EQ("1", textOf(what, "extension.2.section.block.1.revision"));
    EXPECT_EQ("40 bytes", textOf(what, "extension.2.section.block.1.length"));
    // a type of later versions
    EXPECT_EQ("0x26", textOf(what, "extension.2.section.block.2.type"));
    EXPECT_EQ("8 bytes", textOf(what, "extension.2.section.block.2.length"));
    EXPECT_EQ("07 07 03 03 E0 7F 00 00", textOf(what, "extension.2.section.block.2.data"));
    EXPECT_EQ(nullptr, findNode(what, "extension.2.section.block.3"));
    EXPECT_EQ("0x94", textOf(what, "extension.2.section.checksum"));
    EXPECT_EQ("0x90", textOf(what, "extension.2.checksum"));
}

TEST(EdidExtensions, DataBlockBeyondItsAreaIsDamaged)
{
    Bytes image = widescreen();
    // the last data block claims 31 bytes; the detailed timings begin 6 bytes behind its header
    image[193] = 0xFF;
    mend(image, 1);
    const reading what = readExactly("edid", image);
    EXPECT_EQ("", problemOf(what, "extension.1.checksum"));
    EXPECT_EQ("its length is 31, and there are 6 bytes before the end of its area",
              problemOf(what, "extension.1.block.extended.4"));
    EXPECT_FALSE(isWhole(what));
}

TEST(EdidExtensions, TimingsBeyondTheBlockAreDamaged)
{
    Bytes image = widescreen();
    image[130] = 0xFF;
    mend(image, 1);
    EXPECT_FALSE(isWhole(readExactly("edid", image)));
}

TEST(EdidExtensions, ChecksumIsNoPartOfATiming)
{
    Bytes image = widescreen();
    // the timings begin at 127, where the checksum lies
    image[130] = 127;
    mend(image, 1);
    EXPECT_EQ(nullptr, findNode(readExactly("edid", image), "extension.1.descriptor.1"));
}

/// The example with this revision and this place of the detailed timings in its CTA block.
reading withTimingsAt(std::uint8_t revision, std::uint8_t at)
{
    Bytes image = widescreen();
    image[129] = revision;
    image[130] = at;
    mend(image, 1);
    return readExactly("edid", image);
}

TEST(EdidExtensions, TimingsInTheHeaderAreDamaged)
{
    for (const std::uint8_t revision : {std::uint8_t{1}, std::uint8_t{3}}) {
        for (std::uint8_t at = 1; at < 4; ++at) {
            const reading what = withTimingsAt(revision, at);
            const std::string range = revision == 1 ? "4 to 109" : "4 to 127";
            EXPECT_EQ("it is " + std::to_string(at) + ", and allowed is " + range,
                      problemOf(what, "extension.1.timingsAt"));
            EXPECT_EQ(nullptr, findNode(what, "extension.1.descriptor.1")) << int{at};
            EXPECT_EQ(nullptr, findNode(what, "extension.1.block")) << int{at};
            EXPECT_FALSE(isWhole(what)) << int{at};
        }
    }
}

TEST(EdidExtensions, TimingsBehindTheBlockAreDamaged)
{
    const reading what = withTimingsAt(3, 200);
    EXPECT_EQ("it is 200, and allowed is 4 to 127", problemOf(what, "extension.1.timingsAt"));
    EXPECT_EQ(nullptr, findNode(what, "extension.1.block"));
    EXPECT_EQ(nullptr, findNode(what, "extension.1.descriptor.1"));
    EXPECT_FALSE(isWhole(what));
    const reading older = withTimingsAt(1, 200);
    EXPECT_EQ("it is 200, and allowed is 4 to 109", problemOf(older, "extension.1.timingsAt"));
    EXPECT_FALSE(isWhole(older));
}

TEST(EdidExtensions, TimingsThatDoNotFitAreDamagedWithoutDataBlocks)
{
    for (const std::uint8_t at : {std::uint8_t{110}, std::uint8_t{127}}) {
        const reading what = withTimingsAt(1, at);
        EXPECT_EQ("it is " + std::to_string(at) + ", and allowed is 4 to 109",
                  problemOf(what, "extension.1.timingsAt"));
        EXPECT_FALSE(isWhole(what));
    }
    EXPECT_TRUE(isWhole(withTimingsAt(1, 109)));
}

TEST(EdidExtensions, DataBlocksMayFillTheBlock)
{
    Bytes image = widescreen();
    // from 4 to 126: three blocks of a header and 31 bytes, and one of a header and 26
    std::fill_n(image.begin() + 132, 123, std::uint8_t{0});
    image[130] = 127;
    image[132] = 0xBF;
    image[164] = 0xBF;
    image[196] = 0xBF;
    image[228] = 0xBA;
    mend(image, 1);
    const reading what = readExactly("edid", image);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("127", textOf(what, "extension.1.timingsAt"));
    EXPECT_NE(nullptr, findNode(what, "extension.1.block.transfer.4"));
    EXPECT_EQ(nullptr, findNode(what, "extension.1.descriptor.1"));
}

/// An audio descriptor has three bytes.
TEST(EdidExtensions, AudioBlockThatNoDescriptorsFillIsDamaged)
{
    for (const auto& [header, timingsAt, whole] : {std::tuple(0x23, 8, true), std::tuple(0x24, 9, false)}) {
        Bytes image = widescreen();
        std::fill_n(image.begin() + 132, 123, std::uint8_t{0});
        image[130] = static_cast<std::uint8_t>(timingsAt);
        image[132] = static_cast<std::uint8_t>(header);
        // two channels of PCM, 48 kHz, 16 bits
        std::ranges::copy(Bytes{0x09, 0x04, 0x01}, image.begin() + 133);
        mend(image, 1);
        EXPECT_EQ(whole, isWhole(readExactly("edid", image))) << header;
    }
}

TEST(EdidExtensions, NoTimingsAndNoDataBlocks)
{
    const reading what = withTimingsAt(3, 0);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("none", textOf(what, "extension.1.timingsAt"));
    EXPECT_EQ(nullptr, findNode(what, "extension.1.descriptor.1"));
}

TEST(EdidExtensions, SectionBeyondTheBlockIsDamaged)
{
    Bytes image = widescreen();
    image[258] = 0xFA;
    mend(image, 2);
    const reading what = readExactly("edid", image);
    EXPECT_EQ("", problemOf(what, "extension.2.checksum"));
    EXPECT_EQ("it should have 255 bytes, and there are 126", problemOf(what, "extension.2.section"));
}

TEST(EdidExtensions, UnknownExtensionIsBytes)
{
    Bytes image = widescreen();
    image[256] = 0x33;
    mend(image, 2);
    const reading what = readExactly("edid", image);
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("0x33", textOf(what, "extension.2.tag"));
    EXPECT_NE(nullptr, findNode(what, "other.at257"));
}

TEST(EdidExtensions, MissingOneIsDamaged)
{
    Bytes image = widescreen();
    image.resize(2 * blockLength);
    const reading what = readExactly("edid", image);
    EXPECT_EQ("", problemOf(what, "extension.1.checksum"));
    EXPECT_FALSE(isWhole(what));
}

TEST(EdidExtensions, ChangedByteIsFound)
{
    expectBytesGuarded("edid", widescreen(), "extension.1.checksum", blockLength, blockLength);
    expectBytesGuarded("edid", widescreen(), "extension.2.checksum", 2 * blockLength, blockLength);
}

TEST(EdidExtensions, CutImageIsDamaged) { expectCutsDamaged("edid", widescreen(), 3 * blockLength); }

} // namespace
} // namespace kest::contents::test
