/// kestctl on adapters with limits: it works as on any other, or says what the adapter lacks.
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

} // namespace
} // namespace kest::test
