/// Devices that another program holds: the test takes their locks through the IIC layer.
#include <gmock/gmock.h>

#include "tests/host/iic_support.h"
#include "tests/host/usedconfiguration.h"
#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using testing::MatchesRegex;

/// This process uses the demo machine, too.
class KestctlBusy : public MachineTest
{
protected:
    /// The one line of a command that must end with exit code 6.
    std::string complaint(std::vector<std::string> arguments) const
    {
        const RunResult result = kestctl(std::move(arguments));
        EXPECT_EQ(6, result.exit) << result.errors;
        EXPECT_EQ("", result.output);
        return result.errors;
    }

private:
    UsedConfiguration m_used{machine() / "kest.toml"};
};

TEST_F(KestctlBusy, AHubThatIsHeld)
{
    OpenDevice other("sim:planar");
    Bytes record = hubLock(0x80, 500);
    ASSERT_EQ((Answer{0, 0}), other.config(2, 17, record.data(), 8));
    EXPECT_THAT(complaint({"seeprom", "read", "riser-vpd", "--length", "16"}),
                MatchesRegex("kestctl: riser-vpd: read: somebody else holds it; try again in a moment "
                             "\\[log 0x[0-9A-F]+\\]\n"));
    // the bus is free
    EXPECT_EQ(0, kestctl({"seeprom", "read", "planar-vpd", "--length", "16"}).exit);
    ASSERT_EQ((Answer{0, 0}), other.config(2, 18, record.data(), 8));
    EXPECT_EQ(0, kestctl({"seeprom", "read", "riser-vpd", "--length", "16"}).exit);
}

TEST_F(KestctlBusy, ARegisterDeviceThatIsHeld)
{
    OpenDevice other("sim:planar");
    Bytes record = registerLock(0xC0, 500);
    ASSERT_EQ((Answer{0, 0}), other.config(2, 17, record.data(), 8));
    EXPECT_THAT(complaint({"port", "read", "panel-leds"}),
                MatchesRegex("kestctl: panel-leds: port read: somebody else holds it; try again in a moment "
                             "\\[log 0x[0-9A-F]+\\]\n"));
    ASSERT_EQ((Answer{0, 0}), other.config(2, 18, record.data(), 8));
    EXPECT_EQ(0, kestctl({"port", "read", "panel-leds"}).exit);
}

} // namespace
} // namespace kest::test
