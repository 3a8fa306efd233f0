/// Devices that do not answer: absent, in a write cycle, held by another, on a held bus. Each has its text, exit code and
/// verdict, also in the error entry.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "platform/host/iic/bus_sim.h"
#include "platform/host/iic/locks.h"
#include "tests/host/iic_support.h"
#include "tests/host/usedconfiguration.h"
#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;

class KestctlDiagnosis : public SeepromTest
{
protected:
    /// The object "error" of a failing command, and its one line checked.
    json errorOf(int exit, std::vector<std::string> words, const std::string& line) const
    {
        words.insert(words.begin(), "--json");
        const RunResult result = kestctl(words);
        EXPECT_EQ(exit, result.exit) << result.errors;
        EXPECT_THAT(result.errors, MatchesRegex("kestctl: " + line + " \\[log 0x[0-9A-F]+\\]\n"));
        const json said = json::parse(result.output, nullptr, false);
        return said.is_discarded() || !said.contains("error") ? json::object() : said.at("error");
    }
    /// What kestctl added to the latest error entry.
    [[nodiscard]] std::string verdictOfLastEntry() const
    {
        const json entry = json::parse(says({"errors", "show", "last", "--json"}));
        for (const json& details : entry.at("user_details")) {
            if (details.at("component") == 0x1700 && details.at("subsection") == 9) {
                return details.at("text");
            }
        }
        return "";
    }
    /// A page of panel-vpd begins a write cycle of that many ms of bus time, at the end of which nobody has waited.
    void startWriteCycle(const std::string& milliseconds) const
    {
        fault({"stuck-write-cycle", "--bus", "planar", "--address", "0xA4", "--count", "1", "--value", milliseconds});
        EXPECT_EQ(1, kestctl({"seeprom", "write", "panel-vpd", "--hex", "5A", "--all-pages", "--yes", "--force"}).exit);
    }

private:
    UsedConfiguration m_used{machine() / "kest.toml"};
};

TEST_F(KestctlDiagnosis, AnAbsentDevice)
{
    const json error = errorOf(4, {"seeprom", "read", "sim:planar,L,2C0256,AE", "--length", "1"},
                               "sim:planar,L,2C0256,AE: read: nothing answers at AE = 0x57; check address and power; "
                               "'kestctl scan sim:planar' "
                               "shows what does");
    EXPECT_EQ("absent", error.at("verdict"));
    EXPECT_EQ("absent: nothing answers at AE = 0x57", verdictOfLastEntry());
}

TEST_F(KestctlDiagnosis, ADeviceInAWriteCycleThatEndsALittleLater)
{
    // the write, its diagnosis and its reading back take about 780 ms of bus time
    startWriteCycle("870");
    const json error = errorOf(6, {"seeprom", "read", "panel-vpd", "--length", "1"},
                               "panel-vpd: read: the chip did not acknowledge for the whole wait, and does now: it was "
                               "in a write cycle; try again in a moment");
    EXPECT_EQ("write-cycle", error.at("verdict"));
    EXPECT_EQ("write-cycle: the chip did not acknowledge for the whole wait, and does now: it was in a write cycle",
              verdictOfLastEntry());
    EXPECT_EQ(0, kestctl({"seeprom", "read", "panel-vpd", "--length", "1"}).exit);
}

TEST_F(KestctlDiagnosis, ADetectionInAWriteCycle)
{
    startWriteCycle("870");
    EXPECT_THAT(complaint(6, {"detect", "panel-vpd"}),
                MatchesRegex("panel-vpd: detect: the chip did not acknowledge for the whole wait, and does now: it was "
                             "in a write cycle; try again in a moment \\[log 0x[0-9A-F]+\\]"));
    EXPECT_EQ(0, kestctl({"detect", "panel-vpd"}).exit);
}

TEST_F(KestctlDiagnosis, AWriteCycleThatTakesLongerThanTheWriteWaits)
{
    fault({"stuck-write-cycle", "--bus", "planar", "--address", "0xA4", "--count", "1", "--value", "300"});
    const std::vector<std::string> write{"seeprom", "write",       "panel-vpd", "--hex",
                                         "5A",      "--all-pages", "--yes",     "--force"};
    const std::string line = complaint(1, write);
    EXPECT_THAT(line, HasSubstr("panel-vpd: write: the chip's write cycle took longer than the write waited for; it is "
                                "over now; "));
    clearFaults();
    fault({"stuck-write-cycle", "--bus", "planar", "--address", "0xA4", "--count", "1", "--value", "300"});
    std::vector<std::string> patient = write;
    patient.insert(patient.end(), {"--write-cycle", "100"});
    EXPECT_EQ(0, kestctl(patient).exit);
}

TEST_F(KestctlDiagnosis, AWriteCycleThatDoesNotEnd)
{
    fault({"stuck-write-cycle", "--bus", "planar", "--address", "0xA4", "--count", "1"});
    EXPECT_THAT(
        complaint(1, {"seeprom", "write", "panel-vpd", "--hex", "5A", "--all-pages", "--yes", "--force"}),
        HasSubstr("panel-vpd: write: the chip does not come back from the write cycle of a page; how many bytes "
                  "arrived is not known: reading back failed, too; "));
}

