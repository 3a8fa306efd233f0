/// The IIC layer over a Linux bus, with a stand-in for the kernel.
#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <ostream>

#include "platform/host/iic/tools.h"
#include "tests/host/linux_bus.h"

namespace kest::test
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(LinuxBus, OpensTheNodeCloseOnExec)
{
    OpenDevice device("/dev/i2c-7@A0");
    EXPECT_EQ(0, device.error());
    EXPECT_THAT(kernel.calls, ElementsAre("open /dev/i2c-7"));
    EXPECT_NE(0, kernel.openFlags & O_CLOEXEC);
    EXPECT_EQ(O_RDWR, kernel.openFlags & O_ACCMODE);
    EXPECT_EQ(0xA0U, device.number(3));
}

TEST_F(LinuxBus, ClosesTheNodeWithTheHandle)
{
    {
        OpenDevice device("/dev/i2c-7@A0");
        EXPECT_EQ(1, kernel.openNodes);
    }
    EXPECT_EQ(0, kernel.openNodes);
}

struct OpenFailure {
    int error;
    mode_t mode;
    int funcs;
    int expected;
};
std::ostream& operator<<(std::ostream& stream, const OpenFailure& each)
{
    return stream << "open " << each.error << ", mode " << each.mode << ", functions " << each.funcs;
}
class LinuxBusOpen : public LinuxBus, public testing::WithParamInterface<OpenFailure>
{
};
TEST_P(LinuxBusOpen, FailsAndKeepsNothingOpen)
{
    kernel.openError = GetParam().error;
    kernel.nodeMode = GetParam().mode;
    kernel.funcsError = GetParam().funcs;
    OpenDevice device("/dev/i2c-7@A0");
    EXPECT_EQ(GetParam().expected, device.error());
    EXPECT_EQ(0, kernel.openNodes);
}
INSTANTIATE_TEST_SUITE_P(
    All, LinuxBusOpen,
    testing::Values(OpenFailure{ENOENT, S_IFCHR, 0, ENOENT}, OpenFailure{ENOTDIR, S_IFCHR, 0, ENOENT},
                    OpenFailure{EACCES, S_IFCHR, 0, EACCES}, OpenFailure{EPERM, S_IFCHR, 0, EACCES},
                    OpenFailure{ENODEV, S_IFCHR, 0, ENODEV}, OpenFailure{ENXIO, S_IFCHR, 0, ENODEV},
                    OpenFailure{0, S_IFREG, 0, ENOENT}, OpenFailure{0, S_IFIFO, 0, ENOENT},
                    OpenFailure{0, S_IFCHR, ENOTTY, ENOSYS}, OpenFailure{0, S_IFCHR, ENODEV, ENODEV},
                    OpenFailure{ESHUTDOWN, S_IFCHR, 0, ENODEV}, OpenFailure{ELOOP, S_IFCHR, 0, ENOENT},
                    OpenFailure{ENAMETOOLONG, S_IFCHR, 0, ENOENT}, OpenFailure{EMFILE, S_IFCHR, 0, ENOMEM},
                    OpenFailure{ENFILE, S_IFCHR, 0, ENOMEM}, OpenFailure{ENOMEM, S_IFCHR, 0, ENOMEM},
                    OpenFailure{EINTR, S_IFCHR, 0, EIO}, OpenFailure{EAGAIN, S_IFCHR, 0, EIO},
                    OpenFailure{EBUSY, S_IFCHR, 0, ETIME}, OpenFailure{EIO, S_IFCHR, 0, EIO},
                    OpenFailure{EINVAL, S_IFCHR, 0, EIO}, OpenFailure{EDEADLK, S_IFCHR, 0, EIO},
                    OpenFailure{0, S_IFCHR, EOPNOTSUPP, ENOSYS}, OpenFailure{0, S_IFCHR, EINTR, EIO},
                    OpenFailure{0, S_IFCHR, EFAULT, EIO}, OpenFailure{0, S_IFCHR, ETIMEDOUT, ETIME}));

