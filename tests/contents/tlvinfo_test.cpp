#include <gtest/gtest.h>

#include "contents/recognise.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

constexpr const char* switchImage = "tlvinfo-4096-switch.bin";

TEST(TlvInfo, IsRecognisedByItsIdentifier)
{
    const auto found = recognise(exampleImage(switchImage));
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("tlvinfo", found.front()->name);
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
    EXPECT_EQ("33049", textOf(what, "vendorExtension.enterprise"));
}

} // namespace
} // namespace kest::contents::test
