#include <cstdlib>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

using KestctlSeeprom = SeepromTest;

std::string pattern(std::size_t length, unsigned seed)
{
    std::string text(length, '\0');
    for (std::size_t at = 0; at < length; ++at) {
        text[at] = static_cast<char>(at * 7 + at / 256 * 3 + seed);
    }
    return text;
}

TEST_F(KestctlSeeprom, ReadShowsLines)
{
    writeFile(machine() / "panel.bin", "Hello, kest!\x01\x7F\xFF" + pattern(241, 1));
    EXPECT_EQ("00000000  48 65 6c 6c 6f 2c 20 6b  65 73 74 21 01 7f ff 01  |Hello, kest!....|\n"
              "00000010  08 0f                                             |..|\n",
              says({"seeprom", "read", "panel-vpd", "--length", "18"}));
    EXPECT_EQ("0000000c  01 7f                                             |..|\n",
              says({"seeprom", "read", "panel-vpd", "--offset", "0xC", "--length", "2"}));
}

TEST_F(KestctlSeeprom, ReadSavesRawBytes)
{
    const std::string target = (folder() / "out.bin").string();
    EXPECT_EQ("", says({"seeprom", "read", "planar-vpd", "-o", target}));
    EXPECT_EQ(image("system"), readFile(target));
    EXPECT_EQ(image("system").substr(100, 5000),
              says({"seeprom", "read", "planar-vpd", "-o", "-", "--offset", "100", "--length", "5000"}));
    EXPECT_EQ(image("riser"), says({"seeprom", "read", "riser-vpd", "-o", "-"}));
}

TEST_F(KestctlSeeprom, RawBytesReachATerminalOnlyWhenForced)
{
    const RunResult refused = kestctl({"seeprom", "read", "panel-vpd", "-o", "-"}, {.terminal = true});
    EXPECT_EQ(3, refused.exit);
    EXPECT_THAT(refused.output, HasSubstr("kestctl: raw bytes are not written to a terminal; name a file with -o"));
    EXPECT_EQ(0, kestctl({"seeprom", "read", "panel-vpd", "-o", "-", "--force"}, {.terminal = true}).exit);
}

TEST_F(KestctlSeeprom, ReadAsJson)
{
    writeFile(machine() / "panel.bin", pattern(256, 9));
    const json read = json::parse(says({"--json", "seeprom", "read", "panel-vpd", "--offset", "16", "--length", "4"}));
    EXPECT_EQ("panel-vpd", read["device"]);
    EXPECT_EQ("sim:planar,L,1C0002,A4", read["text"]);
    EXPECT_EQ(16, read["offset"]);
    EXPECT_EQ(4, read["length"]);
    EXPECT_EQ("7980878e", read["data"]);
}

