#include <csignal>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;

using KestctlPort = MachineTest;
using KestctlThermal = MachineTest;

TEST_F(KestctlPort, LedPatternIsWrittenAndReadBack)
{
    EXPECT_EQ("panel-leds: pins 0,3,4,5 on\n", says({"port", "write", "panel-leds", "on", "--pins", "0,3-5"}));
    EXPECT_EQ("panel-leds: 0xFFC6\nhigh: 1,2,6,7,8,9,10,11,12,13,14,15\nlow:  0,3,4,5\n",
              says({"port", "read", "panel-leds"}));
    EXPECT_EQ("panel-leds: pins 3 off\n", says({"port", "write", "panel-leds", "off", "8"}));
    EXPECT_EQ("panel-leds: 0x00CE\nhigh: 1,2,3,6,7\nlow:  0,4,5\n",
              says({"port", "read", "panel-leds", "--mask", "0xFF"}));
}

TEST_F(KestctlPort, CopySetsThePinsOfTheMaskAlone)
{
    EXPECT_EQ("panel-leds: pins 0,1,2,3 set to 0x5\n",
              says({"port", "write", "panel-leds", "copy", "0x35", "--mask", "0x0F"}));
    EXPECT_EQ(
        json::parse(
            R"({"device":"panel-leds","text":"sim:planar,L,9552,C0","type":"PCA9552","mask":65535,"value":65525})"),
        json::parse(says({"port", "read", "panel-leds", "--json"})));
}

TEST_F(KestctlPort, BlinkingShowsInTheMachine)
{
    EXPECT_EQ("fan-leds: prescaler0 is 0x2B\n", says({"port", "config", "fan-leds", "prescaler0", "43"}));
    EXPECT_EQ("fan-leds: duty0 is 0x40\n", says({"port", "config", "fan-leds", "duty0", "0x40"}));
    EXPECT_EQ("fan-leds: pins 1 blink0\n", says({"port", "write", "fan-leds", "blink0", "--pins", "1"}));
    const std::string shown = says({"sim", "show"});
    EXPECT_THAT(shown, HasSubstr("PSC0      0x2B\n"));
    EXPECT_THAT(shown, HasSubstr("PWM0      0x40\n"));
    EXPECT_THAT(shown, HasSubstr("LS0       0x59  pin 0 off, 1 blink0, 2 off, 3 off\n"));
}

TEST_F(KestctlPort, BlinkingWithDuty0IsLowAndHoldsHubsInReset)
{
    says({"port", "config", "fan-leds", "duty1", "0"});
    says({"port", "write", "fan-leds", "blink1", "--pins", "2"});
    EXPECT_EQ("fan-leds: 0xFB\n", says({"port", "read", "fan-leds"}).substr(0, 15));
    EXPECT_EQ(0, kestctl({"detect", "riser-vpd"}).exit);
    says({"port", "config", "panel-leds", "duty0", "0"});
    says({"port", "write", "panel-leds", "blink0", "--pins", "15", "--yes"});
    EXPECT_THAT(says({"sim", "show"}), HasSubstr("reset     0x01  held in reset\n"));
    EXPECT_EQ(4, kestctl({"detect", "riser-vpd"}).exit);
}

TEST_F(KestctlPort, ExpanderPinsBecomeOutputsAndShowTheirLevel)
{
    EXPECT_EQ("card-presence: 0xFFF5\n", says({"port", "read", "card-presence"}).substr(0, 22));
    EXPECT_EQ("card-presence: pins 0,8 low\n", says({"port", "write", "card-presence", "low", "--pins", "0,8"}));
    EXPECT_EQ("card-presence: pins 0,8 are outputs\n",
              says({"port", "config", "card-presence", "output", "--pins", "0,8"}));
    EXPECT_EQ("card-presence: 0xFEF4\n", says({"port", "read", "card-presence"}).substr(0, 22));
    EXPECT_EQ("card-presence: pins 8 are inputs\n", says({"port", "config", "card-presence", "input", "0x100"}));
    EXPECT_EQ("card-presence: 0xFFF4\n", says({"port", "read", "card-presence"}).substr(0, 22));
    EXPECT_EQ("card-presence: polarity1 is 0xF0\n", says({"port", "config", "card-presence", "polarity1", "0xF0"}));
    EXPECT_EQ("card-presence: 0x0FF4\n", says({"port", "read", "card-presence"}).substr(0, 22));
}

