/// The exit codes of kestctl: the tests bring about each case of the table in docs/kestctl.md.
#include <functional>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/host/iic/bus_sim.h"
#include "platform/host/iic/locks.h"
#include "tests/host/fakekernel.h"
#include "tests/host/iic_support.h"
#include "tests/host/usedconfiguration.h"
#include "tests/tools/kestd_support.h"
#include "tests/tools/seeprom_support.h"
#include "tools/common/bus.h"
#include "tools/common/device.h"
#include "tools/common/failure.h"
#include "tools/common/operation.h"

namespace kest::test
{
namespace
{

/// This process uses the machine, too, so that it can hold locks.
class KestctlExitCodes : public SeepromTest
{
protected:
    using Cases = std::map<std::string, std::function<int()>>; ///< by the words of the document

    int exitOf(std::vector<std::string> words, RunOptions options = {}) const
    {
        return kestctl(std::move(words), std::move(options)).exit;
    }
    /// The common exit code of the commands; -1 when they differ.
    int exitOfAll(const std::vector<std::vector<std::string>>& commands) const
    {
        const int first = exitOf(commands.front());
        for (const std::vector<std::string>& command : commands) {
            if (const int code = exitOf(command); code != first) {
                ADD_FAILURE() << testing::PrintToString(command) << " ends with " << code << ", another with " << first;
                return -1;
            }
        }
        return first;
    }
    /// The exit code of commands while `fault` is in force.
    int exitWithFault(const std::vector<std::string>& what, const std::vector<std::vector<std::string>>& commands) const
    {
        fault(what);
        const int code = exitOfAll(commands);
        clearFaults();
        return code;
    }
    /// The exit code while a file of the machine's folder has other contents.
    int exitWithFile(const std::string& name, const std::string& content,
                     const std::vector<std::vector<std::string>>& commands) const
    {
        const std::string before = readFile(machine() / name);
        writeFile(machine() / name, content);
        const int code = exitOfAll(commands);
        writeFile(machine() / name, before);
        return code;
    }
    [[nodiscard]] Cases done() const;
    [[nodiscard]] Cases failed() const;
    [[nodiscard]] Cases wrongUse() const;
    [[nodiscard]] Cases refused() const;
    [[nodiscard]] Cases absent() const;
    [[nodiscard]] Cases verifyFailed() const;
    [[nodiscard]] Cases busy() const;

private:
    UsedConfiguration m_used{machine() / "kest.toml"};
};

KestctlExitCodes::Cases KestctlExitCodes::done() const
{
    return {{"the command did what it was asked to", [this] { return exitOf({"devices"}); }},
            {"nobody reads the output to its end", [this] { return exitOf({"devices"}, {.closeOutput = true}); }}};
}

KestctlExitCodes::Cases KestctlExitCodes::failed() const
{
    return {{"a transfer failed: a byte was not acknowledged, the bus is held, the chip stayed busy",
             [this] {
                 EXPECT_EQ(1, exitWithFault({"hold-sda", "--count", "1"}, {{"thermal", "read", "inlet-temp"}}));
                 says({"sim", "power-cycle"});
                 return exitWithFault({"nack-data", "--address", "0xA4", "--way", "write"},
                                      {{"seeprom", "write", "panel-vpd", "--hex", "00", "--all-pages", "--yes"}});
             }},
            {"reads through a hub do not settle",
             [this] {
                 for (const char* attempt : {"1", "3", "5", "7", "9"}) {
                     fault({"hub-hold-sda", "--address", "0x80", "--way", "read", "--nth", attempt, "--count", "1"});
                 }
                 const int code = exitOf({"seeprom", "read", "riser-vpd", "--length", "64"});
                 clearFaults();
                 return code;
             }},
            {"`seeprom show` finds no format, or several",
             [this] {
                 return exitOf({"seeprom", "show", file("random", variedBytes(256))});
             }},
            {"fewer bytes came than were asked for",
             [this] {
                 says({"copy", "import", "panel-vpd", file("five", "12345"), "--force"});
                 const int code = exitOf({"seeprom", "read", "panel-vpd", "--mode", "file"});
                 says({"copy", "remove", "panel-vpd", "--yes"});
                 return code;
             }},
            {"the persisted copy is damaged",
             [this] {
                 says({"copy", "capture", "panel-vpd"});
                 const auto copy = machine() / "state/qorn/P3_Root/53250";
                 writeFile(copy, readFile(copy) + "x");
                 const int code = exitOfAll({{"seeprom", "read", "panel-vpd", "--mode", "mixed"},
                                             {"copy", "verify", "panel-vpd"},
                                             {"copy", "export", "panel-vpd", "-"}});
                 says({"copy", "remove", "panel-vpd", "--yes"});
                 return code;
             }},
            {"a file can't be read or written, or the disk is full",
             [this] {
                 return exitOfAll({{"seeprom", "read", "panel-vpd", "-o", "/dev/full"},
                                   {"seeprom", "write", "panel-vpd", "-i", "/no/such/file", "--yes"}});
             }},
            {"there is no undo file of the device",
             [this] {
                 return exitOf({"seeprom", "undo", "fan-vpd", "--yes"});
             }},
            {"the undo file can't be saved; nothing has been written then",
             [this] {
                 const auto undo = machine() / "state/undo";
                 std::filesystem::remove_all(undo);
                 std::filesystem::create_directories(undo.parent_path());
                 writeFile(undo, "");
                 const int code =
                     exitOf({"seeprom", "write", "panel-vpd", "--hex", "5A", "--all-pages", "--yes", "--force"});
                 std::filesystem::remove(undo);
                 return code;
             }},
            {"`seeprom probe` can't tell what part is there",
             [this] {
                 writeFile(machine() / "panel.bin", std::string(256, '\xFF'));
                 return exitOf({"seeprom", "probe", "panel-vpd"});
             }},
            {"no service listens at the socket, or it does not answer in time",
             [this] {
                 return exitOf({"message", "read", "panel-vpd"});
             }},
            {"there is no such error entry or fault", [this] {
                 return exitOfAll({{"errors", "show", "0x7FFFFFFF"}, {"sim", "fault", "clear", "77"}});
             }}};
}

KestctlExitCodes::Cases KestctlExitCodes::wrongUse() const
{
    return {{"an option, a number or a combination of options that is not understood",
             [this] {
                 return exitOfAll({{"seeprom", "read", "panel-vpd", "--voted", "2"},
                                   {"nonsense"},
                                   {"seeprom", "write", "panel-vpd", "--hex", "12", "--length", "2", "--yes"}});
             }},
            {"a device text that is malformed",
             [this] {
                 return exitOf({"detect", "sim:planar,L,2C0256"});
             }},
            {"a device that the command does not serve, or a chain that can't be served",
             [this] {
                 return exitOfAll({{"port", "write", "inlet-temp", "low", "1"},
                                   {"detect", "sim:planar,L,F0,70,1,2C0128,A2"},
                                   {"seeprom", "read", "panel-leds"}});
             }},
            {"an offset or length past the device's end",
             [this] {
                 return exitOf({"seeprom", "read", "panel-vpd", "--offset", "256"});
             }},
            {"a dump file that is damaged, or was saved from another type of device",
             [this] {
                 const std::string dump = (folder() / "dump.json").string();
                 says({"seeprom", "dump", "panel-vpd", "-o", dump});
                 return exitOfAll({{"seeprom", "restore", file("bad.json", readFile(dump) + "x"), "--yes"},
                                   {"seeprom", "restore", dump, "--device", "planar-vpd", "--yes"}});
             }},
            {"a file to import that is larger or smaller than the device",
             [this] {
                 return exitOf({"copy", "import", "panel-vpd", file("five", "12345"), "--yes"});
             }},
            {"a configuration file that is missing or wrong",
             [this] {
                 return exitOfAll({{"--config", (folder() / "none.toml").string(), "devices"},
                                   {"--config", file("bad.toml", "nonsense = 1\n"), "devices"}});
             }},
            {"no simulated machine is configured, or its machine.toml is wrong", [this] {
                 const std::vector<std::vector<std::string>> commands{{"sim", "show"},
                                                                      {"scan", "sim:planar"},
                                                                      {"reset", "sim:planar"},
                                                                      {"detect", "planar-vpd"},
                                                                      {"detect", "riser-vpd"},
                                                                      {"seeprom", "read", "planar-vpd"},
                                                                      {"port", "read", "panel-leds"},
                                                                      {"thermal", "read", "inlet-temp"},
                                                                      {"topology"}};
                 EXPECT_EQ(2, exitOf({"--config", file("none.toml", "state = \"state\"\n"), "sim", "show"}));
                 return exitWithFile("machine.toml", "[[bus]]\nname = 7\n", commands);
             }}};
}

KestctlExitCodes::Cases KestctlExitCodes::refused() const
{
    const auto strange = [this](const std::filesystem::path& path, mode_t mode, std::vector<std::string> words) {
        EXPECT_TRUE(letStrangersIn()) << "a user without rights can't start the programs here";
        struct stat before {
        };
        EXPECT_EQ(0, stat(path.c_str(), &before)) << path;
        EXPECT_EQ(0, chmod(path.c_str(), mode));
        const int code = exitOf(std::move(words), {.stranger = true});
        EXPECT_EQ(0, chmod(path.c_str(), before.st_mode & 07777U));
        return code;
    };
    return {
        {"a file, a bus or the service's socket that this user may not use",
         [this, strange] {
             const auto path = folder() / "socket";
             const int socket = boundSocket(path, SOCK_STREAM);
             const int code = strange(path, 0, {"message", "location", "1", "--socket", path.string()});
             close(socket);
             return code;
         }},
        {"a simulated machine that this user may not use",
         [this, strange] {
             return strange(machine() / "machine.state", 0, {"sim", "show"});
         }},
        {"an error log that this user may not read or clear",
         [this, strange] {
             EXPECT_EQ(4, exitOf({"detect", "sim:planar,L,2C0256,AA"}));
             EXPECT_EQ(3, strange(machine() / "state", 0700, {"errors", "list"}));
             EXPECT_EQ(3, strange(machine() / "state", 0700, {"errors", "show", "last"}));
             EXPECT_EQ(3, strange(machine() / "state/errors.db", 0, {"errors", "export", "-"}));
             EXPECT_EQ(3, strange(machine() / "state", 0700, {"errors", "clear", "--yes"}));
             return strange(machine() / "state", 0555, {"errors", "clear", "--yes"});
         }},
        {"a question that was not confirmed",
         [this] {
             return exitOf({"seeprom", "write", "panel-vpd", "--hex", "5A", "--all-pages"});
         }},
        {"raw bytes to a terminal",
         [this] {
             return exitOf({"seeprom", "read", "panel-vpd", "-o", "-"}, {.terminal = true});
         }},
        {"a device that a kernel driver has",
         [] {
             FakeKernel kernel;
             kernel.held = {0x50};
             try {
                 tools::refuseDoubtfulWrite(tools::parseDeviceText("/dev/i2c-7,L,2C0256,A0"), false);
             } catch (const tools::failure& why) {
                 return static_cast<int>(why.code);
             }
             return 0;
         }},
        {"a device text with another type than the device table has there",
         [this] {
             return exitOfAll({{"seeprom", "write", "sim:planar,L,1C0002,A0", "--hex", "5A", "--yes"},
                               {"seeprom", "read", "sim:planar,L,1C0002,A0"},
                               {"message", "write", "sim:planar,L,1C0002,A0", "--hex", "5A", "--yes"},
                               {"port", "write", "sim:planar,L,9551,C0", "on", "1"}});
         }},
        {"a write to a part that is not the one that the device table expects",
         [this] {
             std::string text = readFile(machine() / "kest.toml");
             text.insert(text.find("name = \"panel-vpd\""), "expect = { offset = 0, bytes = \"0102\" }\n");
             writeFile(machine() / "panel.bin", std::string(256, 'x'));
             return exitWithFile("kest.toml", text, {{"seeprom", "write", "panel-vpd", "--hex", "5A", "--yes"}});
         }},
        {"a write to a part whose offset width is not that of its type",
         [this] {
             return exitOfAll({{"seeprom", "write", "sim:planar,L,2C0256,A4", "--hex", "5A", "--yes", "--force"},
                               {"seeprom", "write", "sim:planar,L,1C0002,A0", "--hex", "5A", "--yes", "--force"}});
         }},
        {"a write to a part whose offset width can't be proved, without a terminal and without `--width-unproved`",
         [this] {
             std::string repeated;
             while (repeated.size() < 256) {
                 repeated += "0123";
             }
             writeFile(machine() / "panel.bin", repeated);
             return exitOf({"seeprom", "write", "panel-vpd", "--hex", "5A", "--yes"});
         }},
        {"a write to a part whose old bytes differ in two reads",
         [this] {
             return exitWithFault({"corrupt", "--address", "0xA4", "--way", "read", "--count", "1", "--byte", "0"},
                                  {{"seeprom", "write", "panel-vpd", "--hex", "5A", "--yes", "--all-pages"}});
         }},
        {"a write that would damage or replace contents of a known format, without a terminal and without `--force`",
         [this] {
             return exitOf({"seeprom", "write", "planar-vpd", "--hex", "00", "--yes"});
         }},
        {"`seeprom set` of contents that are damaged, have no room, or have no fields to set",
         [this] {
             return exitOf({"seeprom", "set", "power-vpd", "serialNumber=1", "--yes"});
         }},
        {"`seeprom set` or `make` into a file that is there",
         [this] {
             return exitOf({"seeprom", "make", "fru", "-o", file("there.bin", "x")});
         }},
        {"`message read` of a device behind a hub",
         [this] {
             return exitOf({"message", "read", "riser-vpd"});
         }},
        {"`sim new` into a folder that has something in it",
         [this] {
             return exitOf({"sim", "new", machine().string()});
         }},
        {"`sim wave start` into a file that is no waveform", [this] {
             return exitOf({"sim", "wave", "start", "planar", (machine() / "kest.toml").string()});
         }}};
}

KestctlExitCodes::Cases KestctlExitCodes::absent() const
{
    return {{"`seeprom show` gets a name that is neither a device nor a file",
             [this] {
                 return exitOf({"seeprom", "show", "nothing"});
             }},
            {"nothing answers at the device's address",
             [this] {
                 return exitOfAll({{"detect", "sim:planar,L,2C0256,AA"},
                                   {"seeprom", "read", "sim:planar,L,2C0256,AA", "--length", "1"},
                                   {"port", "read", "sim:planar,L,9552,C6"},
                                   {"thermal", "read", "sim:planar,L,75,92"}});
             }},
            {"the device behind the hub does not answer",
             [this] {
                 return exitOf({"detect", "sim:planar,L,922,80,3,2C0128,A8"});
             }},
            {"there is no such bus, or its adapter is gone",
             [this] {
                 EXPECT_EQ(4, exitOfAll({{"detect", "sim:nosuch,L,2C0256,A0"},
                                         {"scan", "sim:nosuch"},
                                         {"detect", "/dev/i2c-254,L,2C0256,A0"}}));
                 return exitWithFault(
                     {"gone"},
                     {{"detect", "planar-vpd"}, {"seeprom", "read", "planar-vpd"}, {"thermal", "read", "inlet-temp"}});
             }},
            {"the node is not mapped",
             [this] {
                 return exitOf({"detect", "sim:planar,1,2C0256,A0"});
             }},
            {"the device table has no such name or number",
             [this] {
                 return exitOfAll({{"detect", "nosuch"}, {"detect", "0x7"}});
             }},
            {"there is no persisted copy", [this] {
                 return exitOfAll({{"seeprom", "read", "panel-vpd", "--mode", "file"}, {"copy", "export", "5", "-"}});
             }}};
}

KestctlExitCodes::Cases KestctlExitCodes::verifyFailed() const
{
    return {{"`seeprom show` finds a checksum that is wrong, or other damage",
             [this] {
                 std::string table = readFile(std::string(sourceFolder) + "/examples/images/tlvinfo-4096-switch.bin");
                 table.at(20) ^= 1;
                 return exitOf({"seeprom", "show", file("damaged", table)});
             }},
            {"what is read back after a write differs from what was written",
             [this] {
                 writeFile(machine() / "panel.bin", variedBytes(256));
                 std::string text = readFile(machine() / "machine.toml");
                 text.insert(text.find("image = \"panel.bin\""), "protect = \"silent\"\n");
                 return exitWithFile("machine.toml", text, {{"seeprom", "write", "panel-vpd", "--hex", "5A", "--yes"}});
             }},
            {"`verify` or `diff` finds a difference", [this] {
                 const std::string other = file("other", std::string(256, 'x'));
                 return exitOfAll({{"seeprom", "verify", "panel-vpd", other}, {"seeprom", "diff", "panel-vpd", other}});
             }}};
}

KestctlExitCodes::Cases KestctlExitCodes::busy() const
{
    return {
        {"another program is at work on the device",
         [this] {
             const auto other = tools::operationLockOf(tools::findDevice("panel-vpd"), tools::operationUse::write);
             EXPECT_EQ(0, other->attempt({}));
             return exitOfAll({{"seeprom", "read", "panel-vpd", "--wait", "0"},
                               {"seeprom", "write", "panel-vpd", "--hex", "00", "--yes", "--wait", "0.001"}});
         }},
        {"somebody else holds the hub or device",
         [this] {
             OpenDevice other("sim:planar");
             Bytes hub = hubLock(0x80, 500);
             Bytes device = registerLock(0xC0, 500);
             EXPECT_EQ((Answer{0, 0}), other.config(2, 17, hub.data(), 8));
             EXPECT_EQ((Answer{0, 0}), other.config(2, 17, device.data(), 8));
             const int code =
                 exitOfAll({{"seeprom", "read", "riser-vpd", "--length", "16"}, {"port", "read", "panel-leds"}});
             EXPECT_EQ((Answer{0, 0}), other.config(2, 18, hub.data(), 8));
             EXPECT_EQ((Answer{0, 0}), other.config(2, 18, device.data(), 8));
             return code;
         }},
        {"the device is in a write cycle, of another program's page too",
         [this] {
             std::shared_ptr<host::iic::bus> wires;
             EXPECT_EQ(0, host::iic::openSimulatedBus(machine(), false, "planar", "", wires));
             host::iic::addressLocks other(wires->identity());
             EXPECT_TRUE(other.beginWrite(0xA4, std::chrono::milliseconds(0)));
             return exitWithFault({"nack", "--address", "0xA4"}, {{"seeprom", "read", "panel-vpd", "--length", "1"}});
         }},
        {"the service has as many clients as it takes", [this] {
             FakeService full([](RawClient& service) {
                 const auto request = service.receive();
                 ASSERT_TRUE(request);
                 service.send(client::frame{
                     request->identifier, request->type, 0x80, client::codeTooManyClients, 1, {'f', 'u', 'l', 'l'}});
             });
             return exitOf({"message", "read", "panel-vpd", "--socket", full.path().string()});
         }}};
}

/// The document's rows: exit code and case.
std::vector<std::pair<int, std::string>> documentedCases()
{
    std::istringstream text(readFile(std::filesystem::path(sourceFolder) / "docs/kestctl.md"));
    std::vector<std::pair<int, std::string>> rows;
    bool within = false;
    for (std::string line; std::getline(text, line);) {
        within = line.starts_with("| exit code |") || (within && line.starts_with("|"));
        if (!within || line[2] < '0' || line[2] > '9') {
            continue;
        }
        const std::size_t last = line.rfind(" |");
        const std::size_t bar = line.rfind("| ", last - 1);
        rows.emplace_back(line[2] - '0', line.substr(bar + 2, last - bar - 2));
    }
    return rows;
}

TEST_F(KestctlExitCodes, AreThoseOfTheDocumentInEveryCase)
{
    const std::vector<Cases> byCode{done(), failed(), wrongUse(), refused(), absent(), verifyFailed(), busy()};
    std::size_t known = 0;
    for (const Cases& some : byCode) {
        known += some.size();
    }
    const auto rows = documentedCases();
    EXPECT_EQ(known, rows.size());
    for (const auto& [code, text] : rows) {
        const Cases& some = byCode.at(static_cast<std::size_t>(code));
        const auto found = some.find(text);
        if (found == some.end()) {
            ADD_FAILURE() << "no case brings about " << code << ", " << text;
        } else {
            EXPECT_EQ(code, found->second()) << text;
        }
    }
}

} // namespace
} // namespace kest::test