TEST_F(KestctlSeeprom, BadInputSaysWhatIsWrong)
{
    EXPECT_EQ("panel-vpd: offset 256 (0x100) is past the end: the device holds 256 bytes",
              complaint(2, {"seeprom", "read", "panel-vpd", "--offset", "256"}));
    EXPECT_EQ("panel-vpd: 17 bytes at offset 240 pass the end: the device holds 256 bytes; at most 16 bytes fit there",
              complaint(2, {"seeprom", "read", "panel-vpd", "--offset", "240", "--length", "17"}));
    EXPECT_EQ("panel-vpd: length 0: there is nothing to transfer",
              complaint(2, {"seeprom", "read", "panel-vpd", "--length", "0"}));
    EXPECT_THAT(complaint(2, {"seeprom", "read", "panel-vpd", "--offset", "ten"}), HasSubstr("offset"));
    EXPECT_THAT(complaint(2, {"seeprom", "read", "panel-vpd", "--mode", "fast"}),
                HasSubstr("mode 'fast': expected hardware, file, mixed or registry"));
    EXPECT_THAT(complaint(4, {"seeprom", "read", "nosuchdevice"}), HasSubstr("nosuchdevice"));
    EXPECT_THAT(complaint(2, {"seeprom", "read", "sim:planar,L,123,A0"}), HasSubstr("123"));
    EXPECT_THAT(complaint(2, {"seeprom", "read", "panel-leds"}), HasSubstr("panel-leds"));
    EXPECT_THAT(complaint(2, {"seeprom", "read", "sim:planar,L,F0,70,1,2C0128,A2"}), HasSubstr("F0"));
    EXPECT_THAT(complaint(2, {"seeprom", "read", "sim:planar,L,922,80,3,172,A2"}), HasSubstr("172"));
    const std::string tenBytes = file("ten", "0123456789");
    EXPECT_EQ(tenBytes + " holds 10 bytes, fewer than the length 20",
              complaint(2, {"seeprom", "write", "panel-vpd", "-i", tenBytes, "--length", "20", "--yes"}));
    const std::string large = file("large", std::string(300, 'x'));
    EXPECT_EQ(large + " holds more than the 256 bytes there is room for",
              complaint(2, {"seeprom", "write", "panel-vpd", "-i", large, "--yes"}));
    const std::string empty = file("empty", "");
    EXPECT_EQ(empty + " is empty", complaint(2, {"seeprom", "write", "panel-vpd", "-i", empty, "--yes"}));
    EXPECT_EQ("--hex: two hexadecimal digits expected at character 4",
              complaint(2, {"seeprom", "write", "panel-vpd", "--hex", "12 3", "--yes"}));
    EXPECT_EQ("give what to write: a file with --input, or bytes with --hex",
              complaint(2, {"seeprom", "write", "panel-vpd", "--yes"}));
    EXPECT_EQ("--length 2: --hex gives 1 byte",
              complaint(2, {"seeprom", "write", "panel-vpd", "--hex", "12", "--length", "2", "--yes"}));
    for (const char* reads : {"0", "1", "2", "4", "14", "16", "17", "99"}) {
        EXPECT_EQ("--voted " + std::string(reads) +
                      ": expected an odd number from 3 to 15: an even number of reads can end in a draw",
                  complaint(2, {"seeprom", "read", "panel-vpd", "--voted", reads}));
    }
    EXPECT_EQ("--speed 3400: expected 1 to 1000 kHz; faster modes of the bus are not served",
              complaint(2, {"seeprom", "read", "panel-vpd", "--speed", "3400"}));
    const std::string comma = file("a,b.bin", std::string(256, 'x'));
    EXPECT_EQ("'" + comma +
                  "': a name with a comma is taken as a device text, not as a file's; give the file by '- < " + comma +
                  "'",
              complaint(2, {"seeprom", "diff", "panel-vpd", comma}));
    EXPECT_THAT(complaint(1, {"seeprom", "write", "panel-vpd", "-i", "/no/such/file", "--yes"}),
                HasSubstr("/no/such/file: read: No such file"));
}

TEST_F(KestctlSeeprom, AChipAnswersUpToItsOwnClock)
{
    EXPECT_EQ(0, kestctl({"seeprom", "read", "panel-vpd", "--length", "4", "--speed", "400"}).exit);
    EXPECT_EQ(4, kestctl({"seeprom", "read", "panel-vpd", "--length", "4", "--speed", "1000"}).exit);
    EXPECT_EQ(0, kestctl({"seeprom", "read", "planar-vpd", "--length", "4", "--speed", "1000"}).exit);
}

TEST_F(KestctlSeeprom, AChipThatStretchesBeyondTheAdaptersLimitIsNotRead)
{
    std::string text = readFile(machine() / "machine.toml");
    const std::string image = "image = \"panel.bin\"";
    text.replace(text.find(image), image.size(), image + "\nstretch_us = 30000");
    writeFile(machine() / "machine.toml", text);
    EXPECT_EQ(1, kestctl({"seeprom", "read", "panel-vpd", "--length", "4"}).exit);
    EXPECT_EQ(0, kestctl({"seeprom", "read", "planar-vpd", "--length", "4"}).exit);
}

TEST_F(KestctlSeeprom, OutputThatCannotBeWritten)
{
    EXPECT_THAT(complaint(1, {"seeprom", "read", "planar-vpd", "-o", "-"}, {.outputTo = "/dev/full"}),
                HasSubstr("No space left on device"));
    EXPECT_THAT(complaint(1, {"seeprom", "read", "planar-vpd", "-o", "/dev/full"}),
                HasSubstr("/dev/full: write: No space left on device"));
}

