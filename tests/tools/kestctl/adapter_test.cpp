/// kestctl on adapters with limits: it works as on any other, or says what the adapter lacks.
#include <algorithm>
#include <gmock/gmock.h>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

class KestctlAdapter : public MachineTest
{
protected:
    /// Gives the bus of the demo machine an adapter.
    void use(const std::string& keys) const
    {
        const std::string head = "[[bus]]\n";
        std::string text = readFile(machine() / "machine.toml");
        const std::size_t at = text.find(head);
        ASSERT_NE(std::string::npos, at);
        writeFile(machine() / "machine.toml", text.insert(at + head.size(), "adapter = { " + keys + " }\n"));
    }
};

TEST_F(KestctlAdapter, TopologyShowsItsLimitsBesideTheBus)
{
    EXPECT_THAT(says({"topology"}), StartsWith("sim:planar\n"));
    EXPECT_FALSE(json::parse(says({"topology", "--json"})).at("buses").at(0).contains("adapter"));
    use("message_bytes = 32, messages = 2");
    EXPECT_THAT(says({"topology"}),
                StartsWith("sim:planar  (adapter: at most 32 bytes a message; at most 2 messages a transaction)\n"));
    EXPECT_EQ("adapter: at most 32 bytes a message; at most 2 messages a transaction",
              json::parse(says({"topology", "--json"})).at("buses").at(0).at("adapter"));
}

const std::vector<std::vector<std::string>> jobs{
    {"detect"},
    {"seeprom", "read", "planar-vpd", "--length", "300"},
    {"seeprom", "write", "planar-vpd", "--offset", "0x7F00", "--hex", "000102030405060708090A0B", "--yes"},
    {"seeprom", "read", "riser-vpd", "--length", "40"},
    {"seeprom", "write", "fan-vpd", "--offset", "0xF0", "--hex", "A1A2A3", "--yes"},
    {"port", "write", "panel-leds", "on", "--pins", "0,3"},
    {"port", "read", "card-presence"},
    {"thermal", "read", "cpu-temp"},
};

class KestctlOnAnyAdapter : public KestctlAdapter, public testing::WithParamInterface<const char*>
{
};
INSTANTIATE_TEST_SUITE_P(Kinds, KestctlOnAnyAdapter,
                         testing::Values("message_bytes = 8", "messages = 2", "timeout_ms = 50", "absent = \"timeout\"",
                                         "no_empty_messages = true"));