/// The write lock of the layer is held by this process, and the chip is silent.
TEST_F(KestctlDiagnosis, ADeviceThatAnotherProgramWritesTo)
{
    std::shared_ptr<host::iic::bus> wires;
    ASSERT_EQ(0, host::iic::openSimulatedBus(machine(), false, "planar", "", wires));
    host::iic::addressLocks other(wires->identity());
    ASSERT_TRUE(other.beginWrite(0xA4, std::chrono::milliseconds(0)));
    fault({"nack", "--bus", "planar", "--address", "0xA4"});
    const json error = errorOf(6, {"seeprom", "read", "panel-vpd", "--length", "1"},
                               "panel-vpd: read: the chip is in a write cycle: another program writes to it; try again "
                               "in a moment");
    EXPECT_EQ("write-cycle", error.at("verdict"));
    other.endWrite();
    EXPECT_EQ(4, kestctl({"seeprom", "read", "panel-vpd", "--length", "1"}).exit);
}

TEST_F(KestctlDiagnosis, ADeviceThatIsHeldByAnother)
{
    OpenDevice other("sim:planar");
    Bytes record = registerLock(0xC0, 500);
    ASSERT_EQ((Answer{0, 0}), other.config(2, 17, record.data(), 8));
    const json error = errorOf(6, {"port", "read", "panel-leds"},
                               "panel-leds: port read: somebody else holds it; try again in a moment");
    EXPECT_EQ("held", error.at("verdict"));
    EXPECT_EQ("held: somebody else holds it", verdictOfLastEntry());
}

TEST_F(KestctlDiagnosis, ABusThatIsHeld)
{
    fault({"hold-sda", "--bus", "planar"});
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"seeprom", "read", "panel-vpd", "--length", "1"},
                                               {"seeprom", "read", "riser-vpd", "--length", "1"},
                                               {"port", "read", "panel-leds"},
                                               {"thermal", "read", "inlet-temp"}}) {
        const json error = errorOf(1, words,
                                   words[2] + ": [a-z ]*: the bus is held: SDA stays low; 'kestctl reset sim:planar' "
                                              "frees a held bus");
        EXPECT_EQ("bus-held", error.value("verdict", "")) << testing::PrintToString(words);
    }
    EXPECT_EQ("bus-held: the bus is held: SDA stays low", verdictOfLastEntry());
    EXPECT_THAT(complaint(1, {"detect", "panel-vpd"}), HasSubstr("detect: the bus is held: SDA stays low; "));
    clearFaults();
    says({"sim", "power-cycle"});
    fault({"hold-scl", "--bus", "planar"});
    EXPECT_THAT(complaint(1, {"seeprom", "read", "panel-vpd", "--length", "1"}),
                HasSubstr("read: the bus is held: SCL stays low; no reset frees SCL: power-cycle what holds it"));
}

/// A sensor has no write cycle.
TEST_F(KestctlDiagnosis, ADeviceThatWasAwayForAMoment)
{
    const std::string events = file("events.toml", "[[event]]\nat_ms = 0\nbus = \"planar\"\ndo = \"remove\"\n"
                                                   "address = 0x90\n[[event]]\nat_ms = 80\nbus = \"planar\"\n"
                                                   "do = \"insert\"\naddress = 0x90\n");
    says({"sim", "play", events});
    const json error =
        errorOf(1, {"thermal", "read", "inlet-temp"},
                "inlet-temp: thermal read: it did not acknowledge its address, and does now; try again; a "
                "loose contact or a reset does that");
    EXPECT_EQ("returned", error.at("verdict"));
    EXPECT_EQ(0, kestctl({"thermal", "read", "inlet-temp"}).exit);
}

TEST_F(KestctlDiagnosis, AChipThatIsAskedTooFast)
{
    const json error = errorOf(
        4, {"seeprom", "read", "panel-vpd", "--length", "4", "--speed", "1000"},
        "panel-vpd: read: nothing answers at A4 = 0x52 with 1000 kHz; at the bus's own speed the chip does; try "
        "a lower --speed");
    EXPECT_EQ("too-fast", error.at("verdict"));
}

/// It makes no entry of the error log.
TEST_F(KestctlDiagnosis, AProbeTellsWhatTheBusShows)
{
    EXPECT_EQ("sim:planar,L,1C0002,AE: probe: nothing answers at AE = 0x57; check address and power; 'kestctl scan "
              "sim:planar' shows what does",
              complaint(4, {"seeprom", "probe", "sim:planar,L,1C0002,AE"}));
    startWriteCycle("870");
    EXPECT_EQ("panel-vpd: probe: the chip did not acknowledge for the whole wait, and does now: it was in a write "
              "cycle; try again in a moment",
              complaint(6, {"seeprom", "probe", "panel-vpd"}));
    fault({"hold-scl", "--bus", "planar"});
    EXPECT_EQ("panel-vpd: probe: the bus is held: SCL stays low; no reset frees SCL: power-cycle what holds it",
              complaint(1, {"seeprom", "probe", "panel-vpd"}));
}

} // namespace
} // namespace kest::test
