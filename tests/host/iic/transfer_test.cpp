/// Transfers of the IIC layer on adapters that take little at once, that can't probe an address without data, or that
/// run out of memory.
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <new>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/host/iic/bus_linux.h"
#include "platform/host/iic/locks.h"
#include "tests/host/linux_bus.h"
#include "tests/host/memory.h"

namespace kest::test
{
namespace
{

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint64_t nsPerMs = 1'000'000;
constexpr std::uint64_t foreverNs = 3'600'000 * nsPerMs;

class SmallAdapter : public LinuxBus
{
protected:
    /// A hub at 0x80 in front of a chip of 64 KiB.
    FakeChip& hub(std::size_t offsetBytes)
    {
        kernel.chips[0x40] = {.memory = Bytes(65536), .offsetBytes = offsetBytes, .hubStatus = {0}};
        return kernel.chips[0x40];
    }
    /// Ends a transfer that would never end by itself.
    void boundTransactions(std::size_t most)
    {
        kernel.beforeTransfer = [this, most] { kernel.lastingFailure = kernel.log.size() >= most ? EIO : 0; };
    }
    static Bytes slice(const Bytes& all, std::size_t offset, std::size_t length)
    {
        return {all.begin() + static_cast<std::ptrdiff_t>(offset),
                all.begin() + static_cast<std::ptrdiff_t>(offset + length)};
    }
};

/// Another handle in the middle of a write to the chip at 0xA0.
struct OtherWriter {
    explicit OtherWriter(const std::filesystem::path& lockFolder)
    {
        EXPECT_EQ(0, host::iic::openLinuxBus("", 7, lockFolder, false, wires));
        locks = std::make_unique<host::iic::addressLocks>(wires->identity());
        EXPECT_TRUE(locks->beginWrite(0xA0, std::chrono::milliseconds(0)));
    }
    std::shared_ptr<host::iic::bus> wires;
    std::unique_ptr<host::iic::addressLocks> locks;
};

TEST_F(SmallAdapter, PageThatMayStillBeBeingWrittenDoesNotCountWhenTheAdapterTakesLess)
{
    kernel.longestWrite = 16;
    chip().writeCycleNs = foreverNs;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    device.seek(56);
    // 8 bytes up to the page's end, then 22 that are too many
    EXPECT_EQ((Answer{0, ETIME}), device.write(pattern(30, 9)));
    EXPECT_EQ("50W 0038171E252C333A4148", kernel.log.front());
}

TEST_F(SmallAdapter, PagesAreWrittenInSmallerMessagesWithTheirOffsets)
{
    kernel.longestWrite = 16;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    const Bytes data = pattern(40, 9);
    EXPECT_EQ((Answer{40, 0}), device.write(data));
    EXPECT_EQ(data, slice(chip().memory, 0, 40));
    kernel.log.clear();
    EXPECT_EQ((Answer{8, 0}), device.write({1, 2, 3, 4, 5, 6, 7, 8}));
    // by now the layer knows what the adapter takes
    EXPECT_EQ("50W 00280102030405060708", kernel.log.front());
}

TEST_F(SmallAdapter, PlainTransferThatTheAdapterRefusesIsNotSplit)
{
    kernel.longestWrite = kernel.longestRead = 16;
    OpenDevice device("/dev/i2c-7@A0");
    Bytes data(20, 0x33);
    EXPECT_EQ((Answer{0, EINVAL}), device.write(data));
    EXPECT_EQ((Answer{0, EINVAL}), device.read(data));
    // the same, now that the layer knows the limit
    EXPECT_EQ((Answer{0, EINVAL}), device.read(data));
    EXPECT_THAT(kernel.log, IsEmpty());
    data.resize(16);
    // as much as it takes
    EXPECT_EQ((Answer{16, 0}), device.read(data));
    EXPECT_THAT(kernel.log, ElementsAre("50R 16"));
}

TEST_F(SmallAdapter, HubWriteNeedsRoomForOneByteBehindItsOffset)
{
    hub(4);
    kernel.longestWrite = 5;
    boundTransactions(20);
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x80, .offsetLength = 4, .pageSize = 64});
    device.seek(0x03A20000);
    EXPECT_EQ((Answer{5, 0}), device.write({1, 2, 3, 4, 5}));
    EXPECT_THAT(kernel.log, ElementsAre("40W 03A2000001", "40W 03A2000102", "40W 03A2000203", "40W 03A2000304",
                                        "40W 03A2000405", "40W "));
    kernel.log.clear();
    kernel.longestWrite = 4;
    EXPECT_EQ((Answer{0, ENOSYS}), device.write({1, 2, 3, 4, 5}));
    EXPECT_THAT(kernel.log, IsEmpty());
}

