#include "kestmisc.h"

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/kest/edge.h"
#include "tests/kest/results.h"
#include "tests/platform/scripted.h"

using namespace kest;
using namespace results;
using namespace scripted;

namespace
{

/// The result of a conversion of a device text.
class DeviceTexts : public PlatformTest
{
protected:
    ~DeviceTexts() override { release(); }

    void convert(const std::string& text) { take(kest_miscConvertTokensToAddress(&info, text.c_str())); }
    void split(const std::string& text) { take(kest_miscSplitDetectionTokens(&info, text.c_str())); }

    std::vector<Node> links() const { return nodesOf(info.addressList); }

    /// "path|node", with "-" for none.
    std::string texts() const
    {
        return std::string{info.devicePath == nullptr ? "-" : info.devicePath} + "|" +
               (info.nodeName == nullptr ? "-" : info.nodeName);
    }

    kest_deviceInfo info{};
    bool failed = false;
    std::string workingCopy;

    void take(char* result)
    {
        failed = result != nullptr;
        workingCopy = failed ? result : "";
        delete[] result;
    }

private:
    void release() { kest_miscReleaseDeviceInfo(info); }
};

TEST(KestMiscDigits, AreThoseOfTheLowNibble)
{
    const std::string digits = "0123456789abcdef";
    for (int value = 0; value < 256; ++value) {
        EXPECT_EQ(digits[static_cast<std::size_t>(value) % 16], KEST_miscLowHexNibbleToChar(static_cast<char>(value)));
    }
    EXPECT_EQ('f', KEST_miscLowHexNibbleToChar(0x3F));
    EXPECT_EQ('a', KEST_miscLowHexNibbleToChar(0x0A));
}

TEST(KestMiscUnpack, WritesTwoDigitsAByteAndNoTerminator)
{
    std::string out(9, '#');
    KEST_miscUnpack(out.data(), 4, "\x00\x7f\x80\xff");
    EXPECT_EQ("007f80ff#", out);
    KEST_miscUnpack(out.data(), 0, nullptr);
    EXPECT_EQ("007f80ff#", out);
}

TEST(KestMiscUnpack, IsReversedByReadingTheDigits)
{
    std::mt19937 random{922};
    for (int round = 0; round < 200; ++round) {
        std::string bytes(random() % 70, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        std::string digits(2 * bytes.size(), '#');
        KEST_miscUnpack(digits.data(), static_cast<unsigned>(bytes.size()), bytes.data());
        EXPECT_EQ(text(bytes), hex(digits));
    }
}

TEST(KestMiscPutText, ReplacesWhatCannotBePrinted)
{
    for (int value = 0; value < 256; ++value) {
        const char in = static_cast<char>(value);
        char out = '#';
        KEST_miscPutText(&out, 1, &in);
        EXPECT_EQ(value >= 0x20 && value <= 0x7E ? in : '.', out) << value;
    }
    std::string out(6, '#');
    KEST_miscPutText(out.data(), 5, "a\t\x80 z");
    EXPECT_EQ("a.. z#", out);
}

TEST(KestMiscDump, OfOneLine)
{
    const std::unique_ptr<char[]> dump{KEST_miscFmtAndDump("0123456789abcde\xff", 16)};
    EXPECT_STREQ("00000000  30313233 34353637 38396162 636465ff  <0123456789abcde.>\n", dump.get());
    EXPECT_EQ(66U, std::strlen(dump.get()));
}

TEST(KestMiscDump, OfTwoLinesReadsTheSecondWhole)
{
    std::string data = "the first line..the 2nd";
    data.resize(32, '\0');
    const std::unique_ptr<char[]> dump{KEST_miscFmtAndDump(data.data(), 20)};
    EXPECT_STREQ("00000000  74686520 66697273 74206c69 6e652e2e  <the first line..>\n"
                 "00000010  74686520 326e6400 00000000 00000000  <the 2nd.........>\n",
                 dump.get());
    // a block of 133
    EXPECT_EQ(132U, std::strlen(dump.get()));
}

TEST(KestMiscDump, OfMoreThanTheAddressSpaceHoldsIsNone)
{
    if (sizeof(std::size_t) > 4) {
        GTEST_SKIP() << "the lines of 4 GiB fit into this address space";
    }
    // 66 characters for each 16 bytes
    EXPECT_EQ(nullptr, KEST_miscFmtAndDump("", 0xFFFFFFFF));
}

TEST(KestMiscDump, OfNothingIsOneCharacter)
{
    const std::unique_ptr<char[]> dump{KEST_miscFmtAndDump(nullptr, 0)};
    EXPECT_NE(nullptr, dump);
}

TEST_F(DeviceTexts, DumpWithoutMemoryIsNone)
{
    platform.failAllocation();
    EXPECT_EQ(nullptr, KEST_miscFmtAndDump("0123456789abcdef", 16));
}

TEST(KestMiscDump, LinesCountUpAndSayWhatIsThere)
{
    std::mt19937 random{16};
    for (const unsigned length : {1U, 15U, 17U, 31U, 33U, 255U, 4096U, 70001U}) {
        const std::size_t lines = (length + 15) / 16;
        std::string data(16 * lines, '\0');
        for (char& byte : data) {
            byte = static_cast<char>(random());
        }
        const std::unique_ptr<char[]> dump{KEST_miscFmtAndDump(data.data(), length)};
        const std::string all = dump.get();
        ASSERT_EQ(66 * lines, all.size());
        for (std::size_t i = 0; i < lines; ++i) {
            const std::string line = all.substr(66 * i, 66);
            EXPECT_EQ(16 * i, std::stoul(line.substr(0, 8), nullptr, 16));
            EXPECT_EQ(text(data.substr(16 * i, 16)), hex(line.substr(10, 35)));
            EXPECT_EQ("  ", line.substr(8, 2));
            EXPECT_EQ("  <", line.substr(45, 3));
            EXPECT_EQ(">\n", line.substr(64, 2));
        }
    }
}

TEST_F(DeviceTexts, OfOneDevice)
{
    convert("/dev/i2c-1,L,2c0256,a0");
    EXPECT_FALSE(failed);
    EXPECT_EQ("/dev/i2c-1|L", texts());
    EXPECT_EQ((std::vector<Node>{{0xA0, 0x2C0256, 0}}), links());
    EXPECT_EQ("\n", platform.log());
}

TEST_F(DeviceTexts, FirstFieldHoldsTheSecondToken)
{
    convert("path,node,75,90");
    const char* const* const fields = reinterpret_cast<const char* const*>(&info);
    EXPECT_STREQ("node", fields[0]);
    EXPECT_STREQ("path", fields[1]);
}

TEST_F(DeviceTexts, OfEveryType)
{
    for (const std::uint32_t type : {0x1C0002U, 0x2C0032U, 0x2C0064U, 0x2C0128U, 0x2C0256U, 0x2C0512U, 0x9551U, 0x9552U,
                                     0x9554U, 0x9555U, 0xD10U, 0x75U, 0x92U, 0x172U}) {
        char text[64];
        std::snprintf(text, sizeof text, "p,0,%x,c2", type);
        convert(text);
        EXPECT_FALSE(failed) << text;
        EXPECT_EQ((std::vector<Node>{{0xC2, type, 0}}), links()) << text;
        kest_miscReleaseDeviceInfo(info);
    }
}

TEST_F(DeviceTexts, HubsHaveTwoValues)
{
    convert("p,7,F0,10,1,922,80,3,2C0512,0xA4");
    EXPECT_FALSE(failed);
    EXPECT_EQ((std::vector<Node>{{0x10, 0xF0, 1}, {0x80, 0x922, 3}, {0xA4, 0x2C0512, 0}}), links());
}

TEST_F(DeviceTexts, NumbersAreHexadecimalWithOrWithoutPrefix)
{
    convert("p,0,0x922,0x8A,0X7,0x2C0128,aE");
    EXPECT_EQ((std::vector<Node>{{0x8A, 0x922, 7}, {0xAE, 0x2C0128, 0}}), links());
}

TEST_F(DeviceTexts, ValuesKeepTheirLowByte)
{
    convert("p,0,922,180,ff07,75,-1");
    EXPECT_EQ((std::vector<Node>{{0x80, 0x922, 7}, {0xFF, 0x75, 0}}), links());
    kest_miscReleaseDeviceInfo(info);
    // more than a long can hold gives its greatest value
    convert("p,0,75,123456789012345678901234567890A0");
    EXPECT_EQ((std::vector<Node>{{0xFF, 0x75, 0}}), links());
    kest_miscReleaseDeviceInfo(info);
    // more than 32 bits give the same on every target
    convert("p,0,75,1234567A0");
    EXPECT_EQ((std::vector<Node>{{0xFF, 0x75, 0}}), links());
}

TEST_F(DeviceTexts, AValueThatIsNoNumberIsZero)
{
    convert("p,0,75,zz");
    EXPECT_FALSE(failed);
    EXPECT_EQ((std::vector<Node>{{0, 0x75, 0}}), links());
}

TEST_F(DeviceTexts, AChainIsNotJudged)
{
    convert("p,0,75,1,75,2,922,3,4,172,5");
    EXPECT_FALSE(failed);
    EXPECT_EQ((std::vector<Node>{{1, 0x75, 0}, {2, 0x75, 0}, {3, 0x922, 4}, {5, 0x172, 0}}), links());
}

struct Malformed {
    const char* text;
    const char* texts;
    std::vector<Node> links;
    const char* workingCopy;
};

TEST_F(DeviceTexts, MalformedOnesFailWithWhatWasReadSoFar)
{
    const std::vector<Node> none;
    const std::vector<Malformed> cases{
        {"", "-|-", none, ""},
        {",", "-|-", none, ","},
        {",,,,", "-|-", none, ",,,,"},
        {"path", "path|-", none, "path"},
        {"path,", "path|-", none, "path"},
        {"path,node", "path|node", none, "path,node"},
        {"path,node,", "path|node", none, "path,node"},
        {"a,b,123,5", "a|b", none, "a,b,123"},
        {"a,b,zz,5", "a|b", none, "a,b,zz"},
        {"a,b,9553,5", "a|b", none, "a,b,9553"},
        {"a,b,0,5", "a|b", none, "a,b,0"},
        {"a,b,-1,5", "a|b", none, "a,b,-1"},
        {"a,b,1001C0002,5", "a|b", none, "a,b,1001C0002"},
        {"a,b,1FFFFFFFFFFFFFFFFFF,5", "a|b", none, "a,b,1FFFFFFFFFFFFFFFFFF"},
        {"a,b,75", "a|b", none, "a,b,75"},
        {"a,b,75,", "a|b", none, "a,b,75"},
        {"a,b,922", "a|b", none, "a,b,922"},
        {"a,b,922,80", "a|b", none, "a,b,922,80"},
        {"a,b,F0,80", "a|b", none, "a,b,F0,80"},
        {"a,b,922,80,3,2C0256", "a|b", {{0x80, 0x922, 3}}, "a,b,922,80,3,2C0256"},
        {"a,b,922,80,3,123,A0,7", "a|b", {{0x80, 0x922, 3}}, "a,b,922,80,3,123"},
        {"a,b,75,90,92", "a|b", {{0x90, 0x75, 0}}, "a,b,75,90,92"},
        {",,a,,b,,123,,5", "a|b", none, ",,a,,b,,123"},
        {"a b,c d,e f", "a b|c d", none, "a b,c d,e f"},
    };
    for (const Malformed& one : cases) {
        convert(one.text);
        EXPECT_TRUE(failed) << one.text;
        EXPECT_EQ(one.texts, texts()) << one.text;
        EXPECT_EQ(one.links, links()) << one.text;
        EXPECT_EQ(one.workingCopy, workingCopy) << one.text;
        kest_miscReleaseDeviceInfo(info);
    }
    EXPECT_EQ("\n", platform.log());
}

TEST_F(DeviceTexts, EmptyFieldsAreSkipped)
{
    convert("a,,b,,,75,,90,");
    EXPECT_FALSE(failed);
    EXPECT_EQ("a|b", texts());
    EXPECT_EQ((std::vector<Node>{{0x90, 0x75, 0}}), links());
}

TEST_F(DeviceTexts, TheFirstTextIsNotTouchedBeforeItsTokenIsFound)
{
    char mine[] = "mine";
    info.devicePath = mine;
    info.nodeName = mine;
    convert(",");
    EXPECT_EQ(mine, info.devicePath);
    EXPECT_EQ(nullptr, info.nodeName);
    EXPECT_EQ(nullptr, info.addressList);
    info.devicePath = nullptr;
}

TEST_F(DeviceTexts, OverlongOnesAreTakenWhole)
{
    const std::string path(100000, 'p');
    const std::string node(50000, 'n');
    convert(path + "," + node + ",75,90");
    EXPECT_FALSE(failed);
    EXPECT_EQ(path + "|" + node, texts());
    kest_miscReleaseDeviceInfo(info);
    convert(std::string(300000, 'x'));
    EXPECT_TRUE(failed);
    EXPECT_EQ(std::string(300000, 'x'), workingCopy);
}

TEST_F(DeviceTexts, ThousandsOfLinksAreTakenInTime)
{
    std::string text = "p,0";
    for (int i = 0; i < 200000; ++i) {
        text += ",75,90";
    }
    convert(text);
    EXPECT_FALSE(failed);
    EXPECT_EQ(200000U, links().size());
    kest_miscReleaseDeviceInfo(info);
    convert(text + ",123");
    EXPECT_TRUE(failed);
    EXPECT_EQ(200000U, links().size());
    EXPECT_EQ(text + ",123", workingCopy);
}

TEST_F(DeviceTexts, WithoutMemoryTheyFailAndKeepNoHalfChain)
{
    int failing = 0;
    do {
        ++failing;
        platform.failAllocation(failing);
        convert("p,0,922,80,3,2c0256,a0");
        if (failed) {
            EXPECT_GT(2U, links().size()) << failing;
            EXPECT_GE(failing == 5 ? 1U : 2U, links().size()) << failing;
        }
        kest_miscReleaseDeviceInfo(info);
    } while (failed);
    // working copy, two texts, two links
    EXPECT_EQ(6, failing);
}

TEST_F(DeviceTexts, AnyBytesAreTakenOrRefused)
{
    std::mt19937 random{24};
    const std::string alphabet = ",,,,0123456789abcdefFx-/\xff z";
    int taken = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text = round % 2 == 0 ? "" : "p,0,922,80,3";
        for (auto length = random() % 24; length != 0; --length) {
            text += alphabet[random() % alphabet.size()];
        }
        convert(text);
        taken += failed ? 0 : 1;
        EXPECT_TRUE(failed || !links().empty()) << text;
        EXPECT_TRUE(!failed || text.starts_with(workingCopy)) << text << " gave " << workingCopy;
        kest_miscReleaseDeviceInfo(info);
    }
    // the texts had enough of both kinds
    EXPECT_LT(100, taken);
}

TEST_F(DeviceTexts, SplitForDetectionFillsOnlyTheTexts)
{
    split("/dev/i2c-1@A0,L,2c0256,a0");
    EXPECT_FALSE(failed);
    EXPECT_EQ("/dev/i2c-1@A0|L", texts());
    EXPECT_TRUE(links().empty());
}

TEST_F(DeviceTexts, AreReadToTheirTerminatorAndNoFurther)
{
    for (const char* text : {"sim:planar,L,2C0256,A0", "path", ""}) {
        const BytesAtTheEdge edge(text, std::strlen(text) + 1);
        for (auto* reader : {kest_miscConvertTokensToAddress, kest_miscSplitDetectionTokens}) {
            take(reader(&info, edge.get()));
            EXPECT_EQ(std::strchr(text, ',') == nullptr, failed) << text;
            kest_miscReleaseDeviceInfo(info);
        }
    }
}

TEST_F(DeviceTexts, SplitForDetectionFailsOnFewerThanTwoTokens)
{
    split("path");
    EXPECT_TRUE(failed);
    EXPECT_EQ("path|-", texts());
    EXPECT_EQ("path", workingCopy);
    kest_miscReleaseDeviceInfo(info);
    split("path,");
    EXPECT_TRUE(failed);
    EXPECT_EQ("path|-", texts());
    kest_miscReleaseDeviceInfo(info);
    split("");
    EXPECT_TRUE(failed);
    EXPECT_EQ("-|-", texts());
    split(",,");
    EXPECT_TRUE(failed);
    EXPECT_EQ("-|-", texts());
}

TEST_F(DeviceTexts, SplitForDetectionWithoutMemoryFails)
{
    for (int failing = 1; failing <= 3; ++failing) {
        platform.failAllocation(failing);
        split("path,node");
        EXPECT_TRUE(failed) << failing;
        kest_miscReleaseDeviceInfo(info);
    }
}

TEST_F(DeviceTexts, ReleasingTwiceIsHarmless)
{
    convert("p,0,75,90");
    kest_miscReleaseDeviceInfo(info);
    kest_miscReleaseDeviceInfo(info);
    EXPECT_EQ(nullptr, info.nodeName);
    EXPECT_EQ(nullptr, info.devicePath);
    EXPECT_EQ(nullptr, info.addressList);
}

} // namespace
