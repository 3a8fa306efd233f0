/// Names of undo files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/iic_support.h"
#include "tools/common/undoname.h"

namespace kest::tools
{
namespace
{

std::string keyOf(const std::string& text, accessMode place = accessMode::hardware)
{
    return undoKeyOf(parseDeviceText(text), place);
}

TEST(UndoName, HasLabelKeyNumberAndTime)
{
    EXPECT_EQ("planar-vpd-00112233445566ff-000042-20240501T120000Z.json",
              undoFileName({"planar-vpd", "00112233445566ff", 42, "20240501T120000Z"}));
    EXPECT_EQ("x-00112233445566ff-1234567-20240501T120000Z.json",
              undoFileName({"x", "00112233445566ff", 1234567, "20240501T120000Z"}));
}

TEST(UndoName, IsReadAsItWasMade)
{
    const auto name = parseUndoName("a-b-c-00112233445566ff-000042-20240501T120000Z.json");
    ASSERT_TRUE(name.has_value());
    EXPECT_EQ("a-b-c", name->label);
    EXPECT_EQ("00112233445566ff", name->key);
    EXPECT_EQ(42U, name->number);
    EXPECT_EQ("20240501T120000Z", name->time);
}

TEST(UndoName, OfAnotherFormIsNone)
{
    for (const char* name :
         {"", ".json", "planar-vpd-20240501T120000Z.json", "planar-vpd-20240501T120000Z-1.json",
          "x-00112233445566ff-000042-20240501T120000Z", "x-00112233445566FF-000042-20240501T120000Z.json",
          "x-00112233445566f-000042-20240501T120000Z.json", "x-00112233445566ff-4x-20240501T120000Z.json",
          "x-00112233445566ff-99999999999999999999-20240501T120000Z.json",
          "x-00112233445566ff-000042-20240501120000Z.json", "00112233445566ff-000042-20240501T120000Z.json"}) {
        EXPECT_FALSE(parseUndoName(name).has_value()) << name;
    }
}

/// Whoever can make such a file could otherwise be the latest for ever, or make the number of the next one 0.
TEST(UndoName, WithANumberThatNoDeviceReachesIsNone)
{
    EXPECT_TRUE(parseUndoName("x-00112233445566ff-999999999999-20240501T120000Z.json").has_value());
    EXPECT_FALSE(parseUndoName("x-00112233445566ff-1000000000000-20240501T120000Z.json").has_value());
    EXPECT_FALSE(parseUndoName("x-00112233445566ff-18446744073709551615-20240501T120000Z.json").has_value());
}

TEST(UndoName, ThatIsNotMadeSoIsNone)
{
    EXPECT_FALSE(parseUndoName("x-00112233445566ff-42-20240501T120000Z.json").has_value());
    EXPECT_FALSE(parseUndoName("x-00112233445566ff-0000042-20240501T120000Z.json").has_value());
}

class UndoNameKey : public testing::Test
{
protected:
    const test::OwnConfiguration own{"[nodes]\n1 = \"/srv/one\"\n2 = \"/srv//one\"\n3 = \"sim:riser\"\n"
                                     "4 = \"sim:riser\"\n"};
};

TEST_F(UndoNameKey, IsTheDevicesWhateverItIsCalled)
{
    const std::string key = keyOf("sim:planar,L,2C0256,A0");
    EXPECT_EQ(16U, key.size());
    EXPECT_EQ(key, keyOf("sim:planar,l,2c0256,a0"));
    EXPECT_EQ(key, keyOf("sim:planar@A0,L,2C0256,A0"));
    EXPECT_EQ(key, keyOf("sim:planar,L,2C0128,A0"));
    EXPECT_EQ(key, keyOf("sim:planar,L,1C0002,A0"));
    for (const char* other : {"sim:planar,L,2C0256,A2", "sim:riser,L,2C0256,A0", "sim:planar,0,2C0256,A0",
                              "sim:planar,3,2C0256,A0", "/dev/i2c-1,L,2C0256,A0", "sim:planar,L,922,80,3,2C0256,A0"}) {
        EXPECT_NE(key, keyOf(other)) << other;
    }
    EXPECT_NE(keyOf("sim:planar,L,922,80,3,2C0256,A0"), keyOf("sim:planar,L,922,80,4,2C0256,A0"));
    EXPECT_NE(key, keyOf("sim:planar,L,2C0256,A0", accessMode::file));
}

TEST_F(UndoNameKey, IsThatOfTheBusHoweverItIsSpelled)
{
    EXPECT_EQ(keyOf("/dev/i2c-1,L,2C0256,A0"), keyOf("/dev/i2c-01,l,2C0256,A0"));
    EXPECT_EQ(keyOf("sim:planar,3,2C0256,A0"), keyOf("sim:planar,4,2C0256,A0"));
    EXPECT_EQ(keyOf("/dev/i2c-1,1,2C0256,A0"), keyOf("/dev/i2c-1,2,2C0256,A0"));
    EXPECT_NE(keyOf("/dev/i2c-1,1,2C0256,A0"), keyOf("/dev/i2c-1,L,2C0256,A0"));
    EXPECT_NE(keyOf("/dev/i2c-1,1,2C0256,A0"), keyOf("/dev/i2c-11,1,2C0256,A0"));
}

/// The hashes of "sim:planar", node, "hardware" and the links, one a line, as older versions made them.
TEST_F(UndoNameKey, OfOlderVersionsAreKnown)
{
    const auto former = [](const std::string& text) {
        return formerUndoKeysOf(parseDeviceText(text), accessMode::hardware);
    };
    EXPECT_THAT(former("sim:planar,L,2C0256,A0"), testing::Contains("d73566cdfcd3a987"));
    EXPECT_THAT(former("sim:planar,L,1C0002,A0"), testing::Contains("d73566cdfcd3a987"));
    EXPECT_THAT(former("sim:planar,L,2C0256,A0"), testing::Contains("92de2e7145045fcb"));
    EXPECT_THAT(former("sim:planar,L,922,80,3,2C0032,A0"), testing::Contains("332e08a5e90c4c49"));
    EXPECT_THAT(former("sim:planar,0,2C0256,A0"), testing::Not(testing::Contains("d73566cdfcd3a987")));
    device copied = parseDeviceText("sim:planar,4,2C0256,A0");
    copied.number = 7;
    EXPECT_THAT(formerUndoKeysOf(copied, accessMode::file), testing::Contains("cea27db0a7b86da0"));
}

TEST(UndoName, TimesOfBothFormsAreRead)
{
    EXPECT_EQ(1714564800000, undoTimeIn("x-00112233445566ff-000042-20240501T120000Z.json"));
    EXPECT_EQ(1714564800000, undoTimeIn("planar-vpd-20240501T120000Z.json"));
    EXPECT_EQ(1714564800000, undoTimeIn("planar-vpd-20240501T120000Z-3.json"));
    EXPECT_EQ(std::nullopt, undoTimeIn("notes.json"));
    EXPECT_EQ(std::nullopt, undoTimeIn("x-00112233445566ff-000042-20249901T120000Z.json"));
}

TEST(UndoName, LabelsAreSafeInFileNames)
{
    EXPECT_EQ("sim_planar_L_2C0256_A0", undoLabel("sim:planar,L,2C0256,A0"));
    EXPECT_EQ("______etc_passwd", undoLabel("../../etc/passwd"));
    EXPECT_EQ(48U, undoLabel(std::string(300, 'x')).size());
}

} // namespace
} // namespace kest::tools