TEST_F(LinuxBus, ReadsOffsetAndDataInOneCall)
{
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    device.seek(0x1234);
    const Bytes data = device.readAll(32);
    EXPECT_THAT(kernel.log, ElementsAre("50W 1234 50R 32"));
    EXPECT_EQ(Bytes(chip().memory.begin() + 0x1234, chip().memory.begin() + 0x1254), data);
}

TEST_F(LinuxBus, ReadsAWholeChipInOneCallOfLongestMessages)
{
    kernel.adapterHz = 3'400'000;
    OpenDevice device("/dev/i2c-7");
    Block fast = eeprom();
    fast.speedKhz = 0;
    device.set(fast);
    EXPECT_EQ(chip().memory, device.readAll(32768));
    EXPECT_THAT(kernel.log, ElementsAre("50W 0000 50R 8192 50R 8192 50R 8192 50R 8192"));
}

TEST_F(LinuxBus, ReadOfMoreThanFitsIntoACallContinuesWithItsOffset)
{
    // no real bus is as fast: here the messages of a call are the limit
    kernel.adapterHz = 100'000'000;
    OpenDevice device("/dev/i2c-7");
    Block fast = eeprom();
    fast.speedKhz = 0;
    device.set(fast);
    const Bytes data = device.readAll(41 * 8192 + 1);
    ASSERT_EQ(2U, kernel.log.size());
    // 335,872 less five times the range of two bytes
    EXPECT_EQ("50W 2000 50R 1", kernel.log[1]);
    EXPECT_EQ(chip().memory[8192], data.back());
}

TEST_F(LinuxBus, WritesPageByPageAndAsksAtTheEnd)
{
    OpenDevice device("/dev/i2c-7");
    const Bytes data = pattern(100, 9);
    device.set(eeprom());
    device.seek(0x7E);
    EXPECT_EQ((Answer{100, 0}), device.write(data));
    EXPECT_THAT(kernel.log, ElementsAre("50W 007E171E", "50W 66", "50W 36", "50R 1"));
    EXPECT_EQ(data, Bytes(chip().memory.begin() + 0x7E, chip().memory.begin() + 0x7E + 100));
}