TEST_F(SmallAdapter, HubReadNeedsRoomForOneByteBehindItsStatus)
{
    const Bytes memory = pattern(65536);
    hub(4).memory = memory;
    kernel.longestRead = 2;
    boundTransactions(20);
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x80, .offsetLength = 4, .pageSize = 64});
    device.seek(0x03A20000);
    Bytes data(4);
    EXPECT_EQ((Answer{4, 0}), device.read(data));
    EXPECT_EQ(slice(memory, 0, 3), slice(data, 1, 3));
    EXPECT_THAT(kernel.log, ElementsAre("40W 03A20000 40R 2", "40W 03A20001 40R 2", "40W 03A20002 40R 2"));
    kernel.log.clear();
    kernel.longestRead = 1;
    EXPECT_EQ((Answer{0, ENOSYS}), device.read(data));
    EXPECT_THAT(kernel.log, IsEmpty());
}

/// What a kernel bus computes with: the lower of the set speed and the adapter's clock, and the bytes that fit into 250
/// ms.
struct ClockCase {
    std::uint32_t adapterHz;
    std::uint16_t speedKhz;
    std::vector<std::string> transactions; ///< of a read of 12,000 bytes
};
std::ostream& operator<<(std::ostream& stream, const ClockCase& each)
{
    return stream << each.adapterHz << " Hz, " << each.speedKhz << " kHz set";
}
class LongRead : public SmallAdapter, public testing::WithParamInterface<ClockCase>
{
};
TEST_P(LongRead, IsMadeOfTransactionsOfAQuarterOfASecond)
{
    kernel.adapterHz = GetParam().adapterHz;
    OpenDevice device("/dev/i2c-7");
    Block values = eeprom();
    values.speedKhz = GetParam().speedKhz;
    device.set(values);
    EXPECT_EQ(slice(chip().memory, 0, 12000), device.readAll(12000));
    EXPECT_EQ(GetParam().transactions, kernel.log);
}
INSTANTIATE_TEST_SUITE_P(All, LongRead,
                         testing::Values(ClockCase{0,
                                                   0,
                                                   {"50W 0000 50R 2773", "50W 0AD5 50R 2773", "50W 15AA 50R 2773",
                                                    "50W 207F 50R 2773", "50W 2B54 50R 908"}},
                                         ClockCase{0,
                                                   400,
                                                   {"50W 0000 50R 2773", "50W 0AD5 50R 2773", "50W 15AA 50R 2773",
                                                    "50W 207F 50R 2773", "50W 2B54 50R 908"}},
                                         ClockCase{400'000,
                                                   100,
                                                   {"50W 0000 50R 2773", "50W 0AD5 50R 2773", "50W 15AA 50R 2773",
                                                    "50W 207F 50R 2773", "50W 2B54 50R 908"}},
                                         ClockCase{400'000, 0, {"50W 0000 50R 8192 50R 2913", "50W 2B61 50R 895"}},
                                         ClockCase{400'000, 1000, {"50W 0000 50R 8192 50R 2913", "50W 2B61 50R 895"}},
                                         ClockCase{250'000, 400, {"50W 0000 50R 6940", "50W 1B1C 50R 5060"}},
                                         ClockCase{1'000'000, 0, {"50W 0000 50R 8192 50R 3808"}}));

TEST_F(SmallAdapter, PiecesOfALongReadRollOverTheirPosition)
{
    // 250 bits: 24 bytes after an offset of one
    kernel.adapterHz = 1000;
    chip() = {.memory = pattern(256), .offsetBytes = 1};
    const Bytes memory = chip().memory;
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0xA0, .offsetLength = 1});
    device.seek(0xE0);
    const Bytes data = device.readAll(60);
    EXPECT_THAT(kernel.log, ElementsAre("50W E0 50R 24", "50W F8 50R 24", "50W 10 50R 12"));
    EXPECT_EQ(slice(memory, 0xE0, 32), slice(data, 0, 32));
    EXPECT_EQ(slice(memory, 0, 28), slice(data, 32, 28));
}

TEST_F(SmallAdapter, PiecesOfALongReadThroughAHubHaveAStatusEach)
{
    // 22 bytes after an offset of three
    kernel.adapterHz = 1000;
    const Bytes memory = pattern(65536);
    hub(3).memory = memory;
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x80, .offsetLength = 3});
    device.seek(0x03A0F8);
    const Bytes data = device.readAll(40);
    EXPECT_THAT(kernel.log, ElementsAre("40W 03A0F8 40R 22", "40W 03A00D 40R 19"));
    EXPECT_EQ(0, data[0]);
    EXPECT_EQ(slice(memory, 0xA0F8, 21), slice(data, 1, 21));
    EXPECT_EQ(slice(memory, 0xA00D, 18), slice(data, 22, 18));
}