TEST_F(KestctlSeeprom, WriteAsksKeepsAnUndoFileAndVerifies)
{
    writeFile(machine() / "panel.bin", std::string(256, '\xAA'));
    const std::string before = image("panel");
    EXPECT_THAT(complaint(3, {"seeprom", "write", "panel-vpd", "--hex", "010203"}),
                HasSubstr("panel-vpd: write 3 bytes (1 page) at A4 = 0x52? not confirmed; --yes confirms it"));
    EXPECT_EQ(before, image("panel"));

    const json written = json::parse(
        says({"--json", "seeprom", "write", "panel-vpd", "--hex", "01 02 03 04", "--offset", "6", "--yes"}));
    EXPECT_EQ(4, written["bytes_written"]);
    // bytes 6-7 and 8-9
    EXPECT_EQ(2, written["pages_written"]);
    EXPECT_EQ(true, written["verified"]);
    std::string after = before;
    after.replace(6, 4, "\x01\x02\x03\x04");
    EXPECT_EQ(after, image("panel"));

    EXPECT_THAT(says({"seeprom", "restore", written["undo_file"], "--yes"}), HasSubstr("read back and compared"));
    EXPECT_EQ(before, image("panel"));
}

TEST_F(KestctlSeeprom, WriteAsksOnATerminal)
{
    writeFile(machine() / "panel.bin", std::string(256, '\xAA'));
    for (const auto& [answer, exit] : {std::pair("n\n", 3), std::pair("y\n", 0)}) {
        Program asked("kestctl", {"seeprom", "write", "panel-vpd", "--hex", "55"}, configured({.terminal = true}));
        ASSERT_TRUE(asked.waitFor("Go on? [y/N]"));
        asked.type(answer);
        EXPECT_EQ(exit, asked.finish().exit) << answer;
    }
    EXPECT_EQ('\x55', image("panel")[0]);
}

TEST_F(KestctlSeeprom, PagesThatHoldTheDataAreLeftOut)
{
    std::string bytes = pattern(256, 3);
    writeFile(machine() / "panel.bin", bytes);
    bytes[100] = 'x';
    bytes[200] = 'y';
    const std::string source = file("new", bytes);
    const json rehearsed = json::parse(says({"--json", "seeprom", "write", "panel-vpd", "-i", source, "--dry-run"}));
    EXPECT_EQ(true, rehearsed["dry_run"]);
    EXPECT_EQ(2, rehearsed["pages_written"]);
    EXPECT_EQ(30, rehearsed["pages_skipped"]);
    EXPECT_EQ(16, rehearsed["bytes_written"]);
    EXPECT_EQ(pattern(256, 3), image("panel"));
    EXPECT_THAT(says({"seeprom", "write", "panel-vpd", "-i", source, "--yes"}),
                StartsWith("panel-vpd: wrote 16 bytes in 2 pages; unchanged: 30 pages; read back and compared\n"
                           "undo: kestctl seeprom restore "));
    EXPECT_EQ(bytes, image("panel"));
    EXPECT_EQ("panel-vpd: holds these 256 bytes already, nothing to write\n",
              says({"seeprom", "write", "panel-vpd", "-i", source, "--yes"}));
    EXPECT_THAT(says({"seeprom", "write", "panel-vpd", "-i", source, "--yes", "--all-pages"}),
                StartsWith("panel-vpd: wrote 256 bytes in 32 pages"));
}

TEST_F(KestctlSeeprom, SilentWriteProtectionIsFoundByReadingBack)
{
    std::string text = readFile(machine() / "machine.toml");
    const std::size_t at = text.find("image = \"panel.bin\"");
    ASSERT_NE(std::string::npos, at) << text;
    writeFile(machine() / "machine.toml", text.insert(at, "protect = \"silent\"\n"));
    writeFile(machine() / "panel.bin", variedBytes(256).replace(16, 1, "\xAA"));
    EXPECT_THAT(
        complaint(5, {"seeprom", "write", "panel-vpd", "--hex", "0102", "--offset", "16", "--yes"}),
        MatchesRegex(
            "panel-vpd: verify: what was read back differs from offset 16 \\(0x10\\) on: wrote 01, read aa; the "
            "chip is write-protected: it holds the old bytes, and was never busy after a page; check its write-protect "
            "pin and the area that it protects; 'kestctl seeprom restore [^ ]*/undo/panel-vpd-[^ ]*' puts the old "
            "bytes back \\[log 0x[0-9A-F]+\\]"));
    const json entry = json::parse(says({"errors", "show", "last", "--json"}));
    EXPECT_EQ(0x80001704U, entry.at("return_code"));
    EXPECT_EQ("the chip is write-protected", entry.at("reason_text"));
    EXPECT_EQ(json::parse("[16, 1, 1, 0]"), entry.at("srcs").at(0).at("user_data"));
}

