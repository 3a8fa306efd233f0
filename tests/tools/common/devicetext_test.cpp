#include "tools/common/devicetext.h"

#include <gtest/gtest.h>

#include "tests/tools/complaint.h"
#include "tools/common/devicetype.h"

namespace kest::tools
{
namespace
{

std::string textComplaint(const std::string& text)
{
    return test::complaint([&text] { static_cast<void>(parseDeviceText(text)); });
}

TEST(DeviceText, OfADeviceOnTheBus)
{
    const device found = parseDeviceText("sim:planar@A2,L,2C0256,A0");
    EXPECT_EQ("sim:planar", found.bus);
    EXPECT_EQ("L", found.node);
    ASSERT_EQ(1U, found.links.size());
    EXPECT_EQ(0xA0, found.end().address);
    EXPECT_STREQ("24C256", found.end().type->chip);
    EXPECT_EQ(32768U, found.end().type->bytes);
    EXPECT_EQ(64U, found.end().type->pageBytes);
    EXPECT_FALSE(found.behindHub());
    EXPECT_EQ("sim:planar@A0,L,2C0256,A0", detectionText(found));
}

TEST(DeviceText, BehindAHub)
{
    const device found = parseDeviceText("/dev/i2c-12,7,922,8a,3,0x1C0002,0xA4");
    EXPECT_EQ("/dev/i2c-12", found.bus);
    EXPECT_EQ("7", found.node);
    ASSERT_EQ(2U, found.links.size());
    EXPECT_EQ(0x8A, found.head().address);
    EXPECT_EQ(3, found.head().port);
    EXPECT_EQ(0xA4, found.end().address);
    EXPECT_EQ(256U, found.end().type->bytes);
    EXPECT_EQ(8U, found.end().type->pageBytes);
    EXPECT_TRUE(found.behindHub());
}

TEST(DeviceText, ComplaintsNameTheField)
{
    EXPECT_EQ("2 device text 'a,L,2C0256,A0': field 1, 'a', is no device path: /dev/i2c-N or sim:BUS, either with @HH "
              "behind it",
              textComplaint("a,L,2C0256,A0"));
    EXPECT_EQ("2 device text '/dev/i2c-,L,2C0256,A0': field 1, '/dev/i2c-', is no device path: /dev/i2c-N or sim:BUS, "
              "either with @HH behind it",
              textComplaint("/dev/i2c-,L,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p@A,L,2C0256,A0': field 1, 'sim:p@A', has no two hexadecimal digits after '@'",
              textComplaint("sim:p@A,L,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p,8,2C0256,A0': field 2, '8', is no node: L for the local one, or 0 to 7",
              textComplaint("sim:p,8,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0999,A0': field 3, '2C0999', is no device type; there are F0 922 1C0002 2C0032 "
              "2C0064 2C0128 2C0256 2C0512 9551 9552 9554 9555 D10 75 92 172",
              textComplaint("sim:p,L,2C0999,A0"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0256,XY': field 4, 'XY', is no address: hexadecimal, at most FF",
              textComplaint("sim:p,L,2C0256,XY"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0256,1A0': field 4, '1A0', is no address: hexadecimal, at most FF",
              textComplaint("sim:p,L,2C0256,1A0"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0256,51': field 4, '51', is odd: addresses are in the 8-bit form; if it is a "
              "7-bit one, write A2",
              textComplaint("sim:p,L,2C0256,51"));
    EXPECT_EQ(
        "2 device text 'sim:p,L,2C0256,A1': field 4, 'A1', is odd: addresses are in the 8-bit form, which is even",
        textComplaint("sim:p,L,2C0256,A1"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0256,00': field 4, '00', is no device's address",
              textComplaint("sim:p,L,2C0256,00"));
    EXPECT_EQ("2 device text 'sim:p,,2C0256,A0': field 2, '', is empty; expected node",
              textComplaint("sim:p,,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p,L' ends where field 3, device type, is expected", textComplaint("sim:p,L"));
    EXPECT_EQ("2 device text 'sim:p,L,922,80' ends where field 5, hub port, is expected",
              textComplaint("sim:p,L,922,80"));
}

TEST(DeviceText, ComplaintsAboutTheChain)
{
    EXPECT_EQ(
        "2 device text 'sim:p,L,922,80,3': field 5, '3', ends the chain with a hub; the device behind it is missing",
        textComplaint("sim:p,L,922,80,3"));
    EXPECT_EQ(
        "2 device text 'sim:p,L,2C0256,A0,75,90': field 6, '90', follows a 24C256, behind which there can be nothing",
        textComplaint("sim:p,L,2C0256,A0,75,90"));
    EXPECT_EQ("2 device text 'sim:p,L,922,80,3,F0,70,1,2C0256,A0': field 8, '1', puts an F0 hub behind a 922 hub",
              textComplaint("sim:p,L,922,80,3,F0,70,1,2C0256,A0"));
    EXPECT_EQ("", textComplaint("sim:p,L,F0,70,1,922,80,3,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p,L,F0,70,1,922,80,3,2C0256,A0,75,90': field 12, '90', makes a chain of more than 3 "
              "devices",
              textComplaint("sim:p,L,F0,70,1,922,80,3,2C0256,A0,75,90"));
    EXPECT_EQ("2 device text of 256 characters: at most 255 fit", textComplaint(std::string(256, 'x')));
}

} // namespace
} // namespace kest::tools
