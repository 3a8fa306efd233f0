/// --dry-run of every verb that changes anything: it says what it would do, and nothing changes.
#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;

using Words = std::vector<std::string>;

/// What a verb does, and a command of it that would change something.
struct VerbRow {
    std::string verb;
    Words arguments = {}; ///< empty: it changes nothing. OUT: a new file
    Words before = {}; ///< a command that makes something to change; empty: none
    bool needsService = false; ///< run elsewhere
};

const std::vector<VerbRow>& verbs()
{
    static const std::vector<VerbRow> rows{
        {.verb = "seeprom read", .arguments = {"planar-vpd", "-o", "OUT"}},
        {.verb = "seeprom show"},
        {.verb = "seeprom write", .arguments = {"planar-vpd", "--hex", "a5", "--offset", "300"}},
        {.verb = "seeprom verify"},
        {.verb = "seeprom diff"},
        {.verb = "seeprom dump", .arguments = {"planar-vpd", "-o", "OUT"}},
        {.verb = "seeprom restore", .arguments = {"DUMP"}},
        {.verb = "seeprom probe"},
        {.verb = "seeprom undo",
         .arguments = {"panel-vpd"},
         .before = {"seeprom", "write", "panel-vpd", "--hex", "77", "--offset", "40", "--yes", "--force",
                    "--width-unproved"}},
        {.verb = "seeprom set", .arguments = {"planar-vpd", "serial_number=X1"}},
        {.verb = "seeprom make", .arguments = {"tlvinfo", "serial_number=X1", "-o", "OUT"}},
        {.verb = "copy list"},
        {.verb = "copy capture", .arguments = {"planar-vpd"}},
        {.verb = "copy verify"},
        {.verb = "copy import", .arguments = {"77", "BYTES"}},
        {.verb = "copy export", .arguments = {"panel-vpd", "OUT"}, .before = {"copy", "capture", "panel-vpd", "--yes"}},
        {.verb = "copy remove", .arguments = {"panel-vpd"}, .before = {"copy", "capture", "panel-vpd", "--yes"}},
        {.verb = "message read", .arguments = {"planar-vpd", "-o", "OUT"}, .needsService = true},
        {.verb = "message write", .arguments = {"panel-vpd", "--hex", "a5", "--offset", "40"}},
        {.verb = "message location"},
        {.verb = "port read"},
        {.verb = "port write", .arguments = {"panel-leds", "on", "--pins", "0,3-5"}},
        {.verb = "port config", .arguments = {"straps", "output", "--pins", "4-7"}},
        {.verb = "detect"},
        {.verb = "thermal read"},
        {.verb = "scan"},
        {.verb = "topology"},
        {.verb = "buses"},
        {.verb = "init", .arguments = {"sim:planar", "-o", "OUT"}},
        {.verb = "devices"},
        {.verb = "reset", .arguments = {"sim:planar"}},
        {.verb = "errors list"},
        {.verb = "errors show"},
        {.verb = "errors export", .arguments = {"OUT"}},
        {.verb = "errors clear", .arguments = {}, .before = {"devices"}},
        {.verb = "trace"},
        {.verb = "sim new", .arguments = {"OUT"}},
        {.verb = "sim show"},
        {.verb = "sim fault add", .arguments = {"nack", "--bus", "planar"}},
        {.verb = "sim fault list"},
        {.verb = "sim fault clear", .arguments = {"1"}, .before = {"sim", "fault", "add", "nack", "--address", "0x10"}},
        {.verb = "sim wave start", .arguments = {"planar", "OUT"}},
        {.verb = "sim wave stop", .arguments = {"planar"}, .before = {"sim", "wave", "start", "planar", "WAVE"}},
        {.verb = "sim play", .arguments = {"SCENARIO"}},
        {.verb = "sim power-cycle", .arguments = {}, .before = {"port", "write", "panel-leds", "on", "--pins", "0"}},
    };
    return rows;
}

bool changes(const VerbRow& row) { return !row.arguments.empty() || !row.before.empty(); }

Words wordsOf(const std::string& verb)
{
    std::istringstream text(verb);
    return {std::istream_iterator<std::string>(text), {}};
}

/// The verbs below a command, by its help; itself when there are none. Those with --dry-run have true.
void findVerbs(const std::string& command, std::map<std::string, bool>& found)
{
    Words words = wordsOf(command);
    words.emplace_back("--help");
    std::istringstream text(run("kestctl", words).output);
    bool listing = false;
    bool hasVerbs = false;
    bool hasDryRun = false;
    for (std::string line; std::getline(text, line);) {
        hasDryRun = hasDryRun || line.starts_with("  --dry-run ");
        if (listing && line.size() > 2 && line.starts_with("  ") && line[2] != ' ') {
            hasVerbs = true;
            findVerbs((command.empty() ? "" : command + " ") + line.substr(2, line.find(' ', 2) - 2), found);
        }
        listing = !line.empty() && (listing || line == "Subcommands:");
    }
    if (!hasVerbs) {
        found[command] = hasDryRun;
    }
}