/// A read-back can fail itself, so a single difference is no failure. Before it go the read of the old bytes and the 16
/// reads of the proof.
TEST_F(KestctlSeeprom, AReadBackThatDiffersOnceIsReadAgain)
{
    writeFile(machine() / "panel.bin", variedBytes(256));
    fault({"corrupt", "--bus", "planar", "--address", "0xA4", "--way", "read", "--nth", "19", "--count", "1", "--byte",
           "1"});
    const RunResult written = kestctl({"seeprom", "write", "panel-vpd", "--hex", "010203", "--yes", "--force"});
    EXPECT_EQ(0, written.exit);
    EXPECT_EQ("kestctl: panel-vpd: the reads differed at offsets 0x1\n", written.errors);
    EXPECT_THAT(written.output, HasSubstr("read back and compared"));
    EXPECT_THAT(says({"sim", "fault", "list"}), HasSubstr(", struck 1\n"));
    EXPECT_EQ("\x01\x02\x03", image("panel").substr(0, 3));
}

TEST_F(KestctlSeeprom, AReadBackThatDiffersTwiceInTwoWaysBlamesTheReads)
{
    writeFile(machine() / "panel.bin", variedBytes(256));
    fault({"corrupt", "--bus", "planar", "--address", "0xA4", "--way", "read", "--nth", "19", "--count", "1", "--byte",
           "1"});
    fault({"corrupt", "--bus", "planar", "--address", "0xA4", "--way", "read", "--nth", "20", "--count", "1", "--byte",
           "2"});
    const RunResult written = kestctl({"seeprom", "write", "panel-vpd", "--hex", "010203", "--yes", "--force"});
    EXPECT_EQ(5, written.exit);
    EXPECT_THAT(written.errors, HasSubstr("the reads differed at offsets 0x1 0x2\n"));
    EXPECT_THAT(written.errors, HasSubstr("wrote 03, read fc; two reads differ in 2 bytes: what the chip holds is not "
                                          "known; try --voted 5, or a lower --speed; 'kestctl seeprom restore "));
    const json entry = json::parse(says({"errors", "show", "last", "--json"}));
    EXPECT_EQ(0x80001705U, entry.at("return_code"));
    EXPECT_EQ(json::parse("[1, 2, 3, 0]"), entry.at("srcs").at(0).at("user_data"));
}

TEST_F(KestctlSeeprom, WriteThatFailsMidwaySaysHowManyBytesAreCertain)
{
    writeFile(machine() / "panel.bin", std::string(256, '\xAA'));
    const std::string source = file("new", std::string(64, 'n'));
    fault({"nack-data", "--bus", "planar", "--address", "0xA4", "--way", "write", "--nth", "8", "--byte", "3"});
    const std::string line = complaint(1, {"seeprom", "write", "panel-vpd", "-i", source, "--yes"});
    clearFaults();
    const std::size_t certain = image("panel").find_first_not_of('n');
    EXPECT_THAT(line, HasSubstr("the first " + std::to_string(certain) +
                                " of 64 bytes are certain (read back); 'kestctl "
                                "seeprom restore "));
    EXPECT_GT(64U, certain);
}

TEST_F(KestctlSeeprom, WriteWhoseReadBackFailsTooSaysNotKnown)
{
    const std::string source = file("new", std::string(64, 'n'));
    // the two reads of the old bytes and the 15 reads of the proof go before
    fault({"nack", "--bus", "planar", "--address", "0xA4", "--nth", "28"});
    const std::string line =
        complaint(1, {"seeprom", "write", "panel-vpd", "-i", source, "--all-pages", "--yes", "--force"});
    clearFaults();
    EXPECT_THAT(line, HasSubstr("how many bytes arrived is not known: reading back failed, too"));
}

TEST_F(KestctlSeeprom, VerifyAndDiff)
{
    writeFile(machine() / "panel.bin", pattern(256, 3));
    std::string bytes = pattern(256, 3);
    EXPECT_EQ("panel-vpd: equal, 256 bytes\n", says({"seeprom", "verify", "panel-vpd", file("same", bytes)}));
    bytes[20] = 'Z';
    bytes[21] = 'Z';
    const std::string other = file("other", bytes);
    const RunResult checked = kestctl({"seeprom", "verify", "panel-vpd", other});
    EXPECT_EQ(5, checked.exit);
    EXPECT_EQ("panel-vpd: 2 of 256 bytes differ, the first at offset 20 (0x14)\n", checked.output);
    const RunResult shown = kestctl({"seeprom", "diff", "panel-vpd", other});
    EXPECT_EQ(5, shown.exit);
    EXPECT_EQ("- 00000010  73 7a 81 88 8f 96 9d a4  ab b2 b9 c0 c7 ce d5 dc  |sz..............|\n"
              "+ 00000010  73 7a 81 88 5a 5a 9d a4  ab b2 b9 c0 c7 ce d5 dc  |sz..ZZ..........|\n",
              shown.output);
    const json rows = json::parse(kestctl({"--json", "seeprom", "diff", "panel-vpd", other}).output);
    EXPECT_EQ(2, rows["differing"]);
    EXPECT_EQ(20, rows["differences"][0]["offset"]);
    // two devices
    EXPECT_EQ(0, kestctl({"seeprom", "diff", "panel-vpd", "panel-vpd"}).exit);
}