TEST_F(LinuxBus, AsksABusyChipUntilItAnswersAndSendsThePageThen)
{
    OpenDevice device("/dev/i2c-7");
    chip().writeCycleNs = 3'500'000;
    device.set(eeprom());
    EXPECT_EQ((Answer{128, 0}), device.write(pattern(128, 3)));
    EXPECT_EQ("50W 66", kernel.log.front());
    EXPECT_EQ("50R 1", kernel.log.back());
    EXPECT_LE(1'000'000'000 + 2 * 3'500'000U, kernel.clockNs);
    // and no later than needed
    EXPECT_GE(1'000'000'000 + 2 * 3'500'000U + 2'000'000U, kernel.clockNs);
    EXPECT_EQ(pattern(128, 3), Bytes(chip().memory.begin(), chip().memory.begin() + 128));
}

TEST_F(LinuxBus, EndlessWriteCycleIsReportedAfterFourOfThemOrFiftyMilliseconds)
{
    struct {
        std::uint16_t promisedMs;
        std::uint64_t waitedMs;
    } const cases[] = {{5, 50}, {12, 50}, {20, 80}};
    for (const auto& each : cases) {
        OpenDevice device("/dev/i2c-7");
        Block values = eeprom();
        values.writeCycleMs = each.promisedMs;
        chip().writeCycleNs = 10'000'000'000;
        chip().busyUntilNs = 0;
        const auto beginning = kernel.clockNs;
        device.set(values);
        EXPECT_EQ((Answer{0, ETIME}), device.write(pattern(10)));
        EXPECT_NEAR(static_cast<double>(kernel.clockNs - beginning) / 1e6, static_cast<double>(each.waitedMs), 0.5);
        EXPECT_THAT(device.firstFailure(), HasSubstr("\"silence\":\"busy\""));
        mern_iic_ffdc_unlock(device.handle(), 0);
    }
}

TEST_F(LinuxBus, AbsentDeviceIsAskedForFiftyMillisecondsOrByteFortyWhenLess)
{
    struct {
        std::uint32_t busyWaitMs;
        std::uint64_t waitedMs;
    } const cases[] = {{1000, 50}, {20, 20}, {0, 0}};
    kernel.chips.clear();
    for (const auto& each : cases) {
        OpenDevice device("/dev/i2c-7");
        Block values = eeprom();
        values.busyWaitMs = each.busyWaitMs;
        const auto beginning = kernel.clockNs;
        device.set(values);
        Bytes data(4);
        EXPECT_EQ((Answer{0, ENXIO}), device.read(data));
        EXPECT_NEAR(static_cast<double>(kernel.clockNs - beginning) / 1e6, static_cast<double>(each.waitedMs), 0.5);
    }
    OpenDevice device("/dev/i2c-7@A0");
    EXPECT_THAT(device.firstFailure(), HasSubstr("\"silence\":\"absent\""));
}

TEST_F(LinuxBus, DeviceIsReadWhenAnothersWriteCycleEnds)
{
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    chip().busyUntilNs = kernel.clockNs + 4'000'000;
    EXPECT_EQ(Bytes(chip().memory.begin(), chip().memory.begin() + 8), device.readAll(8));
}

TEST_F(LinuxBus, RefusedDataIsNotReportedAsARefusedAddress)
{
    OpenDevice device("/dev/i2c-7");
    chip().refusesData = true;
    device.set(eeprom());
    EXPECT_EQ((Answer{0, EIO}), device.write(pattern(4)));
}

struct Mapping {
    int kernelsError;
    int expected;
};
std::ostream& operator<<(std::ostream& stream, const Mapping& each) { return stream << each.kernelsError; }
class LinuxBusErrno : public LinuxBus, public testing::WithParamInterface<Mapping>
{
};
TEST_P(LinuxBusErrno, IsMappedForReadAndWrite)
{
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    kernel.lastingFailure = GetParam().kernelsError;
    Bytes data(4);
    EXPECT_EQ((Answer{0, GetParam().expected}), device.read(data));
    EXPECT_EQ((Answer{0, GetParam().expected}), device.write(data));
    // the handle is as usable as before
    kernel.lastingFailure = 0;
    EXPECT_EQ(Bytes(chip().memory.begin(), chip().memory.begin() + 4), device.readAll(4));
}
INSTANTIATE_TEST_SUITE_P(All, LinuxBusErrno,
                         testing::Values(Mapping{ENXIO, ENXIO}, Mapping{EREMOTEIO, ENXIO}, Mapping{ETIMEDOUT, ETIME},
                                         Mapping{ETIME, ETIME}, Mapping{EBUSY, ETIME}, Mapping{EAGAIN, EIO},
                                         Mapping{EINTR, EIO}, Mapping{ENODEV, ENODEV}, Mapping{ESHUTDOWN, ENODEV},
                                         Mapping{EOPNOTSUPP, ENOSYS}, Mapping{ENOTTY, ENOSYS}, Mapping{EIO, EIO},
                                         Mapping{EPROTO, EIO}, Mapping{EDEADLK, EIO}, Mapping{EINVAL, EIO}));

TEST_F(LinuxBus, LostArbitrationIsRepeatedWithinByteForty)
{
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    kernel.failures = {EAGAIN, EAGAIN, EBUSY, EINTR};
    EXPECT_EQ(Bytes(chip().memory.begin(), chip().memory.begin() + 4), device.readAll(4));
    EXPECT_EQ(5U, kernel.log.size());

    Block impatient = eeprom();
    impatient.busyWaitMs = 0;
    device.set(impatient);
    kernel.failures = {EAGAIN};
    Bytes data(4);
    EXPECT_EQ((Answer{0, EIO}), device.read(data));
}

TEST_F(LinuxBus, TransferTimeOutIsWatchedBetweenMessages)
{
    OpenDevice device("/dev/i2c-7");
    Block values = eeprom();
    values.timeoutMs = 10;
    chip().writeCycleNs = 4'000'000;
    device.set(values);
    EXPECT_EQ((Answer{192, ETIME}), device.write(pattern(640)));
    // the adapter's own time-out is left alone
    EXPECT_THAT(kernel.calls, ElementsAre("open /dev/i2c-7"));
}

TEST_F(LinuxBus, AdapterTimeOutIsSetAndPutBackWhenConfigured)
{
    settings.use("state = \"state\"\n[linux]\nset_timeout = true\nlock_folder = \"locks\"\n");
    OpenDevice device("/dev/i2c-7");
    Block values = eeprom();
    values.timeoutMs = 295;
    device.set(values);
    device.readAll(4);
    EXPECT_THAT(kernel.calls, ElementsAre("open /dev/i2c-7", "timeout 30", "timeout 100"));
}

TEST_F(LinuxBus, PlainTransferThatDoesNotFitAMessageSendsNothing)
{
    OpenDevice device("/dev/i2c-7@A0");
    Bytes data(8193);
    EXPECT_EQ((Answer{0, EINVAL}), device.read(data));
    EXPECT_EQ((Answer{0, EINVAL}), device.write(data));
    EXPECT_TRUE(kernel.log.empty());
    data.resize(8192);
    EXPECT_EQ((Answer{8192, 0}), device.read(data));
    EXPECT_THAT(kernel.log, ElementsAre("50R 8192"));
}

TEST_F(LinuxBus, HubReadsAreTransactionsOfTheirOwnWhoseLaterStatusIsDropped)
{
    kernel.adapterHz = 400'000;
    OpenDevice device("/dev/i2c-7");
    kernel.chips[0x40] = {.memory = pattern(32768), .offsetBytes = 4, .hubStatus = {0}};
    device.set({.address = 0x80, .offsetLength = 4, .pageSize = 64});
    device.seek(0x03A2FFFEL);
    const Bytes data = device.readAll(20001);
    EXPECT_THAT(kernel.log, ElementsAre("40W 03A2FFFE 40R 8192", "40W 03A21FFD 40R 8192", "40W 03A23FFC 40R 3619"));
    EXPECT_EQ(0, data[0]);
    const auto& memory = kernel.chips[0x40].memory;
    for (std::size_t index = 0; index < 20000; ++index) {
        ASSERT_EQ(memory[(0x03A2FFFE + (index < 2 ? index : index - 0x10000)) % 32768], data[index + 1]) << index;
    }
}

TEST_F(LinuxBus, LaterHubStatusOtherThanZeroEndsTheRead)
{
    kernel.adapterHz = 400'000;
    OpenDevice device("/dev/i2c-7");
    kernel.chips[0x40] = {.memory = pattern(32768), .offsetBytes = 4, .hubStatus = {0, 4}};
    device.set({.address = 0x80, .offsetLength = 4, .pageSize = 64});
    Bytes data(10000);
    EXPECT_EQ((Answer{8192, ENODATA}), device.read(data));
    EXPECT_EQ(2U, kernel.log.size());
}

TEST_F(LinuxBus, HubIsPolledByItsAddressAlone)
{
    OpenDevice device("/dev/i2c-7");
    kernel.chips[0x40] = {.memory = Bytes(65536), .offsetBytes = 3, .writeCycleNs = 1'000'000};
    device.set({.address = 0x80, .offsetLength = 3, .pageSize = 8});
    device.seek(0x03A0FC);
    EXPECT_EQ((Answer{4, 0}), device.write({1, 2, 3, 4}));
    EXPECT_EQ("40W 03A0FC01020304", kernel.log.front());
    EXPECT_LT(2U, kernel.log.size());
    for (std::size_t index = 1; index < kernel.log.size(); ++index) {
        EXPECT_EQ("40W ", kernel.log[index]);
    }
}

TEST_F(LinuxBus, AdapterThatTakesLessIsGivenLess)
{
    kernel.longestRead = 600;
    kernel.mostMessages = 2;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    EXPECT_EQ(Bytes(chip().memory.begin(), chip().memory.begin() + 1500), device.readAll(1500));
    EXPECT_THAT(kernel.log,
                ElementsAre("50W 0000 50R 375", "50W 0177 50R 375", "50W 02EE 50R 375", "50W 0465 50R 375"));
}

TEST_F(LinuxBus, AdapterThatSendsNoAddressAloneStillWritesAnEeprom)
{
    kernel.functions &= ~static_cast<unsigned long>(I2C_FUNC_SMBUS_QUICK);
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    EXPECT_EQ((Answer{4, 0}), device.write(pattern(4)));
    EXPECT_EQ("50R 1", kernel.log.back());
}

TEST_F(LinuxBus, ResetOpensTheAdapterAnewAndAsksForASignOfLife)
{
    OpenDevice device("/dev/i2c-7@A0");
    EXPECT_EQ((Answer{0, 0}), device.reset());
    EXPECT_THAT(kernel.calls, ElementsAre("open /dev/i2c-7", "open /dev/i2c-7"));
    EXPECT_THAT(kernel.log, ElementsAre("50R 1"));
    EXPECT_EQ(1, kernel.openNodes);

    // no device there, but the bus itself works
    kernel.chips.clear();
    EXPECT_EQ((Answer{0, 0}), device.reset());
    kernel.lastingFailure = ETIMEDOUT;
    EXPECT_EQ((Answer{-1, ETIME}), device.reset());
    kernel.lastingFailure = 0;
}

TEST_F(LinuxBus, ResetThatCannotOpenTheAdapterLeavesTheHandleAsItWas)
{
    struct {
        int openError;
        int expected;
    } const cases[] = {{ENOENT, ENODEV}, {ENXIO, ENODEV},  {ENODEV, ENODEV}, {EACCES, EACCES},
                       {EMFILE, ENOMEM}, {ENFILE, ENOMEM}, {ENOMEM, ENOMEM}, {EINTR, EIO}};
    OpenDevice device("/dev/i2c-7@A0");
    for (const auto& each : cases) {
        kernel.openError = each.openError;
        EXPECT_EQ((Answer{-1, each.expected}), device.reset()) << each.openError;
        EXPECT_EQ(1, kernel.openNodes);
        Bytes data(1);
        EXPECT_EQ((Answer{1, 0}), device.read(data)) << each.openError;
    }
    kernel.openError = 0;
    kernel.nodeMode = S_IFREG | 0600;
    EXPECT_EQ((Answer{-1, ENODEV}), device.reset());
    EXPECT_EQ(1, kernel.openNodes);
    kernel.nodeMode = S_IFCHR | 0600;
    EXPECT_EQ((Answer{0, 0}), device.reset());
    EXPECT_EQ(1, kernel.openNodes);
}

TEST_F(LinuxBus, DetectState)
{
    OpenDevice device("/dev/i2c-7@A0");
    EXPECT_EQ(3U, device.number(15));
    chip().busyUntilNs = kernel.clockNs + 20'000'000;
    // busy is not absent
    EXPECT_EQ(3U, device.number(15));
    chip().busyUntilNs = kernel.clockNs + 2'000'000'000;
    EXPECT_EQ(0U, device.number(15));
    kernel.lastingFailure = ETIMEDOUT;
    EXPECT_EQ(4U, device.number(15));
    kernel.lastingFailure = ENODEV;
    EXPECT_EQ(4U, device.number(15));
}

TEST_F(LinuxBus, ScanAsksByTheSafeWayForEachRangeAndLeavesDriversAlone)
{
    int error = 0;
    kernel.held = {0x51};
    auto bus = host::iic::toolBus::open("/dev/i2c-7", -1, error);
    ASSERT_NE(nullptr, bus);
    const auto results = bus->scan();
    ASSERT_EQ(112U, results.size());
    EXPECT_EQ(0x10, results.front().address);
    EXPECT_EQ(0xEE, results.back().address);
    for (const auto& result : results) {
        const auto expected = result.address == 0xA0   ? host::iic::presence::present
                              : result.address == 0xA2 ? host::iic::presence::heldByDriver
                                                       : host::iic::presence::absent;
        EXPECT_EQ(expected, result.state) << unsigned{result.address};
    }
    // one transaction for each address, and none for the driver's
    ASSERT_EQ(111U, kernel.log.size());
    EXPECT_EQ("08W ", kernel.log[0]);
    EXPECT_EQ("2FW ", kernel.log[0x2F - 8]);
    EXPECT_EQ("30R 1", kernel.log[0x30 - 8]);
    EXPECT_EQ("37R 1", kernel.log[0x37 - 8]);
    EXPECT_EQ("38W ", kernel.log[0x38 - 8]);
    EXPECT_EQ("4FW ", kernel.log[0x4F - 8]);
    EXPECT_EQ("50R 1", kernel.log[0x50 - 8]);
    EXPECT_EQ("5FR 1", kernel.log[0x5F - 8 - 1]);
    EXPECT_EQ("60W ", kernel.log[0x60 - 8 - 1]);
}

TEST_F(LinuxBus, ScanOfABusThatTimesOutSaysSo)
{
    int error = 0;
    auto bus = host::iic::toolBus::open("/dev/i2c-7", -1, error);
    kernel.lastingFailure = ETIMEDOUT;
    const auto result = bus->probe(0xA0);
    EXPECT_EQ(host::iic::presence::uncertain, result.state);
    EXPECT_EQ("timed out", result.reason);
}

/// Adapters without plain messages: the exact SMBus call or none.
struct SmbusCase {
    unsigned long functions;
    std::uint16_t offsetLength;
    Bytes written; ///< empty: a read
    std::size_t wanted;
    int error;
    std::string call;
};
std::ostream& operator<<(std::ostream& stream, const SmbusCase& each)
{
    return stream << "functions " << each.functions << ", offset of " << each.offsetLength << ", "
                  << (each.written.empty() ? "reads " : "writes ") << std::max(each.written.size(), each.wanted);
}
class SmbusOnly : public LinuxBus, public testing::WithParamInterface<SmbusCase>
{
};
TEST_P(SmbusOnly, MakesTheExactCallOrNone)
{
    const SmbusCase& each = GetParam();
    kernel.functions = each.functions;
    OpenDevice device("/dev/i2c-7");
    Block values;
    values.address = 0x90;
    values.offsetLength = each.offsetLength;
    values.writeCycleMs = 0;
    device.set(values);
    device.seek(0x10);
    Bytes data(each.wanted);
    const Answer result = each.written.empty() ? device.read(data) : device.write(each.written);
    EXPECT_EQ(each.error, result.error);
    if (each.call.empty()) {
        EXPECT_TRUE(kernel.log.empty()) << kernel.log.front();
    } else {
        ASSERT_FALSE(kernel.log.empty());
        EXPECT_EQ(each.call, kernel.log.front());
    }
}
INSTANTIATE_TEST_SUITE_P(
    All, SmbusOnly,
    testing::Values(SmbusCase{I2C_FUNC_SMBUS_BYTE, 0, {0x12}, 0, 0, "48W byte 12"},
                    SmbusCase{I2C_FUNC_SMBUS_BYTE_DATA, 0, {0x12, 0x34}, 0, 0, "48W byte data 12 34"},
                    SmbusCase{I2C_FUNC_SMBUS_WORD_DATA, 0, {0x12, 0x34, 0x56}, 0, 0, "48W word data 12 3456"},
                    SmbusCase{I2C_FUNC_SMBUS_I2C_BLOCK, 0, {0x12, 1, 2, 3, 4}, 0, 0, "48W i2c block 12 4:01020304"},
                    SmbusCase{I2C_FUNC_SMBUS_BYTE, 0, {}, 1, 0, "48R byte 00"},
                    SmbusCase{I2C_FUNC_SMBUS_BYTE_DATA, 1, {}, 1, 0, "48R byte data 10"},
                    SmbusCase{I2C_FUNC_SMBUS_WORD_DATA, 1, {}, 2, 0, "48R word data 10"},
                    SmbusCase{I2C_FUNC_SMBUS_I2C_BLOCK, 1, {}, 7, 0, "48R i2c block 10 7"},
                    SmbusCase{I2C_FUNC_SMBUS_I2C_BLOCK | I2C_FUNC_SMBUS_QUICK, 2, {9}, 0, 0, "48W i2c block 00 2:1009"},
                    SmbusCase{I2C_FUNC_SMBUS_I2C_BLOCK, 2, {}, 7, ENOSYS, ""}, // two bytes of offset before a read
                    SmbusCase{I2C_FUNC_SMBUS_BYTE, 0, {}, 2, EINVAL, ""}, // a plain read of two bytes
                    SmbusCase{I2C_FUNC_SMBUS_I2C_BLOCK, 0, {}, 2, ENOSYS, ""},
                    SmbusCase{I2C_FUNC_SMBUS_BYTE, 0, {1, 2}, 0, EINVAL, ""},
                    SmbusCase{I2C_FUNC_SMBUS_BYTE, 1, {1}, 0, ENOSYS, ""}));

TEST_F(LinuxBus, SmbusReadsLongerThanACallAreSplitWithTheirOffsets)
{
    kernel.functions = I2C_FUNC_SMBUS_I2C_BLOCK;
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x90, .offsetLength = 1});
    const Bytes data = device.readAll(70);
    EXPECT_THAT(kernel.log, ElementsAre("48R i2c block 00 32", "48R i2c block 20 32", "48R i2c block 40 6"));
    for (std::size_t index = 0; index < data.size(); ++index) {
        EXPECT_EQ(index, data[index]);
    }
}

