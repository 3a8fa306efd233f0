#include "platform/host/configuration/expectation.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "platform/host/configuration/configurationfile.h"
#include "tests/host/host_support.h"

namespace kest::test
{
namespace
{

using host::configurationResult;

class Expectation : public testing::Test
{
protected:
    [[nodiscard]] configurationResult read(const std::string& value) const
    {
        return host::readConfiguration(
            folder.write("kest.toml", "[[device]]\nnumber = 1\nlocation = \"a\"\nexpect = " + value + "\n"));
    }
    [[nodiscard]] std::string errorOf(const std::string& value) const
    {
        const std::string error = read(value).error;
        return error.substr(std::min(error.find("kest.toml:") + 10, error.size()));
    }
    HostFolder folder;
};

TEST_F(Expectation, IsBytesAtAnOffset)
{
    const configurationResult result = read(R"({ offset = 0, bytes = "54 6c 76 49" })");
    ASSERT_EQ("", result.error);
    ASSERT_EQ(1U, result.value.devices.at(0).expect.size());
    EXPECT_EQ(0U, result.value.devices[0].expect[0].offset);
    EXPECT_EQ((std::vector<std::uint8_t>{0x54, 0x6C, 0x76, 0x49}), result.value.devices[0].expect[0].bytes);
}

TEST_F(Expectation, CanBeAListOfThem)
{
    const configurationResult result =
        read(R"([{ offset = 4294967295, bytes = "00" }, { bytes = "aBcD", offset = 0x10 }])");
    ASSERT_EQ("", result.error);
    ASSERT_EQ(2U, result.value.devices.at(0).expect.size());
    EXPECT_EQ(4294967295U, result.value.devices[0].expect[0].offset);
    EXPECT_EQ((std::vector<std::uint8_t>{0x00}), result.value.devices[0].expect[0].bytes);
    EXPECT_EQ(16U, result.value.devices[0].expect[1].offset);
    EXPECT_EQ((std::vector<std::uint8_t>{0xAB, 0xCD}), result.value.devices[0].expect[1].bytes);
}

TEST_F(Expectation, CanBeAFormat)
{
    const configurationResult result = read("\"spd-ddr4\"");
    ASSERT_EQ("", result.error);
    EXPECT_EQ("spd-ddr4", result.value.devices.at(0).expectFormat);
    EXPECT_TRUE(result.value.devices[0].expect.empty());
    EXPECT_EQ("", read(R"({ offset = 0, bytes = "00" })").value.devices.at(0).expectFormat);
}

TEST_F(Expectation, OfAFormatIsAName)
{
    const std::string form =
        R"(expected { offset = 0, bytes = "54 6C" } or a list of such, or the name of a format such as "tlvinfo")";
    EXPECT_EQ("4:10: key 'device.expect': " + form + ", found the string \"\"", errorOf("\"\""));
    EXPECT_EQ("4:10: key 'device.expect': " + form + ", found the string \"Tlv Info\"", errorOf("\"Tlv Info\""));
    EXPECT_EQ("", errorOf("\"" + std::string(32, 'a') + "\""));
    EXPECT_EQ("4:10: key 'device.expect': " + form + ", found the string \"" + std::string(33, 'a') + "\"",
              errorOf("\"" + std::string(33, 'a') + "\""));
}

TEST_F(Expectation, ThatIsSomethingElseIsReported)
{
    const std::string form = R"(expected { offset = 0, bytes = "54 6C" } or a list of such)";
    EXPECT_EQ("4:10: key 'device.expect': " + form + ", found the integer 5", errorOf("5"));
    EXPECT_EQ("4:11: key 'device.expect': " + form + ", found true", errorOf("[true]"));
    EXPECT_EQ("4:10: key 'device.expect': " + form + ", of 1 to 16, found an empty list", errorOf("[]"));
    std::string many = "[";
    for (int count = 0; count < 17; ++count) {
        many += "{ offset = 0, bytes = \"00\" },";
    }
    EXPECT_EQ("4:10: key 'device.expect': " + form + ", of 1 to 16, found a list", errorOf(many + "]"));
    EXPECT_EQ("4:10: key 'device.expect.bytes': " + form + ", found nothing", errorOf("{ offset = 0 }"));
    EXPECT_EQ("4:10: key 'device.expect.offset': " + form + ", found nothing", errorOf("{ bytes = \"00\" }"));
    EXPECT_EQ("4:21: key 'device.expect.offset': expected an integer from 0 to 4294967295, found the integer -1",
              errorOf("{ offset = -1, bytes = \"00\" }"));
    EXPECT_EQ("4:12: key 'device.expect.length': expected one of the keys offset, bytes, found an unknown key",
              errorOf("{ length = 1, offset = 0, bytes = \"00\" }"));
}

TEST_F(Expectation, HasBytesOfTwoDigitsEach)
{
    for (const char* bytes : {"", " ", "5", "54 6", "0x54", "54,6C", "5 46", "GG", "-1", "54\\t6C"}) {
        const std::string error = errorOf("{ offset = 0, bytes = \"" + std::string(bytes) + "\" }");
        EXPECT_EQ("4:32: key 'device.expect.bytes': expected 1 to 256 bytes, each as two hexadecimal digits, found ",
                  error.substr(0, 96))
            << bytes;
    }
    std::string most;
    for (int count = 0; count < 256; ++count) {
        most += "5A";
    }
    EXPECT_EQ("", errorOf("{ offset = 0, bytes = \"" + most + "\" }"));
    EXPECT_NE("", errorOf("{ offset = 0, bytes = \"" + most + "00\" }"));
}

} // namespace
} // namespace kest::test