TEST_F(KestctlSeeprom, ADumpGoesToADeviceOfItsTypeAlone)
{
    const std::string dump = (folder() / "dump.json").string();
    says({"seeprom", "dump", "panel-vpd", "-o", dump});
    EXPECT_THAT(complaint(2, {"seeprom", "restore", dump, "--device", "planar-vpd", "--yes"}),
                HasSubstr("was saved from a 24C02, this is a 24C256"));
}

TEST_F(KestctlSeeprom, VotesNameTheOffsetsThatWavered)
{
    writeFile(machine() / "panel.bin", pattern(256, 3));
    fault({"corrupt", "--bus", "planar", "--address", "0xA4", "--way", "read", "--nth", "2", "--count", "1", "--byte",
           "6"});
    const RunResult voted = kestctl({"seeprom", "read", "panel-vpd", "--length", "32", "--voted", "3", "-o", "-"});
    EXPECT_EQ(0, voted.exit);
    EXPECT_EQ(pattern(256, 3).substr(0, 32), voted.output);
    EXPECT_EQ("kestctl: panel-vpd: 1 byte was outvoted: the reads differed at offsets 0x6\n", voted.errors);
}

TEST_F(KestctlSeeprom, BytesThatWereOutvotedAreCounted)
{
    writeFile(machine() / "panel.bin", pattern(256, 3));
    const std::string dump = (folder() / "dump.json").string();
    const std::string same = file("same", pattern(256, 3));
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"seeprom", "read", "panel-vpd"},
                                               {"copy", "capture", "panel-vpd", "--yes"},
                                               {"seeprom", "dump", "panel-vpd", "-o", dump},
                                               {"seeprom", "write", "panel-vpd", "-i", same, "--yes"},
                                               {"seeprom", "verify", "panel-vpd", same}}) {
        for (const char* byte : {"6", "200"}) {
            fault({"corrupt", "--bus", "planar", "--address", "0xA4", "--way", "read", "--nth",
                   byte[0] == '6' ? "2" : "4", "--count", "1", "--byte", byte});
        }
        std::vector<std::string> voting = command;
        voting.insert(voting.end(), {"--voted", "5", "--json"});
        const RunResult result = kestctl(voting);
        clearFaults();
        EXPECT_EQ("kestctl: panel-vpd: 2 bytes were outvoted: the reads differed at offsets 0x6 0xC8\n", result.errors);
        EXPECT_EQ(2, json::parse(result.output).at("outvoted")) << testing::PrintToString(command);
        EXPECT_EQ(json::parse("[6, 200]"), json::parse(result.output).at("wavered"));
        EXPECT_EQ(0, json::parse(says({"--json", "seeprom", "read", "panel-vpd", "--voted", "3"})).at("outvoted"));
    }
}

TEST_F(KestctlSeeprom, EveryCommandThatVotesNamesTheOffsetsThatWavered)
{
    const std::string bytes = pattern(256, 3);
    writeFile(machine() / "panel.bin", bytes);
    const std::string dump = (folder() / "dump.json").string();
    const std::string same = file("same", bytes);
    says({"seeprom", "dump", "panel-vpd", "-o", dump});
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"copy", "capture", "panel-vpd"},
                                               {"seeprom", "restore", dump, "--device", "panel-vpd", "--yes"},
                                               {"seeprom", "write", "panel-vpd", "-i", same, "--yes"},
                                               {"seeprom", "dump", "panel-vpd", "-o", dump},
                                               {"seeprom", "verify", "panel-vpd", same},
                                               {"seeprom", "diff", "panel-vpd", same}}) {
        fault({"corrupt", "--bus", "planar", "--address", "0xA4", "--way", "read", "--nth", "2", "--count", "1",
               "--byte", "6"});
        std::vector<std::string> voting = command;
        voting.insert(voting.end(), {"--voted", "3"});
        const RunResult result = kestctl(voting);
        clearFaults();
        EXPECT_EQ(0, result.exit) << testing::PrintToString(command);
        EXPECT_EQ("kestctl: panel-vpd: 1 byte was outvoted: the reads differed at offsets 0x6\n", result.errors)
            << testing::PrintToString(command);
    }
}

