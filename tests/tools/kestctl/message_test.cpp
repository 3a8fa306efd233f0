/// Area "message": kestctl as a client of kestd on the demo machine, and of services that refuse or stay silent.
#include <algorithm>
#include <csignal>
#include <future>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/host/iic_support.h"
#include "tests/host/usedconfiguration.h"
#include "tests/tools/heldpages.h"
#include "tests/tools/kestd_support.h"

namespace kest::test
{
namespace
{

using client::frame;
using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class KestctlMessage : public MachineTest
{
protected:
    /// Starts the service in a read mode; the client has the same configuration.
    /// @param service  lines of the section [service]
    void serve(const std::string& mode = "HWareMode", const std::string& service = "")
    {
        const auto file = machine() / "kest.toml";
        std::string text = readFile(file);
        const std::string word = "\"tavo/ReadMode\" = \"HWareMode\"";
        const std::size_t at = text.find(word);
        ASSERT_NE(std::string::npos, at) << text;
        writeFile(file, text.replace(at, word.size(), "\"tavo/ReadMode\" = \"" + mode + "\"") +
                            "\n[[device]]\nnumber = 0\nlocation = \"sim:planar,L,2C0256,A0\"\n[service]\n" + service +
                            "\n");
        m_daemon.emplace(folder(), std::vector<std::string>{"--config", file.string()});
        ASSERT_TRUE(m_daemon->isReady()) << m_daemon->errors();
    }
    [[nodiscard]] std::string image(const std::string& name) const { return readFile(machine() / (name + ".bin")); }
    [[nodiscard]] std::string file(const std::string& name, const std::string& content) const
    {
        writeFile(folder() / name, content);
        return (folder() / name).string();
    }
    [[nodiscard]] RunResult message(std::vector<std::string> words, RunOptions options = {}) const
    {
        words.insert(words.begin(), "message");
        return kestctl(std::move(words), std::move(options));
    }
    /// The one line that a failing command prints, without "kestctl: ".
    std::string complaint(int exit, const std::vector<std::string>& words) const
    {
        const RunResult result = message(words);
        EXPECT_EQ(exit, result.exit) << testing::PrintToString(words) << result.errors;
        EXPECT_EQ("", result.output) << testing::PrintToString(words);
        EXPECT_THAT(result.errors, StartsWith("kestctl: "));
        EXPECT_EQ(1, std::ranges::count(result.errors, '\n')) << result.errors;
        return result.errors.size() < 10 ? "" : result.errors.substr(9, result.errors.size() - 10);
    }

private:
    std::optional<Daemon> m_daemon;
};

TEST_F(KestctlMessage, Reads)
{
    serve();
    const std::string target = (folder() / "out.bin").string();
    EXPECT_EQ("", says({"message", "read", "planar-vpd", "-o", target}));
    EXPECT_EQ(image("system"), readFile(target));
    // the most that one message can move
    EXPECT_EQ(65536U, says({"message", "read", "firmware", "-o", "-"}).size());
    writeFile(machine() / "panel.bin", "Hello, kest!\x01\x7F\xFF" + std::string(241, 'x'));
    EXPECT_EQ("0000000c  01 7f ff 78                                       |...x|\n",
              says({"message", "read", "panel-vpd", "--offset", "0xC", "--length", "4"}));
    const json read = json::parse(says({"--json", "message", "read", "panel-vpd", "--offset", "12", "--length", "2"}));
    EXPECT_EQ(json::parse(R"({"device":"panel-vpd","text":"sim:planar,L,1C0002,A4","offset":12,"length":2,"flags":66,
                              "data":"017f"})"),
              read);
    const json saved = json::parse(says({"--json", "message", "read", "panel-vpd", "-o", target}));
    EXPECT_EQ(256, saved.at("length"));
    EXPECT_EQ(target, saved.at("output"));
    EXPECT_EQ(image("panel"), readFile(target));
    EXPECT_EQ(3, message({"read", "panel-vpd", "-o", "-"}, {.terminal = true}).exit);
}

TEST_F(KestctlMessage, OfContentsWithAWrongChecksumIsRefused)
{
    const std::string wrong("TlvInfo\0\x01\0\x0E!\x02"
                            "AB#\x02S1\xFE\x04\x44\x60\x4B\x08",
                            25);
    EXPECT_EQ(
        "panel-vpd: contents: the part would hold contents of the format tlvinfo (TlvInfo system EEPROM) that are "
        "damaged: crc: stored is 0x44604B08, computed is 0x44604B07; 'kestctl seeprom make tlvinfo' makes a whole "
        "image; "
        "--force writes all the same",
        complaint(3, {"write", "panel-vpd", "-i", file("wrong", wrong), "--yes"}));
}

TEST_F(KestctlMessage, Writes)
{
    serve();
    std::string wanted(256, '\xAA');
    writeFile(machine() / "panel.bin", wanted);
    EXPECT_EQ("panel-vpd: write 2 bytes at offset 6 by message? not confirmed; --yes confirms it",
              complaint(3, {"write", "panel-vpd", "--hex", "0102", "--offset", "6"}));
    EXPECT_EQ(wanted, image("panel"));
    EXPECT_EQ("panel-vpd: wrote 2 bytes by message; not verified\n",
              says({"message", "write", "panel-vpd", "--hex", "01 02", "--offset", "6", "--yes"}));
    wanted.replace(6, 2, "\x01\x02");
    EXPECT_EQ(wanted, image("panel"));
    const json written = json::parse(
        says({"--json", "message", "write", "panel-vpd", "-i", file("new", "0123456789"), "--offset", "246", "--yes"}));
    EXPECT_EQ(json::parse(R"({"device":"panel-vpd","text":"sim:planar,L,1C0002,A4","offset":246,"length":10,
                              "flags":65})"),
              written);
    wanted.replace(246, 10, "0123456789");
    EXPECT_EQ(wanted, image("panel"));
}