TEST_F(KestctlPort, AnswersInJson)
{
    EXPECT_EQ(
        json::parse(
            R"({"device":"straps","text":"sim:planar,L,9554,42","type":"PCA9554","operation":"high","bits":1,"mask":1})"),
        json::parse(says({"port", "write", "straps", "high", "1", "--json"})));
    EXPECT_EQ(
        json::parse(
            R"({"device":"straps","text":"sim:planar,L,9554,42","type":"PCA9554","function":"output","value":3})"),
        json::parse(says({"port", "config", "straps", "output", "3", "--json"})));
}

TEST_F(KestctlPort, AHubsResetLineAsksFirst)
{
    constexpr const char* question = "Pin 15 of panel-leds is the reset line of the hubs at 80 = 0x40 and 88 = 0x44.";
    const RunResult refused = kestctl({"port", "write", "panel-leds", "low", "--pins", "14,15"});
    EXPECT_EQ(3, refused.exit);
    EXPECT_EQ(std::string("kestctl: ") + question + " not confirmed; --yes confirms it\n", refused.errors);
    // pin 15 is in the mask
    EXPECT_EQ(3, kestctl({"port", "write", "panel-leds", "copy", "0xFFFF"}).exit);
    EXPECT_EQ(0, kestctl({"port", "write", "panel-leds", "copy", "0xFFFF", "--mask", "0x7FFF"}).exit);
    EXPECT_EQ(0xFFFF, json::parse(says({"port", "read", "panel-leds", "--json"})).at("value"));

    EXPECT_EQ(0, kestctl({"detect", "riser-vpd"}).exit);
    says({"port", "write", "panel-leds", "low", "--pins", "15", "--yes"});
    EXPECT_NE(std::string::npos, says({"scan", "sim:planar", "--json"}).find("\"address\": 160"));
    // the hub is in reset
    EXPECT_EQ(std::string::npos, says({"scan", "sim:planar", "--json"}).find("\"address\": 128"));
    says({"port", "write", "panel-leds", "high", "--pins", "15", "--yes"});
    EXPECT_NE(std::string::npos, says({"scan", "sim:planar", "--json"}).find("\"address\": 128"));
}

TEST_F(KestctlPort, ConfirmationIsTypedOnATerminal)
{
    const RunResult no =
        kestctl({"port", "write", "panel-leds", "low", "--pins", "15"}, {.input = "n\n", .terminal = true});
    EXPECT_EQ(3, no.exit);
    EXPECT_THAT(no.output, HasSubstr("reset line of the hubs at 80 = 0x40 and 88 = 0x44. Go on? [y/N] "));
    EXPECT_THAT(no.output, HasSubstr("not confirmed, nothing was done"));
    EXPECT_EQ(0xFFFF, json::parse(says({"port", "read", "panel-leds", "--json"})).at("value"));
    EXPECT_EQ(0,
              kestctl({"port", "write", "panel-leds", "low", "--pins", "15"}, {.input = "y\n", .terminal = true}).exit);
    EXPECT_EQ(0x7FFF, json::parse(says({"port", "read", "panel-leds", "--json"})).at("value"));
}

TEST_F(KestctlPort, AMissingDeviceIsAbsent)
{
    const RunResult result = kestctl({"port", "read", "sim:planar,L,9552,C6"});
    EXPECT_EQ(4, result.exit);
    EXPECT_THAT(result.errors, HasSubstr("kestctl: sim:planar,L,9552,C6: port read: nothing answers at C6 = 0x63; "));
}

TEST_F(KestctlThermal, ReadsDegreesAndTheRawWord)
{
    EXPECT_EQ("inlet-temp: 25.5 C (0x1980)\n", says({"thermal", "read", "inlet-temp"}));
    EXPECT_EQ("cpu-temp: 48.25 C (0x1820)\n", says({"thermal", "read", "cpu-temp"}));
    const json sample = json::parse(says({"thermal", "read", "cpu-temp", "--json"}));
    EXPECT_EQ("cpu-temp", sample.at("device"));
    EXPECT_EQ("LM92", sample.at("type"));
    EXPECT_EQ(0x1820, sample.at("raw"));
    EXPECT_DOUBLE_EQ(48.25, sample.at("celsius"));
}