TEST_F(KestctlSeeprom, AHubReadShowsNoByteThatWasNeverRead)
{
    const std::string before = image("riser");
    const std::string target = (folder() / "out.bin").string();
    const std::string same = file("same", before);
    const std::string dump = (folder() / "dump.json").string();
    // a sub-bus fault that strikes once: the read is repeated until two reads agree
    for (const char* kind : {"hub-hold-sda", "hub-hold-scl"}) {
        const auto faulty = [&](std::vector<std::string> command) {
            fault({kind, "--bus", "planar", "--address", "0x80", "--way", "read", "--count", "1"});
            const std::string output = says(std::move(command));
            EXPECT_THAT(says({"sim", "fault", "list"}), HasSubstr(", struck 1\n")) << kind;
            clearFaults();
            return output;
        };
        faulty({"seeprom", "read", "riser-vpd", "--length", "1024", "-o", target});
        EXPECT_EQ(before.substr(0, 1024), readFile(target)) << kind;
        EXPECT_EQ("riser-vpd: equal, 16384 bytes\n", faulty({"seeprom", "verify", "riser-vpd", same}));
        EXPECT_EQ("", faulty({"seeprom", "diff", "riser-vpd", same}));
        faulty({"seeprom", "dump", "riser-vpd", "-o", dump});
        EXPECT_EQ("riser-vpd: holds these 16384 bytes already, nothing to write\n",
                  faulty({"seeprom", "restore", dump, "--device", "riser-vpd", "--yes"}));
        faulty({"copy", "capture", "riser-vpd"});
        EXPECT_EQ(before, says({"copy", "export", "riser-vpd", "-"})) << kind;
        says({"copy", "remove", "riser-vpd", "--yes"});
    }
}

/// Faults that strike each first attempt and no repeat: each read recovers and returns zeros, always the same ones.
/// Nothing may be shown, saved or compared then.
TEST_F(KestctlSeeprom, NothingIsDoneWithReadsThroughAHubThatDoNotSettle)
{
    const std::string before = image("riser");
    const std::string target = (folder() / "out.bin").string();
    const std::string zeros = file("zeros", std::string(64, '\0'));
    const std::string dump = (folder() / "dump.json").string();
    says({"seeprom", "dump", "riser-vpd", "--length", "64", "-o", dump});
    for (const char* kind : {"hub-hold-sda", "hub-hold-scl"}) {
        for (const std::vector<std::string>& command :
             std::vector<std::vector<std::string>>{{"seeprom", "read", "riser-vpd", "--length", "64"},
                                                   {"seeprom", "read", "riser-vpd", "--length", "64", "-o", target},
                                                   {"seeprom", "dump", "riser-vpd", "--length", "64", "-o", target},
                                                   {"seeprom", "verify", "riser-vpd", zeros},
                                                   {"seeprom", "diff", "riser-vpd", zeros},
                                                   {"seeprom", "restore", dump, "--yes"},
                                                   {"copy", "capture", "riser-vpd"},
                                                   {"seeprom", "write", "riser-vpd", "--hex", "0102", "--yes"}}) {
            for (const char* attempt : {"1", "3", "5", "7", "9"}) {
                fault(
                    {kind, "--bus", "planar", "--address", "0x80", "--way", "read", "--nth", attempt, "--count", "1"});
            }
            const RunResult failed = kestctl(command);
            clearFaults();
            EXPECT_EQ(1, failed.exit) << testing::PrintToString(command);
            EXPECT_EQ("", failed.output) << testing::PrintToString(command);
            EXPECT_THAT(failed.errors, HasSubstr("5 reads through the hub at offset 0 did not settle"));
            EXPECT_FALSE(std::filesystem::exists(target));
        }
    }
    EXPECT_EQ(before, image("riser"));
    EXPECT_FALSE(std::filesystem::exists(machine() / "state/undo"));
    EXPECT_EQ("no persisted copies; 'kestctl copy capture DEVICE' makes one\n", says({"copy", "list"}));
}

