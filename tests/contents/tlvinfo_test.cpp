#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

constexpr const char* switchImage = "tlvinfo-4096-switch.bin";

/// A small table: product, serial number, MAC address, number of addresses, vendor extension, a type that has no
/// meaning, and the CRC-32 of what is before it.
Bytes smallImage()
{
    return fromHex("54 6c 76 49 6e 66 6f 00 01 00 25 "
                   "21 03 42 6f 78 23 02 53 31 24 06 02 00 00 00 0a 0b 2a 02 00 08 "
                   "fd 05 00 00 12 34 aa 77 01 01 fe 04 08 57 84 22");
}

constexpr std::size_t totalLengthAt = 10;
constexpr std::size_t serialAt = 16;
constexpr std::size_t crcAt = 42;

Bytes changed(std::size_t at, std::uint8_t value)
{
    Bytes image = smallImage();
    image.at(at) = value;
    return image;
}

TEST(TlvInfo, IsRecognisedByItsIdentifier)
{
    const auto found = recognise(exampleImage(switchImage));
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("tlvinfo", found.front()->name);
    EXPECT_TRUE(recognise(changed(7, 0x20)).empty()) << "the identifier ends in NUL";
    EXPECT_TRUE(recognise(fromHex("54 6c 76 49 6e 66 6f 00 01 00")).empty()) << "no whole header";
    EXPECT_FALSE(recognise(fromHex("54 6c 76 49 6e 66 6f 00 01 00 00")).empty());
}

TEST(TlvInfo, FieldsOfASwitch)
{
    const reading what = readExactly("tlvinfo", exampleImage(switchImage));
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("TlvInfo", textOf(what, "header.identifier"));
    EXPECT_EQ("1", textOf(what, "header.version"));
    EXPECT_EQ("527 bytes", textOf(what, "header.totalLength"));
    EXPECT_EQ("MSN2700", textOf(what, "productName"));
    EXPECT_EQ("MSN2700-CS2FO", textOf(what, "partNumber"));
    EXPECT_EQ("MT1623X09522", textOf(what, "serialNumber"));
    EXPECT_EQ("7C:FE:90:F5:36:40", textOf(what, "baseMac"));
    EXPECT_EQ("06/10/2016 01:57:31", textOf(what, "manufactureDate"));
    EXPECT_EQ("0", textOf(what, "deviceVersion"));
    EXPECT_EQ("128", textOf(what, "macCount"));
    EXPECT_EQ("Mellanox", textOf(what, "manufacturer"));
    EXPECT_EQ("x86_64-mlnx_x86-r0", textOf(what, "platformName"));
    EXPECT_EQ("2018.05-5.2.0004-9600", textOf(what, "onieVersion"));
    EXPECT_EQ("33049", textOf(what, "vendorExtension.enterprise"));
    EXPECT_EQ("33049", textOf(what, "vendorExtension.5.enterprise"));
    EXPECT_EQ("(there is none)", textOf(what, "vendorExtension.6.enterprise"));
    EXPECT_EQ("0x89D74C56", textOf(what, "crc"));
}

TEST(TlvInfo, AnotherVersionIsNotWhole)
{
    const reading what = readExactly("tlvinfo", changed(8, 2));
    EXPECT_EQ("it is 2, and allowed is 1 alone", problemOf(what, "header.version"));
}

TEST(TlvInfo, PlacesOfFields)
{
    const reading what = readExactly("tlvinfo", exampleImage(switchImage));
    const node* const serial = findNode(what, "serialNumber");
    ASSERT_NE(nullptr, serial);
    EXPECT_EQ(0x65U, serial->offset);
    EXPECT_EQ(24U, serial->length);
    const node* const crc = findNode(what, "crc");
    ASSERT_NE(nullptr, crc);
    ASSERT_TRUE(crc->sum.has_value());
    // from the first byte of the image
    EXPECT_EQ(0U, crc->sum->from);
    EXPECT_EQ(crc->offset, crc->sum->length);
    EXPECT_EQ(11U + 527U, crc->offset + crc->length);
}