TEST_F(SmallAdapter, PagesAndPlainMessagesAreNotSplitForTheirTime)
{
    // not even an offset and a byte
    kernel.adapterHz = 100;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    EXPECT_EQ((Answer{64, 0}), device.write(pattern(64)));
    device.set({.address = 0xA0, .writeCycleMs = 0});
    device.readAll(300);
    EXPECT_THAT(kernel.log, ElementsAre("50W 66", "50R 1", "50R 300"));
    kernel.log.clear();
    device.set(eeprom());
    device.seek(0x20);
    device.readAll(2);
    // a byte each at least
    EXPECT_THAT(kernel.log, ElementsAre("50W 0020 50R 1", "50W 0021 50R 1"));
}

TEST(AdapterClock, IsTheDeviceTreesNumber)
{
    const OwnConfiguration own;
    const auto node = own.folder() / "sys/bus/i2c/devices/i2c-7/of_node";
    host::iic::systemCalls calls(own.folder() / "sys");
    std::filesystem::create_directories(node);
    const auto clockIn = [&](const std::string& cell) {
        std::ofstream(node / "clock-frequency", std::ios::binary) << cell;
        return calls.adapterClockHz(7);
    };
    EXPECT_EQ(0U, calls.adapterClockHz(7));
    EXPECT_EQ(400'000U, clockIn(std::string("\x00\x06\x1A\x80", 4)));
    EXPECT_EQ(0xFFFE8480U, clockIn("\xFF\xFE\x84\x80"));
    EXPECT_EQ(0U, clockIn(std::string("\x00\x06\x1A", 3)));
    EXPECT_EQ(0U, clockIn(std::string("\x00\x06\x1A\x80\x00", 5)));
    EXPECT_EQ(0U, calls.adapterClockHz(8));
}

/// Adapters that send no address without data: they declare it, or refuse it only when it is sent.
class HubThatCannotBeAsked : public SmallAdapter, public testing::WithParamInterface<bool>
{
protected:
    HubThatCannotBeAsked()
    {
        if (GetParam()) {
            kernel.functions &= ~static_cast<unsigned long>(I2C_FUNC_SMBUS_QUICK);
        } else {
            kernel.shortestMessage = 1;
        }
        hub(3).writeCycleNs = 20 * nsPerMs;
    }
};
INSTANTIATE_TEST_SUITE_P(All, HubThatCannotBeAsked, testing::Bool());

TEST_P(HubThatCannotBeAsked, IsGivenItsWholeTime)
{
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x80, .offsetLength = 3, .writeCycleMs = 15, .pageSize = 8});
    device.seek(0x03A0FC);
    const std::uint64_t beginning = kernel.clockNs;
    EXPECT_EQ((Answer{4, 0}), device.write({1, 2, 3, 4}));
    EXPECT_THAT(kernel.log, ElementsAre("40W 03A0FC01020304"));
    // a message, and four write cycles
    EXPECT_EQ(60'100'000U, kernel.clockNs - beginning);
    Bytes data(1);
    device.seek(0x03A0FC);
    // the hub acknowledges again
    EXPECT_EQ((Answer{1, 0}), device.read(data));
}