TEST_F(KestctlSeeprom, CopiesAreCapturedServedExportedAndRemoved)
{
    EXPECT_THAT(complaint(4, {"seeprom", "read", "panel-vpd", "--mode", "file"}),
                HasSubstr("there is no persisted copy"));
    EXPECT_EQ("copy 53250 (panel-vpd): holds 256 bytes now\n", says({"copy", "capture", "panel-vpd"}));
    EXPECT_EQ(image("panel"), says({"seeprom", "read", "panel-vpd", "--mode", "file", "-o", "-"}));
    EXPECT_EQ(image("panel"), says({"copy", "export", "panel-vpd", "-"}));
    EXPECT_THAT(complaint(3, {"copy", "capture", "panel-vpd"}), HasSubstr("replace it? not confirmed"));
    says({"seeprom", "write", "panel-vpd", "--mode", "file", "--hex", "ff00ff"});
    EXPECT_EQ("\xFF" + std::string(1, '\0') + "\xFF", says({"copy", "export", "0xD002", "-"}).substr(0, 3));
    // no device has this number, so any size is accepted
    says({"copy", "import", "5", file("five", "12345")});
    const json list = json::parse(says({"--json", "copy", "list"}));
    ASSERT_EQ(2U, list["copies"].size());
    EXPECT_EQ(5, list["copies"][0]["number"]);
    EXPECT_EQ(5, list["copies"][0]["size"]);
    EXPECT_EQ("panel-vpd", list["copies"][1]["name"]);
    EXPECT_THAT(complaint(3, {"copy", "remove", "5"}), HasSubstr("remove it? not confirmed"));
    says({"copy", "remove", "5", "--yes"});
    EXPECT_THAT(complaint(4, {"copy", "export", "5", "-"}), HasSubstr("copy 5: read: there is no such copy"));
    EXPECT_THAT(complaint(4, {"copy", "remove", "5", "--yes"}), HasSubstr("there is no such copy"));
}

/// "mixed" uses the copy if there is one, otherwise the device; "registry" uses the mode of the configuration.
TEST_F(KestctlSeeprom, ModesChooseBetweenDeviceAndCopy)
{
    const std::string device(256, 'd');
    const std::string copy(256, 'c');
    writeFile(machine() / "panel.bin", device);
    const auto read = [this](const char* mode) {
        return says({"seeprom", "read", "panel-vpd", "--mode", mode, "--length", "4", "-o", "-"});
    };
    // no copy: the device is read
    EXPECT_EQ("dddd", read("mixed"));
    EXPECT_EQ("dddd", read("registry"));
    says({"seeprom", "write", "panel-vpd", "--mode", "mixed", "--hex", "4D", "--yes"});
    EXPECT_EQ("M" + device.substr(1), image("panel"));
    EXPECT_EQ("no persisted copies; 'kestctl copy capture DEVICE' makes one\n", says({"copy", "list"}));

    says({"copy", "import", "panel-vpd", file("copy", copy)});
    EXPECT_EQ("cccc", read("mixed"));
    EXPECT_EQ("cccc", read("file"));
    EXPECT_EQ("Mddd", read("hardware"));
    EXPECT_EQ("Mddd", read("registry"));
    says({"seeprom", "write", "panel-vpd", "--mode", "mixed", "--hex", "4E", "--yes"});
    EXPECT_EQ("N" + copy.substr(1), says({"copy", "export", "panel-vpd", "-"}));
    EXPECT_EQ("M" + device.substr(1), image("panel"));

    std::string text = readFile(machine() / "kest.toml");
    const std::size_t at = text.find("HWareMode");
    ASSERT_NE(std::string::npos, at) << text;
    writeFile(machine() / "kest.toml", text.replace(at, 9, "FileMode"));
    EXPECT_EQ("Nccc", read("registry"));
    // hardware, by default
    EXPECT_EQ("Mddd", says({"seeprom", "read", "panel-vpd", "--length", "4", "-o", "-"}));
}