class KestctlDryRun : public SeepromTest
{
protected:
    KestctlDryRun()
    {
        writeFile(folder() / "bytes", std::string(256, 'b'));
        writeFile(folder() / "scenario", "[[event]]\nat_ms = 1\nbus = \"planar\"\ndo = \"remove\"\naddress = 0xA0\n");
        says({"seeprom", "dump", "planar-vpd", "-o", (folder() / "dump").string()});
        // other bytes than the dump has
        std::string other = image("system");
        other[30000] = static_cast<char>(other[30000] ^ 1);
        writeFile(machine() / "system.bin", other);
        // an entry of the error log
        EXPECT_EQ(4, kestctl({"detect", "sim:planar,L,2C0256,AC"}).exit);
    }

    /// A command with the files of this test.
    [[nodiscard]] Words filled(Words words) const
    {
        const std::map<std::string, std::string> names{
            {"OUT", "out"}, {"DUMP", "dump"}, {"BYTES", "bytes"}, {"WAVE", "wave.vcd"}, {"SCENARIO", "scenario"}};
        for (std::string& word : words) {
            if (const auto found = names.find(word); found != names.end()) {
                word = (folder() / found->second).string();
            }
        }
        return words;
    }

    /// Every file with its bytes but what each process and each transaction changes: traces, locks, the state of the
    /// machine, whose faults and registers are here in words, and a recording. Registers of LED drivers and
    /// expanders are among them.
    [[nodiscard]] std::map<std::string, std::string> everything() const
    {
        std::map<std::string, std::string> all;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder())) {
            const std::string name = entry.path().lexically_relative(folder()).string();
            const bool passing = name.find("/trace/") != name.npos || name.find("machine.state") != name.npos ||
                                 name.find("/iic.") != name.npos || name.find(".vcd") != name.npos ||
                                 name.find("errors.db") != name.npos;
            if (entry.is_regular_file() && !passing) {
                all[name] = readFile(entry.path());
            }
        }
        const json shown = json::parse(says({"sim", "show", "--json"}));
        all["chips"] = shown.at("chips").dump();
        all["faults"] = shown.at("faults").dump();
        for (const json& each : shown.at("registers")) {
            // a read moves it
            if (each.at("name") != "counter") {
                all["registers"] += each.dump();
            }
        }
        all["entries"] = says({"errors", "list", "--json"});
        return all;
    }

    /// The names of what differs.
    [[nodiscard]] static std::set<std::string> differing(const std::map<std::string, std::string>& one,
                                                         const std::map<std::string, std::string>& other)
    {
        std::set<std::string> names;
        for (const auto& [from, to] : {std::pair(&one, &other), std::pair(&other, &one)}) {
            for (const auto& [name, content] : *from) {
                const auto found = to->find(name);
                if (found == to->end() || found->second != content) {
                    names.insert(name);
                }
            }
        }
        return names;
    }

    void expectNoChange(const VerbRow& row)
    {
        if (!row.before.empty()) {
            says(filled(row.before));
        }
        if (!row.before.empty() || m_before.empty()) {
            m_before = everything();
        }
        Words command = wordsOf(row.verb);
        const Words arguments = filled(row.arguments);
        command.insert(command.end(), arguments.begin(), arguments.end());
        command.emplace_back("--dry-run");
        const RunResult text = kestctl(command);
        EXPECT_EQ(0, text.exit) << text.errors;
        EXPECT_THAT(text.output, HasSubstr("would"));
        command.emplace_back("--json");
        const RunResult asJson = kestctl(command);
        EXPECT_EQ(0, asJson.exit) << asJson.errors;
        EXPECT_EQ(true, json::parse(asJson.output, nullptr, false).value("dry_run", false)) << asJson.output;
        EXPECT_EQ(std::set<std::string>{}, differing(m_before, everything()));
        EXPECT_FALSE(std::filesystem::exists(folder() / "out"));
    }

private:
    std::map<std::string, std::string> m_before;
};

/// A new verb has its row above. One that changes anything has a command there that would, and the option.
TEST_F(KestctlDryRun, BelongsToEveryVerbThatChangesAnything)
{
    std::map<std::string, bool> found;
    findVerbs("", found);
    std::map<std::string, bool> expected;
    for (const VerbRow& row : verbs()) {
        expected[row.verb] = changes(row);
    }
    EXPECT_EQ(expected, found);
}

TEST_F(KestctlDryRun, ChangesNothing)
{
    for (const VerbRow& row : verbs()) {
        if (changes(row) && !row.needsService) {
            SCOPED_TRACE(row.verb);
            expectNoChange(row);
        }
    }
}

/// What a reset changes is no part of everything().
TEST_F(KestctlDryRun, OfResetLeavesTheBusHeld)
{
    fault({"hold-sda", "--bus", "planar", "--count", "1"});
    EXPECT_THAT(complaint(1, {"detect", "planar-vpd"}), HasSubstr("the bus is held"));
    says({"reset", "sim:planar", "--dry-run"});
    EXPECT_THAT(complaint(1, {"detect", "planar-vpd"}), HasSubstr("the bus is held"));
    says({"reset", "sim:planar"});
    says({"detect", "planar-vpd"});
}