TEST_P(HubThatCannotBeAsked, IsNotCalledDoneBeforeTheTimeOutOfTheTransfer)
{
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x80, .offsetLength = 3, .timeoutMs = 30, .writeCycleMs = 15, .pageSize = 8});
    device.seek(0x03A0F8);
    const std::uint64_t beginning = kernel.clockNs;
    EXPECT_EQ((Answer{0, ETIME}), device.write({1, 2, 3, 4}));
    EXPECT_EQ(30'000'000U, kernel.clockNs - beginning);
}

TEST_P(HubThatCannotBeAsked, HasItsNextPageSentAgainUntilItTakesIt)
{
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x80, .offsetLength = 3, .writeCycleMs = 15, .pageSize = 8});
    device.seek(0x03A0F0);
    EXPECT_EQ((Answer{10, 0}), device.write({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ("40W 03A0F00102030405060708", kernel.log.front());
    ASSERT_LT(10U, kernel.log.size());
    for (std::size_t index = 1; index < kernel.log.size(); ++index) {
        EXPECT_EQ("40W 03A0F8090A", kernel.log[index]);
    }
    EXPECT_EQ((Bytes{8, 9, 10}), slice(kernel.chips[0x40].memory, 0xA0F7, 3));
}

TEST_F(SmallAdapter, PlainReadOfABusyChipIsRepeatedAndMissesNoByte)
{
    OpenDevice device("/dev/i2c-7@A0");
    chip().busyUntilNs = kernel.clockNs + 3 * nsPerMs;
    EXPECT_EQ(slice(chip().memory, 0, 4), device.readAll(4));
    EXPECT_THAT(kernel.log, Each("50R 4"));
}

TEST_F(SmallAdapter, TargetThatAnswersTheLastQuestionIsReadAndWritten)
{
    const Bytes data{1, 2, 3, 4};
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    // the last question begins after 50 ms
    chip().busyUntilNs = kernel.clockNs + 50 * nsPerMs + 50'000;
    EXPECT_EQ(slice(chip().memory, 0, 4), device.readAll(4));
    chip().busyUntilNs = kernel.clockNs + 50 * nsPerMs + 50'000;
    EXPECT_EQ((Answer{4, 0}), device.write(data));
}

TEST_F(SmallAdapter, ChipWhoseOtherWriterIsDoneAfterTheLastQuestionIsRead)
{
    const OtherWriter other(settings.folder() / "locks");
    Bytes data(2);
    const std::uint64_t windowEndNs = kernel.clockNs + 50 * nsPerMs;
    chip().busyUntilNs = foreverNs;
    kernel.beforeTransfer = [&] {
        if (kernel.clockNs >= windowEndNs && chip().busyUntilNs == foreverNs) {
            chip().busyUntilNs = kernel.clockNs + 1;
            other.locks->endWrite();
        }
    };
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    EXPECT_EQ((Answer{2, 0}), device.read(data));
    EXPECT_EQ((Bytes{pattern(2)}), data);
}

TEST_F(SmallAdapter, WithoutMemoryNoOtherHandleWritesAndItIsStillWritten)
{
    KEST_SKIP_UNLESS_MEMORY_CAN_FAIL();
    std::shared_ptr<host::iic::bus> wires;
    ASSERT_EQ(0, host::iic::openLinuxBus("", 7, settings.folder() / "locks", false, wires));
    host::iic::addressLocks locks(wires->identity());
    EXPECT_EQ("", withoutMemory([&] {
                  const bool written = locks.isWrittenByAnother(0xA0);
                  return !written && locks.beginWrite(0xA0, std::chrono::milliseconds(0));
              }));
}

TEST_F(SmallAdapter, SilentDeviceIsProbedOftenAtFirstAndThenLessAndLess)
{
    std::vector<std::uint64_t> askedAtNs;
    const std::uint64_t beginning = kernel.clockNs;
    kernel.chips.clear();
    kernel.beforeTransfer = [&] { askedAtNs.push_back(kernel.clockNs - beginning); };
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    Bytes data(4);
    EXPECT_EQ((Answer{0, ENXIO}), device.read(data));
    // a message takes 0.1 ms
    ASSERT_EQ(57U, askedAtNs.size());
    EXPECT_EQ(200'000U, askedAtNs[1]);
    EXPECT_EQ(500'000U, askedAtNs[2]);
    EXPECT_EQ(10'100'000U, askedAtNs[34]);
    // a sixteenth longer than the silence so far
    EXPECT_EQ(11'031'250U, askedAtNs[35]);
    EXPECT_EQ(12'020'703U, askedAtNs[36]);
    // at the window's end
    EXPECT_EQ(50'100'000U, askedAtNs[56]);
}

class ShortOfMemory : public SmallAdapter, public testing::WithParamInterface<int>
{
};
TEST_P(ShortOfMemory, OfTheKernelIsReportedAsLackOfMemory)
{
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    kernel.lastingFailure = GetParam();
    Bytes data(4);
    EXPECT_EQ((Answer{0, ENOMEM}), device.read(data));
    EXPECT_EQ((Answer{0, ENOMEM}), device.write(data));
    kernel.lastingFailure = 0;
    EXPECT_EQ(slice(chip().memory, 0, 4), device.readAll(4));
}
INSTANTIATE_TEST_SUITE_P(All, ShortOfMemory, testing::Values(ENOMEM, EMFILE, ENFILE));

TEST_F(ShortOfMemory, InTheMiddleOfAWriteReturnsWhatWentOutAndIsRecorded)
{
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    kernel.beforeTransfer = [this] {
        if (kernel.log.size() == 2) {
            throw std::bad_alloc();
        }
    };
    EXPECT_EQ((Answer{128, ENOMEM}), device.write(pattern(300)));
    EXPECT_THAT(device.firstFailure(), HasSubstr("\"operation\":\"write\""));
    EXPECT_THAT(device.firstFailure(), HasSubstr("\"moved\":128"));
    EXPECT_THAT(device.firstFailure(), HasSubstr("ENOMEM"));
}

TEST_F(ShortOfMemory, InTheMiddleOfAReadReturnsWhatCameIn)
{
    kernel.longestRead = 16;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    kernel.mostMessages = 2;
    kernel.beforeTransfer = [this] {
        if (kernel.log.size() == 2) {
            throw std::bad_alloc();
        }
    };
    Bytes data(60);
    const Answer result = device.read(data);
    EXPECT_EQ((Answer{30, ENOMEM}), result);
    EXPECT_EQ(slice(chip().memory, 0, 30), slice(data, 0, 30));
    EXPECT_THAT(device.firstFailure(), HasSubstr("\"moved\":30"));
}

/// An adapter that makes SMBus calls alone; a device at 0x90 behind it.
class ForkedSmbus : public LinuxBus
{
protected:
    ForkedSmbus() { kernel.functions = I2C_FUNC_SMBUS_BYTE_DATA; }

    /// @return the exit code of a child: 0 when `good` is true there
    static int inChild(const std::function<bool()>& good)
    {
        const pid_t child = fork();
        if (child == 0) {
            _exit(good() ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return status;
    }
};

TEST_F(ForkedSmbus, ChildOpensTheNodeAnewBeforeItsFirstUseOfIt)
{
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x90, .offsetLength = 1});
    device.readAll(1);
    kernel.calls.clear();
    EXPECT_EQ(0, inChild([&] {
                  Bytes data(1);
                  const bool read = device.read(data) == Answer{1, 0} && device.read(data) == Answer{1, 0};
                  return read && kernel.calls == std::vector<std::string>{"open /dev/i2c-7"} && kernel.openNodes == 1;
              }));
    device.readAll(1);
    // the parent's is not changed
    EXPECT_THAT(kernel.calls, IsEmpty());
}

TEST_F(ForkedSmbus, ChildThatCannotOpenTheNodeSendsNothing)
{
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x90, .offsetLength = 1});
    EXPECT_EQ(0, inChild([&] {
                  Bytes data(1);
                  kernel.openError = EACCES;
                  const bool refused = device.read(data) == Answer{0, EACCES} && kernel.log.empty();
                  kernel.openError = 0;
                  return refused && device.read(data) == Answer{1, 0};
              }));
}

} // namespace
} // namespace kest::test