/// A device of this type takes no offset: a transfer begins at the chip's position, which is 0 at first.
TEST_F(KestctlSeeprom, A172DeviceOnTheBusIsRead)
{
    const std::string target = (folder() / "out.bin").string();
    // behind the last byte comes the first
    const std::vector<std::string> lastByte{"seeprom", "read", "planar-vpd", "--offset", "32767", "--length", "1"};
    says(lastByte);
    EXPECT_EQ(image("system").substr(0, 16),
              says({"seeprom", "read", "sim:planar,L,172,A0", "--length", "16", "-o", "-", "--force"}));
    says(lastByte);
    says({"seeprom", "read", "sim:planar,L,172,A0", "-o", target, "--force"});
    EXPECT_EQ(image("system").substr(0, 22016), readFile(target));
    EXPECT_EQ("sim:planar,L,172,A0: offset 16: no offset goes out to a 172 device; a transfer begins where it stands",
              complaint(2, {"seeprom", "read", "sim:planar,L,172,A0", "--offset", "16", "--length", "16", "--force"}));
    EXPECT_EQ("sim:planar,L,172,A0: offset 22016 (0x5600) is past the end: the device holds 22016 bytes",
              complaint(2, {"seeprom", "read", "sim:planar,L,172,A0", "--offset", "22016", "--force"}));
    EXPECT_THAT(complaint(4, {"seeprom", "read", "sim:planar,L,172,AE", "--length", "16"}),
                HasSubstr("sim:planar,L,172,AE: read: nothing answers"));
}

TEST_F(KestctlSeeprom, AnAddressInTheWrongFormIsHintedAt)
{
    constexpr const char* hint =
        "nothing answers at 50 = 0x28; a device answers at A0 = 0x50: write A0, addresses are in the 8-bit "
        "form [log 0x";
    EXPECT_THAT(complaint(4, {"seeprom", "read", "sim:planar,L,2C0256,50", "--length", "4"}), HasSubstr(hint));
    EXPECT_THAT(complaint(4, {"seeprom", "write", "sim:planar,L,2C0256,50", "--hex", "00", "--yes"}), HasSubstr(hint));
    EXPECT_THAT(complaint(4, {"port", "read", "sim:planar,L,9552,60"}), HasSubstr("write C0, addresses are in the"));
    EXPECT_THAT(complaint(4, {"thermal", "read", "sim:planar,L,75,48"}), HasSubstr("write 90, addresses are in the"));
}

/// Commands that kestctl suggests keep their meaning in a shell.
TEST_F(KestctlSeeprom, PrintedCommandsAreQuoted)
{
    const auto toml = machine() / "kest.toml";
    std::string text = readFile(toml);
    writeFile(toml, text.replace(text.find("state = \"state\""), 15, "state = \"it's $HOME\""));
    const std::string output = says({"seeprom", "write", "panel-vpd", "--hex", "01", "--yes", "--force"});
    EXPECT_THAT(output,
                HasSubstr("\nundo: kestctl seeprom restore '" + machine().string() + "/it'\"'\"'s $HOME/undo/"));
    const std::string command = output.substr(output.find("undo: ") + 6);
    EXPECT_EQ(0, kestctl({"seeprom", "read", "panel-vpd"}).exit);
    EXPECT_EQ(
        0,
        std::system(("set -- " + command.substr(0, command.find('\n')) + "; test $# -eq 4 && test -f \"$4\"").c_str()));
}

TEST_F(KestctlSeeprom, LockedOrAbsentDevicesHaveTheirExitCodes)
{
    EXPECT_THAT(complaint(4, {"seeprom", "read", "sim:planar,L,2C0256,AE", "--length", "1"}),
                HasSubstr("sim:planar,L,2C0256,AE: read: nothing answers"));
    EXPECT_THAT(complaint(4, {"seeprom", "read", "sim:nowhere,L,2C0256,A0", "--length", "1"}),
                HasSubstr("no such bus"));
}

TEST_F(KestctlSeeprom, MissingBusOfANodeIsReportedWithTheBusesOfThatNode)
{
    writeFile(machine() / "kest.toml", readFile(machine() / "kest.toml") + "\n[nodes]\n2 = \"sim:blade\"\n");
    writeFile(machine() / "machine.toml",
              readFile(machine() / "machine.toml") + "\n[[bus]]\nname = \"mezzanine\"\nnode = \"blade\"\n");
    EXPECT_THAT(complaint(4, {"seeprom", "read", "sim:planar,2,2C0256,A0", "--length", "1"}),
                StartsWith("sim:planar,2,2C0256,A0: read: the simulated machine has no such bus; it has mezzanine"));
    EXPECT_THAT(complaint(4, {"seeprom", "read", "sim:mezzanine,L,2C0256,A0", "--length", "1"}),
                StartsWith("sim:mezzanine,L,2C0256,A0: read: the simulated machine has no such bus; it has planar"));
}

} // namespace
} // namespace kest::test