TEST_F(KestctlDryRun, OfAllDevicesMakesNoFolder)
{
    const std::string folderName = (folder() / "all").string();
    EXPECT_THAT(says({"seeprom", "dump", "--all", folderName, "--dry-run"}),
                HasSubstr("planar-vpd: 32.0 KiB would be in " + folderName + "/planar-vpd.json\n"));
    EXPECT_FALSE(std::filesystem::exists(folderName));
}

TEST_F(KestctlDryRun, SaysWhatItWouldDo)
{
    EXPECT_EQ("panel-leds: would set pins 0,3,4,5 on\n",
              says({"port", "write", "panel-leds", "on", "--pins", "0,3-5", "--dry-run"}));
    EXPECT_EQ("panel-leds: would set pins 0,1,2,3 to 0xA\n",
              says({"port", "write", "panel-leds", "copy", "0x0A", "--mask", "0x0F", "--dry-run"}));
    EXPECT_EQ("straps: pins 4,5,6,7 would be outputs\n",
              says({"port", "config", "straps", "output", "--pins", "4-7", "--dry-run"}));
    EXPECT_EQ("panel-leds: prescaler0 would be 0x2B\n",
              says({"port", "config", "panel-leds", "prescaler0", "43", "--dry-run"}));
    EXPECT_EQ("copy 77: would hold 256 bytes\n", says(filled({"copy", "import", "77", "BYTES", "--dry-run"})));
    EXPECT_EQ("1 error entry would be deleted\n", says({"errors", "clear", "--dry-run"}));
    EXPECT_EQ("sim:planar: would be reset\n", says({"reset", "sim:planar", "--dry-run"}));
    EXPECT_EQ("1 event would come\n", says(filled({"sim", "play", "SCENARIO", "--dry-run"})));
}

/// What would be refused in earnest is refused, with the same words.
TEST_F(KestctlDryRun, RefusesWhatAnEarnestRunRefuses)
{
    const std::vector<std::pair<int, Words>> rows{
        {2, {"port", "write", "straps", "blink0", "--pins", "0"}},
        {2, {"port", "config", "panel-leds", "duty0", "256"}},
        {3, {"port", "write", "sim:planar,L,9551,C0", "on", "1"}},
        {4, {"copy", "remove", "78", "--yes"}},
        {2, {"copy", "import", "panel-vpd", "SCENARIO", "--yes"}},
        {4, {"copy", "export", "planar-vpd", "nowhere/file"}},
        {2, {"message", "write", "panel-vpd"}},
        {4, {"reset", "sim:nosuch"}},
        {1, {"errors", "export", "nowhere/file"}},
        {3, {"sim", "new", "."}},
        {1, {"sim", "new", "bytes/machine"}},
        {2, {"sim", "fault", "add", "nonsense"}},
        {4, {"sim", "fault", "add", "nack", "--bus", "nosuch"}},
        {1, {"sim", "fault", "clear", "77"}},
        {3, {"sim", "wave", "start", "planar", "BYTES"}},
        {1, {"sim", "wave", "start", "planar", "nowhere/file"}},
        {1, {"sim", "wave", "stop", "planar"}},
        {2, {"sim", "play", "BYTES"}},
        {1, {"seeprom", "make", "tlvinfo", "serial_number=X", "-o", "nowhere/file"}},
        {3, {"seeprom", "make", "tlvinfo", "serial_number=X", "-o", "BYTES"}},
        {1, {"seeprom", "read", "panel-vpd", "-o", "nowhere/file"}},
        {1, {"seeprom", "read", "panel-vpd", "-o", "."}},
    };
    for (const auto& [exit, command] : rows) {
        SCOPED_TRACE(testing::PrintToString(command));
        Words words = filled(command);
        const RunResult earnest = kestctl(words, {.folder = folder()});
        words.emplace_back("--dry-run");
        const RunResult dry = kestctl(words, {.folder = folder()});
        EXPECT_EQ(exit, earnest.exit);
        EXPECT_EQ(earnest.exit, dry.exit);
        EXPECT_EQ(earnest.errors, dry.errors);
    }
}

TEST_F(KestctlDryRun, ClearsALogThatThereIsNot)
{
    const std::filesystem::path state = machine() / "state";
    ASSERT_TRUE(std::filesystem::exists(state));
    std::filesystem::remove_all(state);
    EXPECT_EQ("0 error entries would be deleted\n", says({"errors", "clear", "--dry-run"}));
    EXPECT_EQ(0, kestctl({"errors", "clear", "--yes"}, {.folder = folder()}).exit);
}

/// It changes nothing, so there is nothing to confirm.
TEST_F(KestctlDryRun, AsksNothing)
{
    const RunResult result =
        kestctl({"port", "write", "panel-leds", "low", "--pins", "15", "--dry-run"}, {.terminal = true});
    EXPECT_EQ(0, result.exit);
    EXPECT_THAT(result.output, HasSubstr("panel-leds: would set pins 15 low"));
    EXPECT_THAT(result.output, testing::Not(HasSubstr("Go on?")));
}

} // namespace
} // namespace kest::test
