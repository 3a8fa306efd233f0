#include <array>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/host/errorlog/entry.h"
#include "tests/host/fakekernel.h"
#include "tools/common/advice.h"
#include "tools/common/attributes.h"
#include "tools/common/bus.h"
#include "tools/common/carefulwrite.h"
#include "tools/common/device.h"
#include "tools/common/devicetext.h"
#include "tools/common/entryfailure.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"
#include "tools/common/progress.h"
#include "tools/common/seeprom.h"
#include "tools/common/when.h"

namespace kest::tools
{
namespace
{

using namespace std::chrono_literals;

/// What a step complains about, with its exit code; empty when it doesn't.
template <typename Step>
std::string complaint(Step step)
{
    try {
        step();
    } catch (const failure& why) {
        return std::to_string(why.code) + " " + why.what;
    }
    return {};
}

std::string textComplaint(const std::string& text)
{
    return complaint([&text] { static_cast<void>(parseDeviceText(text)); });
}

TEST(DeviceText, OfADeviceOnTheBus)
{
    const device found = parseDeviceText("sim:planar@A2,L,2C0256,A0");
    EXPECT_EQ("sim:planar", found.bus);
    EXPECT_EQ("L", found.node);
    ASSERT_EQ(1U, found.links.size());
    EXPECT_EQ(0xA0, found.end().address);
    EXPECT_STREQ("24C256", found.end().type->chip);
    EXPECT_EQ(32768U, found.end().type->bytes);
    EXPECT_EQ(64U, found.end().type->pageBytes);
    EXPECT_FALSE(found.behindHub());
    EXPECT_EQ("sim:planar@A0,L,2C0256,A0", detectionText(found));
}

TEST(DeviceText, BehindAHub)
{
    const device found = parseDeviceText("/dev/i2c-12,7,922,8a,3,0x1C0002,0xA4");
    EXPECT_EQ("/dev/i2c-12", found.bus);
    EXPECT_EQ("7", found.node);
    ASSERT_EQ(2U, found.links.size());
    EXPECT_EQ(0x8A, found.head().address);
    EXPECT_EQ(3, found.head().port);
    EXPECT_EQ(0xA4, found.end().address);
    EXPECT_EQ(256U, found.end().type->bytes);
    EXPECT_EQ(8U, found.end().type->pageBytes);
    EXPECT_TRUE(found.behindHub());
}

TEST(DeviceText, ComplaintsNameTheField)
{
    EXPECT_EQ("2 device text 'a,L,2C0256,A0': field 1, 'a', is no device path: /dev/i2c-N or sim:BUS, either with @HH "
              "behind it",
              textComplaint("a,L,2C0256,A0"));
    EXPECT_EQ("2 device text '/dev/i2c-,L,2C0256,A0': field 1, '/dev/i2c-', is no device path: /dev/i2c-N or sim:BUS, "
              "either with "
              "@HH behind it",
              textComplaint("/dev/i2c-,L,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p@A,L,2C0256,A0': field 1, 'sim:p@A', has no two hexadecimal digits after '@'",
              textComplaint("sim:p@A,L,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p,8,2C0256,A0': field 2, '8', is no node: L for the local one, or 0 to 7",
              textComplaint("sim:p,8,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0999,A0': field 3, '2C0999', is no device type; there are F0 922 1C0002 2C0032 "
              "2C0064 "
              "2C0128 2C0256 2C0512 9551 9552 9554 9555 D10 75 92 172",
              textComplaint("sim:p,L,2C0999,A0"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0256,XY': field 4, 'XY', is no address: hexadecimal, at most FF",
              textComplaint("sim:p,L,2C0256,XY"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0256,1A0': field 4, '1A0', is no address: hexadecimal, at most FF",
              textComplaint("sim:p,L,2C0256,1A0"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0256,51': field 4, '51', is odd: addresses are in the 8-bit form; if it is a "
              "7-bit one, "
              "write A2",
              textComplaint("sim:p,L,2C0256,51"));
    EXPECT_EQ(
        "2 device text 'sim:p,L,2C0256,A1': field 4, 'A1', is odd: addresses are in the 8-bit form, which is even",
        textComplaint("sim:p,L,2C0256,A1"));
    EXPECT_EQ("2 device text 'sim:p,L,2C0256,00': field 4, '00', is no device's address",
              textComplaint("sim:p,L,2C0256,00"));
    EXPECT_EQ("2 device text 'sim:p,,2C0256,A0': field 2, '', is empty; expected node",
              textComplaint("sim:p,,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p,L' ends where field 3, device type, is expected", textComplaint("sim:p,L"));
    EXPECT_EQ("2 device text 'sim:p,L,922,80' ends where field 5, hub port, is expected",
              textComplaint("sim:p,L,922,80"));
}

TEST(DeviceText, ComplaintsAboutTheChain)
{
    EXPECT_EQ(
        "2 device text 'sim:p,L,922,80,3': field 5, '3', ends the chain with a hub; the device behind it is missing",
        textComplaint("sim:p,L,922,80,3"));
    EXPECT_EQ(
        "2 device text 'sim:p,L,2C0256,A0,75,90': field 6, '90', follows a 24C256, behind which there can be nothing",
        textComplaint("sim:p,L,2C0256,A0,75,90"));
    EXPECT_EQ("2 device text 'sim:p,L,922,80,3,F0,70,1,2C0256,A0': field 8, '1', puts an F0 hub behind a 922 hub",
              textComplaint("sim:p,L,922,80,3,F0,70,1,2C0256,A0"));
    EXPECT_EQ("", textComplaint("sim:p,L,F0,70,1,922,80,3,2C0256,A0"));
    EXPECT_EQ("2 device text 'sim:p,L,F0,70,1,922,80,3,2C0256,A0,75,90': field 12, '90', makes a chain of more than 3 "
              "devices",
              textComplaint("sim:p,L,F0,70,1,922,80,3,2C0256,A0,75,90"));
    EXPECT_EQ("2 device text of 256 characters: at most 255 fit", textComplaint(std::string(256, 'x')));
}

TEST(DeviceText, UnservedChainsAreRefused)
{
    const auto refusal = [](const std::string& text) {
        return complaint([&text] { refuseUnservedChain(parseDeviceText(text)); });
    };
    EXPECT_EQ("2 no transfer goes through an F0 hub", refusal("sim:p,L,F0,70,1,2C0256,A0"));
    EXPECT_EQ("2 no transfer goes through an F0 hub", refusal("sim:p,L,F0,70,1,922,80,3,2C0256,A0"));
    EXPECT_EQ("2 a PCA9552 can't be reached behind a 922 hub, which passes SEEPROM transfers on and nothing else",
              refusal("sim:p,L,922,80,3,9552,C0"));
    EXPECT_EQ("2 an LM75 can't be reached behind a 922 hub, which passes SEEPROM transfers on and nothing else",
              refusal("sim:p,L,922,80,3,75,90"));
    EXPECT_EQ("2 a 172 device can't be reached behind a 922 hub, which passes SEEPROM transfers on and nothing else",
              refusal("sim:p,L,922,80,3,172,A0"));
    EXPECT_EQ("", refusal("sim:p,L,922,80,3,2C0128,A2"));
    EXPECT_EQ("", refusal("sim:p,L,172,A0"));
}

TEST(DeviceTypes, EachHasItsCapacityPagesAndPins)
{
    struct Row {
        std::uint32_t type, bytes, page;
        unsigned pins;
    };
    for (const Row& expected : {Row{0xF0, 0, 0, 0}, Row{0x922, 0, 0, 0}, Row{0x1C0002, 256, 8, 0},
                                Row{0x2C0032, 4096, 32, 0}, Row{0x2C0064, 8192, 32, 0}, Row{0x2C0128, 16384, 64, 0},
                                Row{0x2C0256, 32768, 64, 0}, Row{0x2C0512, 65536, 128, 0}, Row{0x9551, 0, 0, 8},
                                Row{0x9552, 0, 0, 16}, Row{0x9554, 0, 0, 8}, Row{0x9555, 0, 0, 16}, Row{0xD10, 0, 0, 0},
                                Row{0x75, 0, 0, 16}, Row{0x92, 0, 0, 16}, Row{0x172, 22016, 0, 0}}) {
        const deviceTypeInfo* type = findType(expected.type);
        ASSERT_NE(nullptr, type) << std::hex << expected.type;
        EXPECT_EQ(expected.bytes, type->bytes) << std::hex << expected.type;
        EXPECT_EQ(expected.page, type->pageBytes) << std::hex << expected.type;
        EXPECT_EQ(expected.pins, type->pins) << std::hex << expected.type;
    }
    EXPECT_EQ(16U, deviceTypes().size());
    EXPECT_EQ(nullptr, findType(0x9553));
}

TEST(Ranges, AreCheckedAgainstTheCapacity)
{
    const auto range = [](const char* text, std::uint64_t offset, std::optional<std::uint64_t> length) {
        const byteRange checked = checkedRange(parseDeviceText(text), offset, length);
        return std::to_string(checked.offset) + " " + std::to_string(checked.length);
    };
    const auto wrong = [&range](const char* text, std::uint64_t offset, std::optional<std::uint64_t> length) {
        return complaint([&] { range(text, offset, length); });
    };
    EXPECT_EQ("0 22016", range("sim:p,L,172,A0", 0, std::nullopt));
    EXPECT_EQ("22015 1", range("sim:p,L,172,A0", 22015, 1));
    EXPECT_EQ("2 offset 22016 (0x5600) is past the end: the device holds 22016 bytes",
              wrong("sim:p,L,172,A0", 22016, std::nullopt));
    EXPECT_EQ("2 22016 bytes at offset 1 pass the end: the device holds 22016 bytes",
              wrong("sim:p,L,172,A0", 1, 22016));
    EXPECT_EQ("100 156", range("sim:p,L,1C0002,A4", 100, std::nullopt));
    EXPECT_EQ("2 length 0: there is nothing to transfer", wrong("sim:p,L,1C0002,A4", 0, 0));
}

TEST(DriversAddresses, AreRefusedUnlessForced)
{
    test::FakeKernel kernel;
    kernel.held = {0x50, 0x40};
    const auto complained = [](const char* text, bool force) {
        return complaint([&] { refuseDoubtfulWrite(parseDeviceText(text), force); });
    };
    EXPECT_EQ("3 a driver of the kernel has A0 = 0x50", complained("/dev/i2c-7,L,2C0256,A0", false));
    EXPECT_EQ("", complained("/dev/i2c-7,L,2C0256,A0", true));
    EXPECT_EQ("", complained("/dev/i2c-7,L,2C0256,A2", false));
    EXPECT_EQ("3 a driver of the kernel has 80 = 0x40", complained("/dev/i2c-7,L,922,80,3,2C0128,A0", false));
    // the hub's own bus knows no drivers
    EXPECT_EQ("", complained("/dev/i2c-7,L,922,88,3,2C0128,A0", false));
    // nothing went over the wires
    EXPECT_TRUE(kernel.log.empty());
    kernel.openError = EACCES;
    // the write will tell
    EXPECT_EQ("", complained("/dev/i2c-7,L,2C0256,A0", false));
}

TEST(Numbers, DecimalOrAfter0x)
{
    const auto number = [](const std::string& text) { return parseNumber(text, "offset", 0xFFFF); };
    EXPECT_EQ(0U, number("0"));
    EXPECT_EQ(10U, number("010"));
    EXPECT_EQ(255U, number("0xff"));
    EXPECT_EQ(255U, number("0XFF"));
    EXPECT_EQ(65535U, number("65535"));
    for (const char* text : {"", "0x", "-1", "+1", " 1", "1 ", "12a", "ff", "1e3", "0x1G", "99999999999999999999"}) {
        EXPECT_EQ("2 offset '" + std::string(text) + "': expected a decimal number, or a hexadecimal one after 0x",
                  complaint([&] { static_cast<void>(number(text)); }));
    }
    EXPECT_EQ("2 offset '65536': expected 0 to 65535 (0xFFFF)", complaint([&] { static_cast<void>(number("65536")); }));
    EXPECT_EQ("2 count '0': expected 1 to 9 (0x9)",
              complaint([] { static_cast<void>(parseNumber("0", "count", 9, 1)); }));
}

TEST(Numbers, SizesTakeKAndM)
{
    EXPECT_EQ(4096U, parseSize("4K", "length", 65536));
    EXPECT_EQ(2097152U, parseSize("2M", "length", 1U << 30));
    EXPECT_EQ("2 length '65K': expected 0 to 65536 (0x10000)",
              complaint([] { static_cast<void>(parseSize("65K", "length", 65536)); }));
    EXPECT_EQ("2 length 'K': expected a decimal number, or a hexadecimal one after 0x",
              complaint([] { static_cast<void>(parseSize("K", "length", 65536)); }));
    EXPECT_EQ(
        "2 length '18014398509481985K': expected 0 to 65536 (0x10000)", // 2^54 + 1: times 1024 it would wrap to 1024
        complaint([] { static_cast<void>(parseSize("18014398509481985K", "length", 65536)); }));
}

TEST(Numbers, Seconds)
{
    EXPECT_EQ(500'000'000U, parseSeconds("0.5", "--watch"));
    EXPECT_EQ(0U, parseSeconds("0", "--watch"));
    for (const char* text : {"", "-1", "1s", "nan", "inf", "86401", "1e3"}) {
        EXPECT_EQ("2 --watch '" + std::string(text) + "': expected seconds, 0 to 86400, such as 0.5",
                  complaint([&] { static_cast<void>(parseSeconds(text, "--watch")); }));
    }
}

TEST(Numbers, Pins)
{
    EXPECT_EQ(0x39U, parsePins("0,3-5", 16));
    EXPECT_EQ(0x8000U, parsePins("15", 16));
    EXPECT_EQ(0xFFFFFFFFU, parsePins("0-31", 32));
    EXPECT_EQ("2 pin '8': expected 0 to 7 (0x7)", complaint([] { static_cast<void>(parsePins("8", 8)); }));
    EXPECT_EQ("2 pin '3': expected 5 to 7 (0x7)", complaint([] { static_cast<void>(parsePins("5-3", 8)); }));
    EXPECT_EQ("2 pin '': expected a decimal number, or a hexadecimal one after 0x",
              complaint([] { static_cast<void>(parsePins("1,", 8)); }));
}

TEST(Numbers, AddressesInBothForms)
{
    EXPECT_EQ("A0 = 0x50", addressText(0xA0));
    EXPECT_EQ("0E = 0x07", addressText(0x0E));
}

TEST(Escape, NothingReachesATerminalThatIsNotPrintable)
{
    EXPECT_EQ("plain text", escaped("plain text"));
    EXPECT_EQ("\\x1B[31mred\\x07\\x0A", escaped("\x1B[31mred\a\n"));
    EXPECT_EQ("\\\\x41", escaped("\\x41"));
    EXPECT_EQ("Gehäuselüfter ✓ 温", escaped("Gehäuselüfter ✓ 温"));
    EXPECT_EQ("\\xC2\\x9B31m", escaped("\xC2\x9B"
                                       // C1 control sequence introducer
                                       "31m"));
    EXPECT_EQ("a\\xE2\\x80\\xAEb", escaped("a\u202Eb"));
    EXPECT_EQ("a\\xE2\\x80\\x8Bb", escaped("a\u200Bb"));
    EXPECT_EQ("\\xFF\\xC3", escaped("\xFF\xC3"));
    // over-long
    EXPECT_EQ("\\xC0\\xAF", escaped("\xC0\xAF"));
    // over-long
    EXPECT_EQ("\\xE0\\x80\\xAF", escaped("\xE0\x80\xAF"));
    // surrogate
    EXPECT_EQ("\\xED\\xA0\\x80", escaped("\xED\xA0\x80"));
    // beyond what is let through
    EXPECT_EQ("\\xF0\\x9F\\x92\\xA9", escaped("\xF0\x9F\x92\xA9"));
    EXPECT_EQ(std::string("\\x00") + "x", escaped(std::string_view("\0x", 2)));
}

TEST(Escape, WordsForAShell)
{
    EXPECT_EQ("sim:planar,L,2C0256,A0", shellWord("sim:planar,L,2C0256,A0"));
    EXPECT_EQ("/tmp/a-b_c.json", shellWord("/tmp/a-b_c.json"));
    EXPECT_EQ("''", shellWord(""));
    EXPECT_EQ("'two words'", shellWord("two words"));
    EXPECT_EQ("'$(reboot);*'", shellWord("$(reboot);*"));
    EXPECT_EQ("'it'\"'\"'s'", shellWord("it's"));
}

TEST(Failures, AreOneLine)
{
    EXPECT_EQ("kestctl: planar-vpd: detect: nothing answers; check power [log 0x50000012]",
              failureLine("kestctl", {.code = exitAbsent,
                                      .what = "nothing answers",
                                      .tryThis = "check power",
                                      .device = "planar-vpd",
                                      .step = "detect",
                                      .logId = 0x50000012}));
    EXPECT_EQ("kestctl: x\\x0Ay: bad", failureLine("kestctl", {.code = exitFailed, .what = "bad", .device = "x\ny"}));
}

TEST(Failures, ErrnoDecidesTheExitCode)
{
    const busName bus{"/dev/i2c-9"};
    EXPECT_EQ(exitAbsent, adviceFor(ENXIO, bus).code);
    EXPECT_EQ(exitAbsent, adviceFor(ENODEV, bus).code);
    EXPECT_EQ(exitAbsent, adviceFor(ENOENT, bus).code);
    EXPECT_EQ(exitBusy, adviceFor(EBUSY, bus).code);
    EXPECT_EQ(exitRefused, adviceFor(EACCES, bus).code);
    for (const int error : {EIO, ETIME, ENODATA, ENOSYS, EINVAL, EBADF, ENOSPC}) {
        EXPECT_EQ(exitFailed, adviceFor(error, bus).code) << error;
    }
}

TEST(Failures, HintsNameTheBusAndItsNode)
{
    EXPECT_EQ("check address and power; 'kestctl scan /dev/i2c-9' shows what does",
              adviceFor(ENXIO, {"/dev/i2c-9", "L"}).tryThis);
    EXPECT_EQ("check address and power; 'kestctl scan /dev/i2c-9 --node 1' shows what does",
              adviceFor(ENXIO, {"/dev/i2c-9", "1"}).tryThis);
    EXPECT_EQ("check address and power; 'kestctl scan 'sim:a b'' shows what does",
              adviceFor(ENXIO, {"sim:a b", "L"}).tryThis);
    EXPECT_EQ(
        "'kestctl reset /dev/i2c-9 --node 1' frees a held bus, 'kestctl scan /dev/i2c-9 --node 1' shows what answers",
        adviceFor(ETIME, {"/dev/i2c-9", "1"}).tryThis);
    EXPECT_EQ("'ls /dev/i2c-*' shows the adapters there are; the kernel's module i2c-dev makes them",
              adviceFor(ENOENT, {"/dev/i2c-9", "L"}).tryThis);
    EXPECT_EQ("'kestctl topology' shows the buses there are", adviceFor(ENODEV, {"/dev/i2c-9", "L"}).tryThis);
    EXPECT_EQ("check the node map in kest.toml", adviceFor(ENODEV, {"/dev/i2c-9", "1"}).tryThis);
    // the caller names the entry
    EXPECT_EQ("", adviceFor(ENODATA, {"/dev/i2c-9", "L"}).tryThis);
}

/// Some adapters end the transfer to a missing chip by a time-out.
TEST(Failures, ATimeOutIsNotTakenForAHeldBusAlone)
{
    EXPECT_EQ("no answer in time: the bus is held, the chip stayed busy, or none is there",
              adviceFor(ETIME, {"/dev/i2c-9", "L"}).what);
}

/// An entry as the library makes them.
std::unique_ptr<ErrlEntry> makeEntry(std::uint16_t reason, std::uint32_t word1)
{
    return std::unique_ptr<ErrlEntry>(new ErrlEntry(0x1300, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE,
                                                    SRCI_TYPE_SERVICE_PROCESSOR, 0, 13, SERVICE_CODE_KEST, reason,
                                                    word1, 0, 0, 0, EPUB_SUBSYSTEM_IIC_DEVICE, SRCI_TERM_NONE));
}

TEST(Failures, ErrnoOfAnEntryIsThatOfItsFirstFailedLayerCall)
{
    using host::describeEntry;
    EXPECT_EQ(ENXIO, errnoOf(describeEntry(*makeEntry(0x1311, ENXIO))));
    // a detect state, no errno
    EXPECT_EQ(0, errnoOf(describeEntry(*makeEntry(0x130A, ENXIO))));
    const auto entry = makeEntry(0x1329, 0);
    entry->addSRC(0x1300, SRCI_TYPE_SERVICE_PROCESSOR, 0, 12, SERVICE_CODE_KEST, 0x130E, EBUSY, 0, 0, 0,
                  EPUB_SUBSYSTEM_SOFTWARE);
    EXPECT_EQ(EBUSY, errnoOf(describeEntry(*entry)));
}

/// What the tools make of a return code alone, as a client of the service has it.
TEST(Failures, ReturnCodeDecidesTheExitCode)
{
    struct Row {
        std::uint32_t returnCode;
        int exit; ///< -1: it tells nothing
    };
    for (const Row& expected :
         {Row{0x40001306, 4},  Row{0x4000130A, 4},  Row{0x10001309, 1}, Row{0x00101319, 1}, Row{0x4000131A, 4},
          Row{0x1000131B, 1},  Row{0x0010131C, 2},  Row{0x0010131D, 1}, Row{0x1000131E, 1}, Row{0x1000131F, 1},
          Row{0x8000132A, 1},  Row{0x80001315, 2},  Row{0x80001302, 2}, Row{0x80001318, 2}, Row{0x80001327, 4},
          Row{0x8000132D, 2},  Row{0x80001330, 2},  Row{0x8000130B, 4}, Row{0x80001311, 4}, Row{0x41000000, 4},
          Row{0x80001312, -1}, Row{0x8000130E, -1}, Row{0, -1}}) {
        failure why;
        const bool told = describeReturnCode(expected.returnCode, why);
        EXPECT_EQ(expected.exit, told ? why.code : -1) << std::hex << expected.returnCode;
        EXPECT_EQ(told, !why.what.empty()) << std::hex << expected.returnCode;
    }
}

/// The entry tells more: of a call that failed, its errno.
TEST(Failures, EntryDecidesTheExitCode)
{
    const auto exitOf = [](std::uint16_t reason, std::uint32_t returnCode, int error) {
        const auto entry = makeEntry(reason, static_cast<std::uint32_t>(error));
        entry->setRC(returnCode);
        failure why;
        describeEntry(host::describeEntry(*entry), parseDeviceText("sim:p,L,2C0256,A0"), why);
        return std::to_string(why.code) + " " + why.what;
    };
    EXPECT_EQ("6 somebody else holds it", exitOf(0x130E, 0x8000130E, EBUSY));
    EXPECT_EQ("3 not permitted", exitOf(0x130C, 0x8000130C, EACCES));
    EXPECT_EQ("4 nothing answers", exitOf(0x1311, 0x80001311, ENXIO));
    EXPECT_EQ("4 nothing answers, or there is no such bus", exitOf(0x1311, 0x80001311, 0));
    EXPECT_EQ("4 the hub did not answer and was reset", exitOf(0x1311, 0x41000000, ENXIO));
    EXPECT_EQ("2 the hub has no such port", exitOf(0x131C, 0x0010131C, 7));
    EXPECT_EQ("1 a byte was not acknowledged, or the transfer ended short", exitOf(0x1312, 0x80001312, EIO));
    EXPECT_EQ("1 no memory or open file is left", exitOf(0x1312, 0x00001312, ENOMEM));
}

TEST(Attributes, AreTheDefaultsWithHardwareMode)
{
    EXPECT_EQ((attributeRecord{400, 1, 15, 4, 2, 1}), hardwareAttributes());
    EXPECT_EQ((attributeRecord{100, 1, 15, 4, 2, 1}), hardwareAttributes(100));
}

TEST(Attributes, AddressCarriesNumberAndText)
{
    device which = parseDeviceText("sim:p,L,2C0256,A0");
    which.number = 0xD001;
    const tavo_deviceaddress address = tavoAddress(which);
    EXPECT_EQ(0xD001U, address.number);
    EXPECT_STREQ("sim:p,L,2C0256,A0", static_cast<const char*>(address.location));
}

TEST(Progress, TellsRateAndTimeLeft)
{
    EXPECT_EQ("12.0 KiB of 64.0 KiB, 3.0 KiB/s, 18 s left", progressText(12288, 65536, 4s));
    EXPECT_EQ("0 B of 300 B, 0 B/s, - left", progressText(0, 300, 0s));
    EXPECT_EQ("300 B of 300 B, 150 B/s, 0 s left", progressText(300, 300, 2s));
}

/// What a terminal of a type is shown of progress.
std::string progressOn(const char* terminalType)
{
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        setenv("TERM", terminalType, 1);
        {
            progress shown("read", 100, 0ms);
            shown.update(50);
        }
        std::fputs("end", stderr);
        _exit(0);
    }
    std::string text;
    std::array<char, 99> bytes{};
    for (ssize_t got = 0; (got = read(terminal, bytes.data(), bytes.size())) > 0;) {
        text.append(bytes.data(), static_cast<std::size_t>(got));
    }
    close(terminal);
    waitpid(child, nullptr, 0);
    return text;
}

TEST(Progress, IsNotForTerminalsThatTakeNoSequences)
{
    EXPECT_EQ("end", progressOn("dumb"));
    EXPECT_EQ("end", progressOn(""));
    const std::string shown = progressOn("xterm");
    EXPECT_TRUE(shown.starts_with("\r\033[Kread: 50 B of 100 B, ")) << shown;
    EXPECT_TRUE(shown.ends_with("\r\033[Kend")) << shown;
}

TEST(Times, AreUtc)
{
    EXPECT_EQ("1970-01-01T00:00:00.000Z", timeText(0));
    EXPECT_EQ("2024-02-29T12:34:56.789Z", timeText(1709210096789));
    EXPECT_EQ("1969-12-31T23:59:59.999Z", timeText(-1));
    EXPECT_EQ(1709164800000, parseTime("2024-02-29", "--since"));
    EXPECT_EQ(1709210096000, parseTime("2024-02-29T12:34:56Z", "--since"));
    for (const char* text : {"2024-02-30", "2023-02-29T00:00:00Z", "2024-04-31T12:00", "2024-05-01T12:00:60Z"}) {
        EXPECT_NE("", complaint([text] { static_cast<void>(parseTime(text, "--since")); })) << text;
    }
    EXPECT_NEAR(static_cast<double>(nowMs() - 7'200'000), static_cast<double>(parseTime("2h", "--since")), 60'000);
    EXPECT_EQ("2 --since 'soon': expected a time such as 2024-05-01, 2024-05-01T12:00:00Z, 90s, 15m, 2h or 7d",
              complaint([] { static_cast<void>(parseTime("soon", "--since")); }));
}

} // namespace
} // namespace kest::tools
