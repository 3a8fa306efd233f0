#include "tools/common/fieldtext.h"

#include <array>
#include <gtest/gtest.h>

#include "tests/tools/complaint.h"
#include "tools/common/device.h"
#include "tools/common/devicetype.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

std::string textComplaint(const std::string& text)
{
    return test::complaint([&text] { static_cast<void>(parseFieldText(text)); });
}

struct GoodText {
    const char* field;
    const char* canonical;
};

TEST(FieldText, BecomesTheCanonicalTextAtOnce)
{
    constexpr std::array texts{
        GoodText{.field = "i2c-1:24c256@50", .canonical = "/dev/i2c-1,L,2C0256,A0"},
        GoodText{.field = "/dev/i2c-1:24c256@0x50", .canonical = "/dev/i2c-1,L,2C0256,A0"},
        GoodText{.field = "/dev/i2c-12:24C02@0X57", .canonical = "/dev/i2c-12,L,1C0002,AE"},
        GoodText{.field = "sim:planar:24c256@50", .canonical = "sim:planar,L,2C0256,A0"},
        GoodText{.field = "sim:planar:24c32@50", .canonical = "sim:planar,L,2C0032,A0"},
        GoodText{.field = "sim:planar:24c64@50", .canonical = "sim:planar,L,2C0064,A0"},
        GoodText{.field = "sim:planar:24c512@50", .canonical = "sim:planar,L,2C0512,A0"},
        GoodText{.field = "sim:planar:pca9551@60", .canonical = "sim:planar,L,9551,C0"},
        GoodText{.field = "sim:planar:PCA9552@60", .canonical = "sim:planar,L,9552,C0"},
        GoodText{.field = "sim:planar:Pca9554@20", .canonical = "sim:planar,L,9554,40"},
        GoodText{.field = "sim:planar:9555@21", .canonical = "sim:planar,L,9555,42"},
        GoodText{.field = "sim:planar:lm75@4f", .canonical = "sim:planar,L,75,9E"},
        GoodText{.field = "sim:planar:LM92@4B", .canonical = "sim:planar,L,92,96"},
        GoodText{.field = "sim:planar:172@3", .canonical = "sim:planar,L,172,06"},
        GoodText{.field = "sim:planar:2c0256@77", .canonical = "sim:planar,L,2C0256,EE"},
        GoodText{.field = "i2c-1:922@40/3:24c128@51", .canonical = "/dev/i2c-1,L,922,80,3,2C0128,A2"},
        GoodText{.field = "sim:p:F0@38/1:922@0x40/0:24c02@52", .canonical = "sim:p,L,F0,70,1,922,80,0,1C0002,A4"},
    };
    for (const GoodText& each : texts) {
        const device found = parseFieldText(each.field);
        EXPECT_EQ(each.canonical, found.text);
        EXPECT_EQ(each.field, found.label);
        const device canonical = parseDeviceText(each.canonical);
        EXPECT_EQ(canonical.bus, found.bus);
        EXPECT_EQ(canonical.node, found.node);
        ASSERT_EQ(canonical.links.size(), found.links.size());
        EXPECT_EQ(canonical.end().type, found.end().type);
        EXPECT_EQ(canonical.end().address, found.end().address);
        EXPECT_EQ(canonical.head().port, found.head().port);
        EXPECT_EQ(0U, found.number);
    }
}

TEST(FieldText, ComplaintsAboutTheBus)
{
    EXPECT_EQ("2 device text 'i2c1:24c256@50': field 1, bus, 'i2c1', is no bus of this node; expected i2c-N, "
              "/dev/i2c-N or sim:NAME (a bus of another node needs the form PATH,NODE,TYPE,ADDRESS)",
              textComplaint("i2c1:24c256@50"));
    EXPECT_EQ("2 device text '3/i2c-1:24c256@50': field 1, bus, '3/i2c-1', is no bus of this node; expected i2c-N, "
              "/dev/i2c-N or sim:NAME (a bus of another node needs the form PATH,NODE,TYPE,ADDRESS)",
              textComplaint("3/i2c-1:24c256@50"));
    EXPECT_EQ("2 device text ':24c256@50': field 1, bus, '', is empty; expected i2c-N, /dev/i2c-N or sim:NAME",
              textComplaint(":24c256@50"));
    for (const char* wrong : {"i2c-:24c02@50", "i2c-1x:24c02@50", "sim::24c02@50", "sim:a@b:24c02@50", "24c02@50"}) {
        EXPECT_NE(std::string::npos, textComplaint(wrong).find("': field 1, bus, '")) << wrong;
    }
}

TEST(FieldText, ComplaintsAboutThePart)
{
    EXPECT_EQ("2 device text 'i2c-1' ends where field 2, part, is expected: a part such as 24c256",
              textComplaint("i2c-1"));
    EXPECT_EQ("2 device text 'i2c-1:': field 2, part, '', is empty; expected a part such as 24c256",
              textComplaint("i2c-1:"));
    EXPECT_EQ("2 device text 'i2c-1:24c16@50': field 2, part, '24c16', is no part that is served; there are F0 922 "
              "24C02 24C32 24C64 24C128 24C256 24C512 PCA9551 PCA9552 PCA9554 PCA9555 D10 LM75 LM92 172",
              textComplaint("i2c-1:24c16@50"));
}