TEST_P(KestctlOnAnyAdapter, DoesEverythingAsOnOneWithoutLimits)
{
    std::vector<std::string> expected;
    for (const auto& words : jobs) {
        expected.push_back(says(words));
    }
    says({"seeprom", "write", "planar-vpd", "--offset", "0x7F00", "--hex", "FFFFFFFFFFFFFFFFFFFFFFFF", "--yes"});
    says({"seeprom", "write", "fan-vpd", "--offset", "0xF0", "--hex", "FFFFFF", "--yes"});
    use(GetParam());
    for (std::size_t index = 0; index < jobs.size(); ++index) {
        const RunResult result = kestctl(jobs[index]);
        EXPECT_EQ(0, result.exit) << result.errors;
        // each write has an undo file of its own
        if (jobs[index].size() == 1 || jobs[index][1] != "write") {
            EXPECT_EQ(expected[index], result.output);
        }
    }
    const std::string image = readFile(machine() / "system.bin");
    EXPECT_EQ(std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B", 12), image.substr(0x7F00, 12));
    EXPECT_EQ("\xA1\xA2\xA3", readFile(machine() / "fan.bin").substr(0xF0, 3));
}

/// A command that an adapter cannot serve, and what is said about it.
struct Refused {
    const char* keys;
    std::vector<std::string> words;
    const char* text;
};
std::ostream& operator<<(std::ostream& out, const Refused& each) { return out << each.keys << " " << each.words[0]; }

class KestctlRefusal : public KestctlAdapter, public testing::WithParamInterface<Refused>
{
};
INSTANTIATE_TEST_SUITE_P(
    All, KestctlRefusal,
    testing::Values(
        Refused{"smbus = \"blocks\"",
                {"seeprom", "read", "planar-vpd"},
                "kestctl: planar-vpd: read: the adapter lacks a call that moves such bytes (adapter: SMBus calls only, "
                "with at most 32 bytes); "},
        Refused{"smbus = \"words\"",
                {"thermal", "read", "inlet-temp"},
                "kestctl: inlet-temp: thermal read: the adapter lacks a call that moves such bytes (adapter: SMBus "
                "calls only, "
                "with at most 2 bytes); "},
        Refused{"smbus = \"words\"",
                {"port", "write", "panel-leds", "on", "--pins", "0"},
                "kestctl: panel-leds: port write: the adapter lacks messages and transactions as long as this transfer "
                "needs (adapter: SMBus calls only, with at most 2 bytes); "},
        Refused{"messages = 1",
                {"seeprom", "write", "panel-vpd", "--hex", "00", "--yes"},
                "kestctl: panel-vpd: read the old bytes: the adapter lacks messages and transactions as long as this "
                "transfer needs "
                "(adapter: at most 1 message a transaction); "},
        Refused{"stop_between = true",
                {"seeprom", "read", "riser-vpd"},
                "kestctl: riser-vpd: read: the adapter lacks a repeated START, which a read through a hub needs "
                "(adapter: a STOP between messages); "}));

TEST_P(KestctlRefusal, SaysWhatTheAdapterLacks)
{
    use(GetParam().keys);
    const RunResult result = kestctl(GetParam().words);
    EXPECT_EQ(1, result.exit);
    EXPECT_THAT(result.errors, HasSubstr(GetParam().text));
}

TEST_F(KestctlAdapter, ScanAsksOnlyWhatItCanAskWithoutHarm)
{
    use("no_empty_messages = true");
    const std::string text = says({"scan", "sim:planar"});
    EXPECT_THAT(text, HasSubstr("50: 50 -- 52 53 54 -- "));
    // a read could take something from what is there
    EXPECT_THAT(text, HasSubstr("40: ?? ?? "));
    EXPECT_THAT(text, HasSubstr("80 = 0x40  922 hub    uncertain: not supported\n"));
    EXPECT_THAT(says({"topology", "--probe"}), HasSubstr("80 = 0x40  922 hub  failed\n"));
}

TEST_F(KestctlAdapter, TimeOutOfAnAbsentDeviceNamesTheAdaptersKind)
{
    use("absent = \"timeout\"");
    const RunResult result = kestctl({"seeprom", "read", "sim:planar,L,1C0002,AE"});
    EXPECT_EQ(1, result.exit);
    EXPECT_THAT(result.errors, HasSubstr("(adapter: a time-out where nobody acknowledges); "));
}

/// An adapter that loses bits behind stretched clocks, and a 24C02 that stretches them: panel-vpd.
class KestctlLostBits : public KestctlAdapter
{
protected:
    void start(const std::string& content) const
    {
        use("stretching = \"loses-bits\"");
        const std::string image = "image = \"panel.bin\"\n";
        std::string text = readFile(machine() / "machine.toml");
        const std::size_t at = text.find(image);
        ASSERT_NE(std::string::npos, at);
        writeFile(machine() / "machine.toml", text.insert(at, "stretch_us = 10\n"));
        writeFile(machine() / "panel.bin", content);
    }
    /// Runs a command as often as it takes to end well so many times. @return what it said these times
    [[nodiscard]] std::vector<RunResult> successes(unsigned count, const std::vector<std::string>& command) const
    {
        std::vector<RunResult> good;
        for (int tries = 0; tries < 300 && good.size() < count; ++tries) {
            RunResult result = kestctl(command);
            if (result.exit == 0) {
                good.push_back(std::move(result));
            } else {
                EXPECT_EQ(1, result.exit);
                EXPECT_THAT(result.errors, HasSubstr("a byte was not acknowledged"));
            }
        }
        EXPECT_EQ(count, good.size());
        return good;
    }
};

// 0x81 comes as 0xC0 one time in four.
TEST_F(KestctlLostBits, AVoteNamesTheOffsetsThatWavered)
{
    start(std::string(256, '\x81'));
    const std::vector<std::string> voted{"seeprom",  "read", "panel-vpd", "--offset", "0x40",
                                         "--length", "4",    "--voted",   "9",        "--json"};
    for (const RunResult& result : successes(3, voted)) {
        const json shown = json::parse(result.output);
        const auto bytes = shown.at("data").get<std::string>();
        const auto wavered = shown.at("wavered").get<std::vector<unsigned>>();
        EXPECT_FALSE(wavered.empty());
        for (unsigned at = 0; at < 4; ++at) {
            const std::string byte = bytes.substr(2 * at, 2);
            const bool named = std::ranges::count(wavered, 0x40 + at) != 0;
            EXPECT_TRUE(byte == "81" || (named && byte == "c0")) << byte;
            EXPECT_EQ(named, result.errors.find("0x4" + std::to_string(at)) != std::string::npos) << result.errors;
        }
    }
}

TEST_F(KestctlLostBits, VerifyFindsBytesThatDiffer)
{
    const std::string content(256, '\x81');
    start(content);
    writeFile(folder() / "want.bin", content);
    std::map<int, int> exits;
    for (int i = 0; i < 20; ++i) {
        const RunResult result = kestctl({"seeprom", "verify", "panel-vpd", (folder() / "want.bin").string()});
        ++exits[result.exit];
        EXPECT_EQ(result.exit == 5, result.output.find(" of 256 bytes differ") != std::string::npos) << result.output;
    }
    // the offset is refused, or some of 256 bytes are wrong
    EXPECT_EQ(20, exits[1] + exits[5]);
    EXPECT_LT(0, exits[1]);
    EXPECT_LT(0, exits[5]);
}

// A write may end without the chip's acknowledge, with its page written, or with bytes that were read back wrong.
TEST_F(KestctlLostBits, AWriteLeavesTheOldBytesOrTheNewOnes)
{
    start(std::string(256, '\x81'));
    std::map<int, int> exits;
    for (int i = 0; i < 25; ++i) {
        const char first = static_cast<char>('0' + i % 10);
        const std::string before = readFile(machine() / "panel.bin");
        const RunResult result = kestctl({"seeprom", "write", "panel-vpd", "--offset", "0x40", "--hex",
                                          std::string("0") + first + "020304", "--yes"});
        std::string written = before;
        written.replace(0x40, 4, std::string(1, static_cast<char>(i % 10)) + "\x02\x03\x04");
        const std::string after = readFile(machine() / "panel.bin");
        EXPECT_TRUE(after == written || (result.exit != 0 && after == before)) << result.exit << result.errors;
        ++exits[result.exit];
    }
    EXPECT_LT(0, exits[1]);
    // 3: the reads of the proof differed
    EXPECT_EQ(25, exits[0] + exits[1] + exits[3] + exits[5]) << "another exit code";
}

class KestctlSlowChips : public KestctlAdapter
{
};

TEST_F(KestctlSlowChips, BeyondTheStretchLimitTheFailureNamesTheAdaptersKind)
{
    use("stretch_limit_us = 95");
    // a hub holds SCL for 96 us ahead of the first byte of a 24C128, and for 73.5 us ahead of a 24C02's
    const RunResult refused = kestctl({"seeprom", "read", "riser-vpd"});
    EXPECT_EQ(1, refused.exit);
    EXPECT_THAT(refused.errors, HasSubstr("(adapter: clock stretching of at most 95 microseconds)"));
    // what the hub sends then, a status, begins with a 0
    EXPECT_EQ("sim:planar: reset, the bus is free\n", says({"reset", "sim:planar"}));
    says({"seeprom", "read", "fan-vpd"});
    says({"seeprom", "read", "planar-vpd"});
}

} // namespace
} // namespace kest::test