TEST_F(KestctlMessage, ShowsALocation)
{
    serve();
    EXPECT_EQ("sim:planar,L,2C0256,A0\n", says({"message", "location", "0xD001"}));
    EXPECT_EQ(json::parse(R"({"number":53253,"position":0,"text":"sim:planar,L,922,80,3,2C0128,A2"})"),
              json::parse(says({"--json", "message", "location", "0xD005"})));
    EXPECT_THAT(complaint(4, {"location", "7"}),
                MatchesRegex("7: look up by message: there is no device text for this number and position; the device "
                             "table of the service has none \\[log 0x[0-9A-F]+\\]"));
    EXPECT_THAT(complaint(4, {"location", "0xD001", "--position", "1"}), HasSubstr("there is no device text"));
    EXPECT_EQ("device number 'x': expected a decimal number, or a hexadecimal one after 0x",
              complaint(2, {"location", "x"}));
}

TEST_F(KestctlMessage, FileModeServesCopyZeroAndSaysSo)
{
    constexpr const char* warning =
        "kestctl: the read mode is FileMode: messages are served from copy 0, whatever device they name\n";
    serve("FileMode");
    const RunResult none = message({"read", "planar-vpd", "--length", "4"});
    EXPECT_EQ(4, none.exit);
    EXPECT_THAT(none.errors, StartsWith(std::string(warning) + "kestctl: planar-vpd: read by message: there is no "
                                                               "persisted copy; "));
    says({"copy", "import", "0", file("zero", "0123456789"), "--force"});
    const RunResult read = message({"read", "planar-vpd", "--offset", "2", "--length", "4", "-o", "-"});
    EXPECT_EQ(0, read.exit);
    EXPECT_EQ("2345", read.output);
    EXPECT_EQ(warning, read.errors);
    EXPECT_EQ(warning, message({"read", "planar-vpd", "--length", "4", "-o", "-", "-q"}).errors);
    const std::string target = (folder() / "out.bin").string();
    const RunResult cut = message({"read", "planar-vpd", "--length", "20", "-o", target});
    // fewer bytes than asked for are a failure
    EXPECT_EQ(1, cut.exit);
    EXPECT_EQ(std::string(warning) +
                  "kestctl: planar-vpd: read by message: 10 of 20 bytes came from offset 0; --length "
                  "10 reads what there is\n",
              cut.errors);
    EXPECT_FALSE(std::filesystem::exists(target));
    const std::string before = image("system");
    const RunResult written = message({"write", "planar-vpd", "--hex", "5858", "--yes"});
    EXPECT_EQ(0, written.exit);
    EXPECT_EQ(warning, written.errors);
    EXPECT_EQ("XX23456789", says({"copy", "export", "0", "-"}));
    EXPECT_EQ(before, image("system"));
}