TEST_F(LinuxBus, NodesArePathPrefixesAndMeetAtTheSameLock)
{
    settings.use(
        "state = \"state\"\n[linux]\nlock_folder = \"locks\"\n[nodes]\n2 = \"/nodes/two\"\n3 = \"sim:three\"\n");
    OpenDevice local("/dev/i2c-7@A0");
    OpenDevice remote("/dev/i2c-7@A0", 2);
    EXPECT_THAT(kernel.calls, ElementsAre("open /dev/i2c-7", "open /nodes/two/dev/i2c-7"));
    // mapped, but to a simulated node
    EXPECT_EQ(ENODEV, OpenDevice("/dev/i2c-7@A0", 3).error());
    EXPECT_EQ(ENODEV, OpenDevice("/dev/i2c-7@A0", 4).error());
    EXPECT_EQ(ENODEV, OpenDevice("sim:planar", 2).error());

    Bytes record = registerLock(0xC0, 0);
    EXPECT_EQ((Answer{0, 0}), local.config(2, 17, record.data(), 8));
    // one device number, one bus
    EXPECT_EQ((Answer{-1, EBUSY}), remote.config(2, 17, record.data(), 8));
    kernel.minorNumber = 8;
    OpenDevice other("/dev/i2c-7@A0");
    EXPECT_EQ((Answer{0, 0}), other.config(2, 17, record.data(), 8));
    EXPECT_TRUE(std::filesystem::exists(settings.folder() / "locks" / "i2c-89-7.lock"));
}

TEST_F(LinuxBus, FirstFailureNamesTheAdapter)
{
    OpenDevice device("/dev/i2c-7@A0");
    kernel.chips.clear();
    kernel.name = "weird \xFF\x01 adapter";
    Bytes data(1);
    EXPECT_EQ((Answer{0, ENXIO}), device.read(data));
    EXPECT_THAT(device.firstFailure(), HasSubstr("\"adapter\":\"weird"));
    EXPECT_THAT(device.firstFailure(), HasSubstr("\"bus\":\"/dev/i2c-7\""));
}

} // namespace
} // namespace kest::test
