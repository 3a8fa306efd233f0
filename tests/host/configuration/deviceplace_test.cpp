#include "platform/host/configuration/deviceplace.h"

#include <gtest/gtest.h>

#include "platform/host/configuration/configurationfile.h"
#include "tests/host/host_support.h"

namespace kest::test
{
namespace
{

using host::nodeMap;
using host::placedType;
using host::placesOf;

/// Node 1 is a folder, node 2 the root, nodes 3 and 4 one node of the simulated machine; the others are not mapped.
nodeMap someNodes()
{
    nodeMap nodes;
    nodes[1].pathPrefix = "/srv/node1/";
    nodes[2].pathPrefix = "/";
    nodes[3].simNode = "riser";
    nodes[4].simNode = "riser";
    return nodes;
}

/// The device's own place; empty for a text of another form.
std::string placeOf(const char* text)
{
    const std::vector<placedType> places = placesOf(text, someNodes());
    return places.empty() ? "" : places.back().place;
}

TEST(DevicePlaces, AreTheSameInEverySpelling)
{
    EXPECT_EQ("sim\n\nplanar\nA0", placeOf("sim:planar,L,2C0256,A0"));
    for (const char* text :
         {"sim:planar,l,2C0256,A0", "sim:planar,L,2c0256,a0", "sim:planar,L,0x2C0256,0xA0",
          "sim:planar,L,002C0256,00A0", "sim:planar@A0,L,2C0256,A0", "sim:planar@a4,L,1C0002,0Xa0"}) {
        EXPECT_EQ("sim\n\nplanar\nA0", placeOf(text)) << text;
    }
    EXPECT_EQ("/dev/i2c-3\nA0", placeOf("/dev/i2c-3,L,2C0256,A0"));
    EXPECT_EQ("/dev/i2c-3\nA0", placeOf("/dev/i2c-003@A0,L,2C0256,A0"));
    EXPECT_EQ("/dev/i2c-0\nA0", placeOf("/dev/i2c-00,L,2C0256,A0"));
}

TEST(DevicePlaces, AreThoseAfterNodeMapping)
{
    EXPECT_EQ("/srv/node1/dev/i2c-3\nA0", placeOf("/dev/i2c-3,1,2C0256,A0"));
    EXPECT_EQ("/dev/i2c-3\nA0", placeOf("/dev/i2c-3,2,2C0256,A0"));
    EXPECT_EQ("sim\nriser\nplanar\nA0", placeOf("sim:planar,3,2C0256,A0"));
    EXPECT_EQ("sim\nriser\nplanar\nA0", placeOf("sim:planar,4,2C0256,A0"));
    // a node without a mapping of that kind
    EXPECT_EQ("node\n5\nplanar\nA0", placeOf("sim:planar,5,2C0256,A0"));
    EXPECT_EQ("node\n3\n3\nA0", placeOf("/dev/i2c-3,3,2C0256,A0"));
}

TEST(DevicePlaces, NameTheHubsOnTheWay)
{
    const std::vector<placedType> places = placesOf("sim:planar,L,F0,70,01,922,80,3,2C0128,A2", {});
    ASSERT_EQ(3U, places.size());
    EXPECT_EQ("sim\n\nplanar\n70", places[0].place);
    EXPECT_EQ(0xF0U, places[0].type);
    EXPECT_EQ("sim\n\nplanar\n70,1\n80", places[1].place);
    EXPECT_EQ(0x922U, places[1].type);
    EXPECT_EQ(0x80, places[1].address);
    EXPECT_EQ("sim\n\nplanar\n70,1\n80,3\nA2", places[2].place);
    EXPECT_EQ(0x2C0128U, places[2].type);
    EXPECT_EQ(0xA2, places[2].address);
}

TEST(DevicePlaces, OfATextOfAnotherFormAreNone)
{
    for (const char* text : {"",
                             ",",
                             "sim:planar",
                             "sim:planar,L",
                             "sim:planar,L,2C0256",
                             "sim:planar,L,2C0256,A0,1",
                             "sim:planar,L,2C0256,A0,1,75",
                             "sim:,L,2C0256,A0",
                             "/dev/i2c-,L,2C0256,A0",
                             "/dev/i2c-x,L,2C0256,A0",
                             "/dev/i2c--1,L,2C0256,A0",
                             "nonsense,L,2C0256,A0",
                             "sim:planar,8,2C0256,A0",
                             "sim:planar,,2C0256,A0",
                             "sim:planar,L,2C0256,100",
                             "sim:planar,L,1000000,A0",
                             "sim:planar,L,-1,A0",
                             "sim:planar,L,2C0256,A0 ",
                             "sim:planar,L,0x,A0",
                             "sim:planar,L,922,80,100,75,90",
                             "sim:planar,L,,A0"}) {
        EXPECT_EQ("", placeOf(text)) << text;
    }
}

/// What the configuration reports about two devices of the table.
class DevicesAtOnePlace : public testing::Test
{
protected:
    std::string errorOf(const std::string& first, const std::string& second, const std::string& more = "")
    {
        const std::filesystem::path file =
            folder.write("kest.toml", "[[device]]\nnumber = 1\nlocation = \"" + first + "\"\nname = \"one\"\n\n" +
                                          "[[device]]\nnumber = 2\nlocation = \"" + second + "\"\n" + more);
        const std::string error = host::readConfiguration(file).error;
        const std::string name = file.string() + ":";
        return error.starts_with(name) ? error.substr(name.size()) : error;
    }
    HostFolder folder;
};

TEST_F(DevicesAtOnePlace, OfDifferentTypesAreAnErrorThatNamesBoth)
{
    EXPECT_EQ("8:12: key 'device.location': device 0x2 has type 1C0002 at the place where one (line 3) has type 2C0256",
              errorOf("sim:planar,L,2C0256,A0", "sim:planar@A0,l,1c0002,0xa0"));
    EXPECT_EQ("8:12: key 'device.location': two has type 9554 at the place where one (line 3) has type 9555",
              errorOf("/dev/i2c-1,L,9555,40", "/dev/i2c-01,L,9554,40", "name = \"two\"\n"));
    EXPECT_EQ("8:12: key 'device.location': device 0x2 has type 1C0002 at the place where one (line 3) has type 2C0128",
              errorOf("sim:planar,L,922,80,3,2C0128,A2", "sim:planar,L,922,80,3,1C0002,A2"));
    // the node map stands behind the devices
    EXPECT_EQ("8:12: key 'device.location': device 0x2 has type 75 at the place where one (line 3) has type 92",
              errorOf("sim:planar,3,92,90", "sim:planar,4,75,90", "[nodes]\n3 = \"sim:riser\"\n4 = \"sim:riser\"\n"));
}

TEST_F(DevicesAtOnePlace, CountsTheHubsOnTheWay)
{
    EXPECT_EQ("8:12: key 'device.location': device 0x2 has type 9554 at the place where one (line 3) has type 922",
              errorOf("sim:planar,L,922,80,3,2C0128,A2", "sim:planar,L,9554,80"));
    EXPECT_EQ("8:12: key 'device.location': device 0x2 has type F0 at the place where one (line 3) has type 922",
              errorOf("sim:planar,L,922,80,3,2C0128,A2", "sim:planar,L,F0,80,4,2C0128,A2"));
}

TEST_F(DevicesAtOnePlace, OfOneTypeAreAlike)
{
    EXPECT_EQ("", errorOf("sim:planar,L,2C0256,A0", "sim:planar@A0,l,2c0256,a0"));
    EXPECT_EQ("", errorOf("sim:planar,L,922,80,3,2C0128,A2", "sim:planar,L,922,80,4,1C0002,A2"));
    EXPECT_EQ("", errorOf("sim:planar,L,2C0256,A0", "sim:planar,1,1C0002,A0"));
    EXPECT_EQ("", errorOf("sim:planar,L,2C0256,A0", "sim:second,L,1C0002,A0"));
    // texts that are no device's are not compared
    EXPECT_EQ("", errorOf("somewhere", "somewhere"));
}

} // namespace
} // namespace kest::test
