/// What kestctl takes a mistyped word for.
#include <gmock/gmock.h>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using testing::HasSubstr;
using testing::Not;

class KestctlGuess : public SeepromTest
{
};

TEST_F(KestctlGuess, AtAreasVerbsAndOptions)
{
    EXPECT_EQ("there is no 'seerpom'; did you mean 'seeprom'? 'kestctl --help' shows how",
              complaint(2, {"seerpom", "read", "planar-vpd"}));
    EXPECT_EQ("there is no 'raed'; did you mean 'read'? 'kestctl seeprom --help' shows how",
              complaint(2, {"seeprom", "raed", "planar-vpd"}));
    EXPECT_EQ("there is no 'ad'; 'kestctl sim fault --help' shows how", complaint(2, {"sim", "fault", "ad"}));
    EXPECT_EQ("'--lenght=4' was not expected; did you mean '--length'? 'kestctl seeprom read --help' shows how",
              complaint(2, {"seeprom", "read", "planar-vpd", "--lenght=4"}));
    EXPECT_EQ("'--lenght' was not expected; did you mean '--length'? 'kestctl seeprom read --help' shows how",
              complaint(2, {"seeprom", "read", "planar-vpd", "--lenght", "4"}));
    // an option of all verbs
    EXPECT_THAT(complaint(2, {"seeprom", "read", "planar-vpd", "--jsno"}), HasSubstr("did you mean '--json'?"));
}

TEST_F(KestctlGuess, AtNames)
{
    EXPECT_EQ("planr-vpd: no such device in the device table; did you mean 'planar-vpd'? 'kestctl devices' lists them; "
              "or give a device text PATH,NODE,TYPE,ADDRESS or BUS:PART@ADDR7",
              complaint(4, {"detect", "planr-vpd"}));
    EXPECT_EQ("sim:plnaar: open: the simulated machine has no such bus; it has planar; did you mean 'planar'?",
              complaint(4, {"scan", "sim:plnaar"}));
    EXPECT_THAT(complaint(4, {"sim", "wave", "stop", "plana"}), HasSubstr("did you mean 'planar'?"));
    EXPECT_THAT(complaint(2, {"seeprom", "set", "planar-vpd", "serailNumber=X"}),
                HasSubstr("did you mean 'serialNumber'? fields: "));
    EXPECT_THAT(complaint(2, {"seeprom", "make", "tlvnifo", "-o", "-"}),
                HasSubstr("did you mean 'tlvinfo'? formats: "));
    EXPECT_EQ("planar-vpd: show: 'tlvinf' is no format; did you mean 'tlvinfo'? one of beaglebone, ddr3, ddr4, ddr5, "
              "edid, fru, sff8472, sff8636, tlvinfo",
              complaint(2, {"seeprom", "show", "planar-vpd", "--as", "tlvinf"}));
    EXPECT_EQ("mode 'hardwrae': expected hardware, file, mixed or registry; did you mean 'hardware'?",
              complaint(2, {"seeprom", "read", "planar-vpd", "--mode", "hardwrae"}));
    EXPECT_THAT(complaint(2, {"port", "write", "panel-leds", "blnik0", "1"}), HasSubstr("did you mean 'blink0'?"));
    EXPECT_THAT(complaint(2, {"port", "config", "panel-leds", "prescalar0=3"}),
                HasSubstr("did you mean 'prescaler0'?"));
    EXPECT_THAT(complaint(2, {"sim", "new", "x", "--template", "rakc"}),
                HasSubstr("did you mean 'rack'? the templates"));
}

TEST_F(KestctlGuess, AtNamesOfDevicesWhereFilesAreTakenToo)
{
    EXPECT_EQ("planr-vpd: show: there is no such device and no such file; did you mean 'planar-vpd'? 'kestctl devices' "
              "lists the devices",
              complaint(4, {"seeprom", "show", "planr-vpd"}));
    EXPECT_EQ("panl-vpd: diff: there is no such device and no such file; did you mean 'panel-vpd'? 'kestctl devices' "
              "lists the devices",
              complaint(4, {"seeprom", "diff", "planar-vpd", "panl-vpd"}));
}

/// It would be the word itself.
TEST_F(KestctlGuess, IsNoneAtAnOptionInTheWrongPlace)
{
    EXPECT_EQ(
        "'--wait' stands in the wrong place: it is an option of 'kestctl detect'; 'kestctl detect --help' shows how",
        complaint(2, {"--wait", "5", "detect", "planar-vpd"}));
}

/// 24c04 is the name of another part, not of a 24c02.
TEST_F(KestctlGuess, AtPartsKeepsTheDigits)
{
    EXPECT_THAT(complaint(2, {"detect", "sim:planar:24x256@50"}), HasSubstr("did you mean '24C256'?"));
    EXPECT_THAT(complaint(2, {"detect", "sim:planar:pac9552@60"}), HasSubstr("did you mean 'PCA9552'?"));
    EXPECT_THAT(complaint(2, {"detect", "sim:planar:24c04@50"}), Not(HasSubstr("did you mean")));
    EXPECT_THAT(complaint(2, {"detect", "sim:planar:lm57@48"}), Not(HasSubstr("did you mean")));
}

TEST_F(KestctlGuess, AtKeysOfTheConfiguration)
{
    writeFile(machine() / "kest.toml", "[defaults]\nquite = true\n");
    EXPECT_THAT(complaint(2, {"devices"}),
                HasSubstr(":2:1: key 'defaults.quite': expected one of the keys quiet, verbose, "));
    EXPECT_THAT(complaint(2, {"devices"}), HasSubstr("found an unknown key; did you mean 'quiet'?"));
}

/// It is shown like any text of a stranger.
TEST_F(KestctlGuess, OfHostileWordsIsNone)
{
    EXPECT_THAT(complaint(2, {"seeprom", "\x1b[31mread"}), Not(HasSubstr("\x1b")));
}

} // namespace
} // namespace kest::test