TEST_F(KestctlMessage, WholeDeviceOfMixedModeIsCut)
{
    constexpr const char* warning =
        "kestctl: the read mode is MixedMode: messages are served from copy 0, whatever device they name\n";
    serve("MixedMode");
    // 32768 bytes are read
    const RunResult read = message({"read", "planar-vpd", "--length", "16", "-o", "-"});
    EXPECT_EQ(0, read.exit);
    EXPECT_EQ(image("system").substr(0, 16), read.output);
    EXPECT_EQ(warning, read.errors);
    says({"copy", "import", "0", file("zero", "0123456789"), "--force"});
    EXPECT_EQ("0123", message({"read", "planar-vpd", "--length", "4", "-o", "-"}).output);
}

/// For the service a hub read that recovered by itself succeeded, but its bytes are zeros that no chip sent.
TEST_F(KestctlMessage, ReadThroughAHubIsRefusedUnlessForced)
{
    const std::string target = (folder() / "out.bin").string();
    serve();
    says({"sim", "fault", "add", "hub-hold-sda", "--bus", "planar", "--address", "0x80", "--way", "read", "--count",
          "1"});
    EXPECT_EQ("riser-vpd: read by message: a read through a hub can return bytes that were never read, and a message "
              "can't show that; "
              "'kestctl seeprom read riser-vpd' reads until the bytes are certain; --force takes what comes",
              complaint(3, {"read", "riser-vpd", "--length", "64", "-o", target}));
    EXPECT_FALSE(std::filesystem::exists(target));
    const RunResult forced = message({"read", "riser-vpd", "--length", "64", "-o", target, "--force"});
    EXPECT_EQ(0, forced.exit);
    EXPECT_EQ("kestctl: riser-vpd: read through a hub: these may be bytes that were never read\n", forced.errors);
    EXPECT_EQ(std::string(64, '\0'), readFile(target));
    EXPECT_NE(std::string(64, '\0'), image("riser").substr(0, 64));
    EXPECT_EQ("", says({"seeprom", "read", "riser-vpd", "--length", "64", "-o", target}));
    EXPECT_EQ(image("riser").substr(0, 64), readFile(target));
}

TEST_F(KestctlMessage, WrongUse)
{
    EXPECT_EQ("panel-vpd: offset 256 (0x100) is past the end: the device holds 256 bytes",
              complaint(2, {"read", "panel-vpd", "--offset", "256"}));
    EXPECT_EQ("panel-vpd: length 0: there is nothing to transfer",
              complaint(2, {"read", "panel-vpd", "--length", "0"}));
    EXPECT_THAT(complaint(2, {"read", "panel-leds"}), HasSubstr("does not serve a PCA9552"));
    EXPECT_THAT(complaint(2, {"read", "sim:planar,L,F0,70,1,2C0128,A2"}), HasSubstr("F0"));
    EXPECT_THAT(complaint(4, {"read", "nosuchdevice"}), HasSubstr("nosuchdevice"));
    EXPECT_EQ("give what to write: a file with --input, or bytes with --hex",
              complaint(2, {"write", "panel-vpd", "--yes"}));
    EXPECT_EQ("give what to write: a file with --input, or bytes with --hex",
              complaint(2, {"write", "panel-vpd", "--hex", "00", "-i", file("new", "x"), "--yes"}));
    EXPECT_THAT(complaint(2, {"read", "panel-vpd", "--timeout", "soon"}), HasSubstr("timeout 'soon'"));
}