TEST(TlvInfo, FieldsOfASmallTable)
{
    const reading what = readExactly("tlvinfo", smallImage());
    EXPECT_TRUE(isWhole(what));
    EXPECT_EQ("Box", textOf(what, "productName"));
    EXPECT_EQ("S1", textOf(what, "serialNumber"));
    EXPECT_EQ("02:00:00:00:0A:0B", textOf(what, "baseMac"));
    EXPECT_EQ("8", textOf(what, "macCount"));
    EXPECT_EQ("4660", textOf(what, "vendorExtension.enterprise"));
    EXPECT_EQ("AA", textOf(what, "vendorExtension.data"));
    EXPECT_EQ("01", textOf(what, "type0x77"));
    EXPECT_EQ(verdict::unknown, findNode(what, "type0x77")->is);
    EXPECT_EQ("0x08578422", textOf(what, "crc"));
}

TEST(TlvInfo, AChangedByteBreaksTheSumAlone)
{
    const reading what = readExactly("tlvinfo", changed(serialAt + 3, 0x32));
    ASSERT_EQ(1U, damagedNodes(what).size());
    EXPECT_EQ("stored is 0x08578422, computed is 0x3DBA3271", problemOf(what, "crc"));
    EXPECT_EQ("S2", textOf(what, "serialNumber"));
}

TEST(TlvInfo, ALengthBeyondTheTableIsDamagedAndNothingBehindItIsRead)
{
    const reading what = readExactly("tlvinfo", changed(serialAt + 1, 0x40));
    EXPECT_EQ("its length is 64, and there are 30 bytes before the end of its area", problemOf(what, "serialNumber"));
    EXPECT_EQ("", textOf(what, "serialNumber"));
    EXPECT_EQ("Box", textOf(what, "productName"));
    EXPECT_EQ("(there is none)", textOf(what, "baseMac"));
    EXPECT_EQ("(there is none)", textOf(what, "crc"));
    // the entry's value and all behind it
    EXPECT_EQ("53 31 24 06 02 00 00 00 0A 0B 2A 02 00 08 FD 05 00 00 12 34 AA 77 01 01 FE 04 08 57 84 22",
              textOf(what, "other.at18"));
}

TEST(TlvInfo, AFieldOfAnotherLengthThanItsTypeHasIsDamaged)
{
    // the MAC address has 7 bytes, so what follows is read from its second byte on
    const reading what = readExactly("tlvinfo", changed(21, 0x07));
    EXPECT_EQ("its length is 7 instead of 6", problemOf(what, "baseMac"));
    EXPECT_EQ("02 00 00 00 0A 0B 2A", textOf(what, "baseMac"));
}

TEST(TlvInfo, ATotalLengthThatIsWrongIsDamaged)
{
    const reading late = readExactly("tlvinfo", changed(totalLengthAt, 0xFF));
    ASSERT_EQ(2U, damagedNodes(late).size());
    EXPECT_EQ("it should have 255 bytes, and there are 37", damagedNodes(late).front()->problem);
    EXPECT_EQ("S1", textOf(late, "serialNumber"));
    const reading early = readExactly("tlvinfo", changed(totalLengthAt, 0x1F));
    ASSERT_EQ(1U, damagedNodes(early).size());
    EXPECT_EQ("its last entry is missing: CRC-32", damagedNodes(early).front()->problem);
    const reading none = readExactly("tlvinfo", changed(totalLengthAt, 0));
    ASSERT_EQ(1U, damagedNodes(none).size());
    EXPECT_EQ("its last entry is missing: CRC-32", damagedNodes(none).front()->problem);
}

TEST(TlvInfo, ASumThatIsNotTheLastEntryIsDamaged)
{
    Bytes image = changed(totalLengthAt, 0x28);
    image.insert(image.end(), {0x21, 0x01, 0x41});
    const reading what = readExactly("tlvinfo", image);
    EXPECT_EQ("3 of its bytes lie behind its last entry", damagedNodes(what).front()->problem);
    EXPECT_EQ("Box", textOf(what, "productName"));
}

TEST(TlvInfo, ATextThatIsNoAsciiIsDamagedAndShownAsBytes)
{
    const reading what = readExactly("tlvinfo", changed(serialAt + 2, 0x9B));
    EXPECT_EQ("it is not ASCII text", problemOf(what, "serialNumber"));
    EXPECT_EQ("9B 31", textOf(what, "serialNumber"));
}

TEST(TlvInfo, ACutTableShowsWhatIsThere)
{
    Bytes image = smallImage();
    image.resize(crcAt);
    const reading what = readExactly("tlvinfo", image);
    EXPECT_EQ("S1", textOf(what, "serialNumber"));
    EXPECT_EQ("01", textOf(what, "type0x77"));
    EXPECT_EQ("it should have 37 bytes, and there are 31", damagedNodes(what).front()->problem);
}

} // namespace
} // namespace kest::contents::test