TEST_F(KestctlThermal, BelowZeroAndElevenBits)
{
    const std::filesystem::path file = machine() / "machine.toml";
    std::string text = readFile(file);
    text.replace(text.find("celsius = 25.5"), 14, "celsius = -10.125\nbits = 11");
    text.replace(text.find("celsius = 48.25"), 15, "celsius = -0.0625");
    writeFile(file, text);
    EXPECT_EQ("inlet-temp: -10.125 C (0xF5E0)\n", says({"thermal", "read", "inlet-temp"}));
    const json sample = json::parse(says({"thermal", "read", "cpu-temp", "--json"}));
    EXPECT_DOUBLE_EQ(-0.0625, sample.at("celsius"));
}

// A read of 32 KiB at 400 kHz takes 0.74 s of bus time: a conversion of the LM75 takes 0.3 s, one of the LM92 1 s.
TEST_F(KestctlThermal, PowerCycleBeginsWithAConversion)
{
    says({"sim", "power-cycle"});
    EXPECT_EQ("inlet-temp: 0 C (0x0000)\n", says({"thermal", "read", "inlet-temp"}));
    says({"seeprom", "read", "planar-vpd", "-o", (folder() / "planar.bin").string()});
    EXPECT_EQ("inlet-temp: 25.5 C (0x1980)\n", says({"thermal", "read", "inlet-temp"}));
    EXPECT_EQ("cpu-temp: 0 C (0x0000)\n", says({"thermal", "read", "cpu-temp"}));
    says({"seeprom", "read", "planar-vpd", "-o", (folder() / "again.bin").string()});
    EXPECT_EQ("cpu-temp: 48.25 C (0x1820)\n", says({"thermal", "read", "cpu-temp"}));
}

// The second byte of 25.5 C is 0x80: after four of its bits a 0 comes.
TEST_F(KestctlThermal, AReadThatIsCutOffHoldsTheBusUntilAReset)
{
    says({"sim", "fault", "add", "short", "--address", "0x90", "--way", "read", "--byte", "1", "--count", "1"});
    EXPECT_EQ(1, kestctl({"thermal", "read", "inlet-temp"}).exit);
    const RunResult held = kestctl({"detect", "planar-vpd"});
    EXPECT_EQ(1, held.exit);
    EXPECT_THAT(held.errors, HasSubstr("the bus is held: SDA stays low"));
    EXPECT_EQ("sim:planar: reset, the bus is free\n", says({"reset", "sim:planar"}));
    EXPECT_EQ("inlet-temp: 25.5 C (0x1980)\n", says({"thermal", "read", "inlet-temp"}));
}

TEST_F(KestctlThermal, WatchesUntilInterrupted)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        Program watch("kestctl", {"thermal", "read", "inlet-temp", "--watch", "0.01", "--json"}, configured());
        for (int sample = 0; sample < 3; ++sample) {
            const auto line = watch.readLine();
            ASSERT_TRUE(line.has_value());
            EXPECT_EQ(0x1980, json::parse(*line).at("raw")) << *line;
        }
        watch.sendSignal(signal);
        const RunResult result = watch.finish();
        EXPECT_EQ(0, result.exit);
        EXPECT_EQ("", result.errors);
        EXPECT_EQ('\n', result.output.back());
    }
}

TEST_F(KestctlThermal, CountEndsAWatchAndAFailedSampleDoesNot)
{
    says({"sim", "fault", "add", "nack", "--address", "0x90", "--nth", "2", "--until-reset"});
    const RunResult result = kestctl({"thermal", "read", "inlet-temp", "--watch", "0", "--count", "3", "--json"});
    EXPECT_EQ(4, result.exit);
    std::vector<json> samples;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        samples.push_back(json::parse(line));
    }
    ASSERT_EQ(3U, samples.size());
    EXPECT_EQ(4, samples.back().at("error").at("exit_code"));
}

TEST_F(KestctlPort, RefusedLockFolderIsReportedWithTheCommandThatMendsIt)
{
    const std::string folder = std::filesystem::canonical(machine()).string();
    std::filesystem::permissions(machine(), std::filesystem::perms(0777));
    const RunResult refused = kestctl({"port", "write", "panel-leds", "on", "--pins", "0"});
    EXPECT_EQ(3, refused.exit);
    EXPECT_NE(std::string::npos, refused.errors.find("everybody could exchange the locks in '" + folder +
                                                     "'; as its owner: chmod +t '" + folder + "'"))
        << refused.errors;
    std::filesystem::permissions(machine(), std::filesystem::perms(01777));
    says({"port", "write", "panel-leds", "on", "--pins", "0"});
}

} // namespace
} // namespace kest::test