TEST(FieldText, ComplaintsAboutTheAddress)
{
    EXPECT_EQ("2 device text 'i2c-1:24c256' ends where field 3, address, is expected: 7-bit, hexadecimal, 03 to 77",
              textComplaint("i2c-1:24c256"));
    EXPECT_EQ("2 device text 'i2c-1:24c256@': field 3, address, '', is empty; expected 7-bit, hexadecimal, 03 to 77",
              textComplaint("i2c-1:24c256@"));
    EXPECT_EQ("2 device text 'i2c-1:24c256@A0': field 3, address, 'A0', is an address in the 8-bit form; behind '@' it "
              "is in the 7-bit form: write 'i2c-1:24c256@50'",
              textComplaint("i2c-1:24c256@A0"));
    EXPECT_EQ("2 device text 'i2c-1:922@0x80/3:24c128@51': field 3, address, '0x80', is an address in the 8-bit form; "
              "behind '@' it is in the 7-bit form: write 'i2c-1:922@40/3:24c128@51'",
              textComplaint("i2c-1:922@0x80/3:24c128@51"));
    EXPECT_EQ("2 device text 'i2c-1:24c256@A1': field 3, address, 'A1', is no device's address: 7-bit, hexadecimal, 03 "
              "to 77",
              textComplaint("i2c-1:24c256@A1"));
    for (const char* wrong : {"2", "0", "79", "fe", "100"}) {
        EXPECT_NE(std::string::npos, textComplaint(std::string("i2c-1:24c256@") + wrong).find("03 to 77")) << wrong;
    }
    for (const char* wrong : {"0x", "x50", "5g", "-50", "+50", " 50", "50 ", "50/3:24c02@51", "fffffffffffffffff50"}) {
        EXPECT_NE(std::string::npos, textComplaint(std::string("i2c-1:24c256@") + wrong).find("is no address: "))
            << wrong;
    }
}

TEST(FieldText, ComplaintsAboutTheChain)
{
    EXPECT_EQ("2 device text 'i2c-1:922@40' ends where field 4, hub port, is expected: 0 to 7",
              textComplaint("i2c-1:922@40"));
    EXPECT_EQ("2 device text 'i2c-1:922@40/8:24c02@50': field 4, hub port, '8', is no port of a hub: 0 to 7",
              textComplaint("i2c-1:922@40/8:24c02@50"));
    EXPECT_EQ("2 device text 'i2c-1:922@40/:24c02@50': field 4, hub port, '', is empty; expected 0 to 7",
              textComplaint("i2c-1:922@40/:24c02@50"));
    EXPECT_EQ("2 device text 'i2c-1:922@40/3' ends where field 5, part, is expected: a part such as 24c256",
              textComplaint("i2c-1:922@40/3"));
    EXPECT_EQ("2 device text 'i2c-1:922@40/3:922@41/1:24c02@50': field 5, part, '922', puts a 922 hub behind a 922 hub",
              textComplaint("i2c-1:922@40/3:922@41/1:24c02@50"));
    EXPECT_EQ("2 device text 'i2c-1:F0@38/1:922@40/3:F0@39/1:24c02@50': field 8, part, 'F0', puts an F0 hub behind a "
              "922 hub",
              textComplaint("i2c-1:F0@38/1:922@40/3:F0@39/1:24c02@50"));
}

TEST(FieldText, IsNoLongerThanACanonicalText)
{
    EXPECT_EQ("2 device text of 256 characters: at most 255 fit", textComplaint(std::string(256, 'x')));
    EXPECT_EQ("", textComplaint("sim:" + std::string(242, 'b') + ":lm75@48"));
    // 255 characters, which become 256
    EXPECT_EQ("2 device text of 256 characters: at most 255 fit",
              textComplaint("sim:" + std::string(240, 'b') + ":24c02@0x50"));
}

TEST(FieldText, AnyTextIsReadOrRefusedWithExitCodeTwo)
{
    const std::string good = "sim:p:922@40/3:24c128@51";
    constexpr std::string_view letters("\0:@/,0x\xFF\n9a", 12);
    const auto check = [](const std::string& text) {
        const std::string complaint = textComplaint(text);
        EXPECT_TRUE(complaint.empty() || complaint.starts_with("2 device text ")) << text;
    };
    for (std::size_t at = 0; at <= good.size(); ++at) {
        check(good.substr(0, at));
        check(good.substr(at));
        for (const char letter : letters) {
            check(good.substr(0, at) + letter + good.substr(at));
            check(good.substr(0, at) + letter + (at < good.size() ? good.substr(at + 1) : ""));
        }
    }
}

TEST(FieldText, BeginsWithABusAndAColon)
{
    EXPECT_TRUE(isFieldText("i2c-1:24c256@50"));
    EXPECT_TRUE(isFieldText("/dev/i2c-1:x"));
    EXPECT_TRUE(isFieldText("sim:planar:24c256"));
    for (const char* other : {"sim:planar", "i2c-1", "/dev/i2c-1", "planar-vpd", "0xD001", "vpd@home.bin", "c:vpd.bin",
                              "sim:planar,L,2C0256,A0", "./i2c-1:vpd.bin", ""}) {
        EXPECT_FALSE(isFieldText(other)) << other;
    }
}

TEST(FieldText, OfABus)
{
    EXPECT_EQ("/dev/i2c-12", busPathOf("i2c-12"));
    EXPECT_EQ("/dev/i2c-1", busPathOf("/dev/i2c-1"));
    EXPECT_EQ("sim:planar", busPathOf("sim:planar"));
}

TEST(FieldText, IsWrittenAsItIsRead)
{
    for (const char* text : {"i2c-1:24c256@50", "sim:planar:lm75@48", "i2c-1:922@40/3:24c128@51"}) {
        const device found = parseFieldText(text);
        EXPECT_EQ(text, fieldText(found.bus, found.links));
    }
}

} // namespace
} // namespace kest::tools