TEST_F(KestctlMessage, WithoutAServiceItFails)
{
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"read", "panel-vpd"}, {"write", "panel-vpd", "--hex", "00", "--yes"}, {"location", "0xD001"}}) {
        EXPECT_THAT(complaint(1, words), MatchesRegex(".*kestd.socket: No such file or directory; start kestd, or name "
                                                      "its socket with --socket"));
    }
}

TEST_F(KestctlMessage, DevicesThatAreAbsentOrHeldHaveTheirExitCodes)
{
    serve("HWareMode", "raw_users = [" + std::to_string(geteuid()) + "]");
    EXPECT_THAT(
        complaint(4, {"read", "sim:planar,L,2C0256,AE", "--length", "1"}),
        HasSubstr("sim:planar,L,2C0256,AE: read by message: nothing answers at AE = 0x57; check address and power"));
    EXPECT_THAT(complaint(4, {"read", "sim:planar,L,2C0256,50", "--length", "1"}),
                HasSubstr("a device answers at A0 = 0x50: write A0"));
    EXPECT_THAT(complaint(4, {"write", "sim:nowhere,L,2C0256,A0", "--hex", "00", "--yes"}), HasSubstr("no such bus"));
    EXPECT_THAT(complaint(2, {"write", "sim:planar,L,922,80,9,2C0128,A2", "--hex", "00", "--yes"}),
                HasSubstr("the hub has no such port"));
    says({"sim", "fault", "add", "nack-data", "--bus", "planar", "--address", "0xA4", "--way", "write"});
    EXPECT_THAT(complaint(1, {"write", "panel-vpd", "--hex", "00", "--yes"}), HasSubstr("a byte was not acknowledged"));
}

TEST_F(KestctlMessage, DeviceThatTheTableDoesNotHaveIsRefused)
{
    serve();
    EXPECT_THAT(complaint(3, {"read", "sim:planar,L,2C0256,C0", "--length", "1", "--force"}),
                StartsWith("sim:planar,L,2C0256,C0: read by message: 'sim:planar,L,2C0256,C0' is no device of the "
                           "device table; 'kestctl errors show 0x"));
}

TEST_F(KestctlMessage, AReplyWithoutBytesFails)
{
    FakeService fake([](RawClient& service) {
        const auto request = service.receive();
        ASSERT_TRUE(request);
        service.send(frame{request->identifier, request->type, 0x42, 0, 0, {}});
    });
    const RunResult none = message({"read", "panel-vpd", "--length", "4", "--socket", fake.path().string()});
    EXPECT_EQ(1, none.exit);
    EXPECT_EQ("", none.output);
    EXPECT_EQ("kestctl: panel-vpd: read by message: 0 of 4 bytes came from offset 0\n", none.errors);
}

TEST_F(KestctlMessage, ASocketThatMayNotBeUsedIsRefused)
{
    if (!letStrangersIn()) {
        GTEST_SKIP() << "a user without rights can't start the programs here";
    }
    const std::string path = (folder() / "socket").string();
    const int socket = boundSocket(path, SOCK_STREAM);
    ASSERT_EQ(0, chmod(path.c_str(), 0));
    const RunResult refused = message({"read", "panel-vpd", "--socket", path}, {.stranger = true});
    close(socket);
    EXPECT_EQ(3, refused.exit);
    EXPECT_THAT(refused.errors, HasSubstr(": Permission denied; run it as a user who may use the service's socket\n"));
}

