/// Addresses in the other form: every area says so when nothing answers at one and something does at the other.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/kestd_support.h"
#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;

class KestctlWrongForm : public SeepromTest
{
protected:
    /// Rows of the device table with 7-bit addresses, which are other places in the 8-bit form.
    KestctlWrongForm()
    {
        const auto toml = machine() / "kest.toml";
        writeFile(toml, readFile(toml) + "\n[[device]]\nnumber = 0x51\nname = \"vpd7\"\nlocation = "
                                         "\"sim:planar,L,2C0256,50\"\n"
                                         "[[device]]\nnumber = 0x52\nname = \"leds7\"\nlocation = "
                                         "\"sim:planar,L,9552,60\"\n"
                                         "[[device]]\nnumber = 0x53\nname = \"temp7\"\nlocation = "
                                         "\"sim:planar,L,75,48\"\n"
                                         "[[device]]\nnumber = 0\nname = \"zero\"\nlocation = "
                                         "\"sim:planar,L,2C0256,A0\"\n");
    }
    static constexpr const char* vpd =
        "nothing answers at 50 = 0x28; a device answers at A0 = 0x50: write A0, addresses are in the 8-bit form";
};

TEST_F(KestctlWrongForm, IsPointedOutInEveryArea)
{
    Daemon service(folder(), {"--config", (machine() / "kest.toml").string()});
    ASSERT_TRUE(service.isReady()) << service.errors();
    const std::string some = file("some", "0123");
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"seeprom", "read", "vpd7", "--length", "4"},
                                               {"seeprom", "verify", "vpd7", some},
                                               {"seeprom", "diff", "vpd7", some},
                                               {"seeprom", "dump", "vpd7", "--length", "4"},
                                               {"seeprom", "write", "vpd7", "--hex", "00", "--yes"},
                                               {"copy", "capture", "vpd7"},
                                               {"detect", "vpd7"},
                                               {"message", "read", "vpd7", "--length", "4"},
                                               {"message", "write", "vpd7", "--hex", "00", "--yes"}}) {
        EXPECT_THAT(complaint(4, command), HasSubstr(vpd)) << testing::PrintToString(command);
    }
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"port", "read", "leds7"},
                                               {"port", "write", "leds7", "on", "1"},
                                               {"port", "config", "leds7", "duty0", "1"}}) {
        EXPECT_THAT(complaint(4, command),
                    HasSubstr("nothing answers at 60 = 0x30; a device answers at C0 = 0x60: write C0"))
            << testing::PrintToString(command);
    }
    EXPECT_THAT(complaint(4, {"thermal", "read", "temp7"}),
                HasSubstr("nothing answers at 48 = 0x24; a device answers at 90 = 0x48: write 90"));
}

TEST_F(KestctlWrongForm, IsPointedOutByAScan)
{
    const std::string text = says({"scan", "sim:planar"});
    EXPECT_THAT(text, HasSubstr("\nvpd7 of the device table: nothing answers; a device answers at A0 = 0x50: write A0, "
                                "addresses are in the 8-bit form\nleds7 of the device table: nothing answers; "));
    EXPECT_THAT(text,
                HasSubstr("\ntemp7 of the device table: nothing answers; a device answers at 90 = 0x48: write 90"));
    const json hints = json::parse(says({"scan", "sim:planar", "--json"})).at("hints");
    ASSERT_EQ(3U, hints.size());
    EXPECT_EQ("vpd7", hints[0].at("device"));
    EXPECT_EQ("a device answers at A0 = 0x50: write A0, addresses are in the 8-bit form", hints[0].at("hint"));
}

TEST_F(KestctlWrongForm, IsPointedOutBehindAHub)
{
    // riser-vpd is at A2 behind port 3, a 24C02 at A4 behind port 1
    EXPECT_THAT(complaint(4, {"seeprom", "read", "sim:planar,L,922,80,1,1C0002,52", "--length", "4"}),
                HasSubstr("the device behind the hub does not answer at 52 = 0x29, port 1; a device answers at A4 = "
                          "0x52: write A4, addresses are in the 8-bit form"));
    // of the other width: the hub refuses it, so it is there
    EXPECT_THAT(complaint(4, {"detect", "sim:planar,L,922,80,1,2C0256,52"}),
                HasSubstr("; a device answers at A4 = 0x52: write A4"));
    EXPECT_THAT(complaint(4, {"seeprom", "read", "sim:planar,L,922,80,2,1C0002,52", "--length", "4"}),
                testing::Not(HasSubstr("a device answers")));
    // no status stays in the hub
    says({"seeprom", "read", "riser-vpd", "--length", "4"});
}

} // namespace
} // namespace kest::test
