#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

/// Devices that are named in the form of other tools.
class KestctlFieldText : public MachineTest
{
};

TEST_F(KestctlFieldText, NamesADevice)
{
    EXPECT_EQ("sim:planar:24c256@50: 24C256 at A0 = 0x50: present\n", says({"detect", "sim:planar:24c256@50"}));
    EXPECT_EQ("sim:planar:LM75@0x48: LM75 at 90 = 0x48: present\n", says({"detect", "sim:planar:LM75@0x48"}));
    EXPECT_EQ("sim:planar:922@40/3:24c128@51: 24C128 at A2 = 0x51: present\n",
              says({"detect", "sim:planar:922@40/3:24c128@51"}));
}

TEST_F(KestctlFieldText, StaysAsTypedBesideTheCanonicalText)
{
    const json row = json::parse(says({"detect", "--json", "sim:planar:24c256@50"})).at("devices").at(0);
    EXPECT_EQ("sim:planar:24c256@50", row.at("device"));
    EXPECT_EQ("sim:planar,L,2C0256,A0", row.at("text"));
    EXPECT_EQ(160, row.at("address"));
    EXPECT_EQ(80, row.at("address7"));
}

TEST_F(KestctlFieldText, WorksForReadingWritingAndComparing)
{
    const std::string named = says({"seeprom", "read", "riser-vpd", "--length", "64"});
    EXPECT_EQ(named, says({"seeprom", "read", "sim:planar:922@40/3:24c128@51", "--length", "64"}));
    EXPECT_EQ(0, kestctl({"seeprom", "write", "sim:planar:24c02@52", "--hex", "4142", "--yes", "--force"}).exit);
    EXPECT_THAT(says({"seeprom", "read", "panel-vpd", "--length", "2"}), HasSubstr("41 42"));
    EXPECT_EQ(0, kestctl({"seeprom", "diff", "panel-vpd", "sim:planar:24c02@52"}).exit);
}

TEST_F(KestctlFieldText, NamesTheBusOfADevice)
{
    EXPECT_EQ(says({"scan", "sim:planar"}), says({"scan", "sim:planar:lm75@48"}));
    EXPECT_THAT(kestctl({"scan", "i2c-977"}).errors, StartsWith("kestctl: /dev/i2c-977: open: there is no such bus"));
}

TEST_F(KestctlFieldText, DumpFilesAndEntriesHaveTheCanonicalText)
{
    const json dump = json::parse(says({"seeprom", "dump", "sim:planar:24c02@52", "-o", "-"}));
    EXPECT_EQ("sim:planar,L,1C0002,A4", dump.at("device"));
    const RunResult result = kestctl({"seeprom", "read", "sim:planar:24c02@57"});
    EXPECT_EQ(4, result.exit);
    EXPECT_THAT(result.errors, StartsWith("kestctl: sim:planar:24c02@57: read: nothing answers"));
    const json list = json::parse(says({"errors", "list", "--json"}));
    EXPECT_EQ("sim:planar@AE", list.at("entries").at(0).at("device"));
}

TEST_F(KestctlFieldText, HintsAtAnAddressInTheWrongForm)
{
    // 40 is the expander's address in the 8-bit form
    EXPECT_THAT(kestctl({"detect", "sim:planar:pca9555@42"}).errors,
                HasSubstr("a device answers at 42 = 0x21: write 21, behind '@' addresses are in the 7-bit form"));
    const RunResult refused = kestctl({"detect", "sim:planar:24c256@A0"});
    EXPECT_EQ(2, refused.exit);
    EXPECT_THAT(refused.errors, HasSubstr("write 'sim:planar:24c256@50'"));
}

class KestctlDetectTypes : public MachineTest
{
};

/// It is detected by a read of its type.
TEST_F(KestctlDetectTypes, BehindAHubATypeThatTheTableDoesNotHaveIsRefusedUnlessForced)
{
    const RunResult refused = kestctl({"detect", "sim:planar,L,922,80,3,2C0256,A2"});
    EXPECT_EQ(3, refused.exit);
    EXPECT_THAT(refused.errors, HasSubstr("the device table has a 24C128, riser-vpd, at A2 = 0x51; name riser-vpd, or "
                                          "--force takes the type that you give"));
    EXPECT_EQ(0, kestctl({"detect", "sim:planar,L,922,80,3,2C0256,A2", "--force"}).exit);
    EXPECT_EQ(0, kestctl({"detect", "sim:planar,L,2C0128,A0"}).exit) << "on the bus itself the address alone is asked";
}

} // namespace
} // namespace kest::test