/// Refusals of a service, worded with the client's configuration.
TEST_F(KestctlMessage, RefusalHasItsExitCode)
{
    const std::string text = "user 7 is not permitted to read";
    FakeService fake([&text](RawClient& service) {
        const auto request = service.receive();
        ASSERT_TRUE(request);
        service.send(
            frame{request->identifier, request->type, 0x80, 0x80001601, 0x5000001A, {text.begin(), text.end()}});
    });
    EXPECT_EQ("panel-vpd: read by message: user 7 is not permitted to read; 'kestctl errors show 0x5000001A' has "
              "the details [log 0x5000001A]",
              complaint(3, {"read", "panel-vpd", "--socket", fake.path().string()}));
}

TEST_F(KestctlMessage, FailureInJson)
{
    FakeService fake([](RawClient& service) {
        const auto request = service.receive();
        ASSERT_TRUE(request);
        service.send(frame{request->identifier, request->type, 0, 0x80001312, 0x5000001A, {}});
    });
    const RunResult failed = message({"read", "panel-vpd", "--json", "--socket", fake.path().string()});
    EXPECT_EQ(1, failed.exit);
    const json error = json::parse(failed.output).at("error");
    EXPECT_EQ("panel-vpd", error.at("device"));
    EXPECT_EQ(0x80001312, error.at("return_code"));
    EXPECT_EQ(0x5000001A, error.at("log_id"));
    EXPECT_EQ(1, error.at("exit_code"));
}

TEST_F(KestctlMessage, ASilentServiceIsWaitedForNoLongerThanTheTimeOut)
{
    FakeService fake([](RawClient& service) {
        EXPECT_TRUE(service.receive());
        // the service hangs up
        EXPECT_FALSE(service.receive());
    });
    EXPECT_THAT(complaint(1, {"read", "panel-vpd", "--timeout", "0.1", "--socket", fake.path().string()}),
                HasSubstr("no reply in time"));
}

/// The service stands within the first page of the write.
TEST_F(KestctlMessage, AWriteThatASignalEndsSaysWhatIsKnown)
{
    serve();
    const UsedConfiguration used(machine() / "kest.toml");
    for (const auto& [signal, exit, word] : std::vector<std::tuple<int, int, std::string>>{
             {SIGINT, 130, "interrupted"}, {SIGTERM, 143, "ended by SIGTERM"}}) {
        writeFile(machine() / "panel.bin", std::string(256, '\xAA'));
        HeldPages pages("sim:planar", 0xA4);
        Program write("kestctl", {"message", "write", "panel-vpd", "--hex", "0102", "--offset", "6", "--yes"},
                      configured());
        ASSERT_TRUE(pages.awaitWriter());
        ASSERT_TRUE(deliver(write, signal));
        const RunResult ended = write.finish();
        EXPECT_EQ(exit, ended.exit);
        EXPECT_EQ("", ended.output);
        EXPECT_EQ("kestctl: panel-vpd: write by message: " + word +
                      "; the service finishes the write when it has begun it, and else drops it: whether 2 bytes from "
                      "offset 6 are written is not known; 'kestctl seeprom read panel-vpd --offset 6 --length 2' shows "
                      "what it holds\n",
                  ended.errors);
        pages.letGo();
        // waits for the service
        EXPECT_THAT(kestctl({"seeprom", "read", "panel-vpd", "--offset", "6", "--length", "2"}).output,
                    HasSubstr("01 02"));
    }
}

TEST_F(KestctlMessage, ASignalEndsAReadThatTheServiceDoesNotAnswer)
{
    std::promise<void> asked;
    FakeService fake([&asked](RawClient& service) {
        EXPECT_TRUE(service.receive());
        asked.set_value();
        // the client hangs up
        EXPECT_FALSE(service.receive());
    });
    Program read("kestctl", {"message", "read", "panel-vpd", "--socket", fake.path().string()}, configured());
    asked.get_future().wait();
    ASSERT_TRUE(deliver(read, SIGINT));
    const RunResult ended = read.finish();
    EXPECT_EQ(130, ended.exit);
    EXPECT_EQ("kestctl: panel-vpd: read by message: interrupted\n", ended.errors);
}

} // namespace
} // namespace kest::test
