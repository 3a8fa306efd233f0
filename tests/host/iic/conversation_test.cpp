/// The waiting of transfers on adapters that report a missing acknowledge, or a transaction that takes too long, as a
/// time-out.
#include <gmock/gmock.h>

#include "platform/host/iic/bus_linux.h"
#include "platform/host/iic/locks.h"
#include "tests/host/linux_bus.h"

namespace kest::test
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

constexpr std::uint64_t nsPerMs = 1'000'000;
constexpr std::uint64_t foreverNs = 3'600'000 * nsPerMs;

Bytes slice(const Bytes& all, std::size_t offset, std::size_t length)
{
    return {all.begin() + static_cast<std::ptrdiff_t>(offset),
            all.begin() + static_cast<std::ptrdiff_t>(offset + length)};
}

/// Nobody acknowledges: a time-out.
class SilenceIsATimeOut : public LinuxBus
{
protected:
    SilenceIsATimeOut() { kernel.absentError = ETIMEDOUT; }
};

TEST_F(SilenceIsATimeOut, WhileAPageIsWrittenItMeansNotYet)
{
    chip().writeCycleNs = 3'500'000;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    const std::uint64_t beginning = kernel.clockNs;
    EXPECT_EQ((Answer{128, 0}), device.write(pattern(128, 3)));
    EXPECT_EQ(pattern(128, 3), slice(chip().memory, 0, 128));
    EXPECT_LE(7'000'000U, kernel.clockNs - beginning);
    EXPECT_GE(9'000'000U, kernel.clockNs - beginning);
}

TEST_F(SilenceIsATimeOut, OfASecondStillLetsAWriteCycleEnd)
{
    kernel.absentNs = 1000 * nsPerMs;
    chip().writeCycleNs = 3'500'000;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    EXPECT_EQ((Answer{64, 0}), device.write(pattern(64, 3)));
    // the page, a question that began in the write cycle, and one after it
    EXPECT_THAT(kernel.log, ElementsAre("50W 66", "50R 1", "50R 1"));
}

TEST_F(SilenceIsATimeOut, ForLongerThanAWriteCycleMayLastIsReportedAsBusy)
{
    chip().writeCycleNs = foreverNs;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    const std::uint64_t beginning = kernel.clockNs;
    EXPECT_EQ((Answer{0, ETIME}), device.write(pattern(128)));
    EXPECT_LE(50 * nsPerMs, kernel.clockNs - beginning);
    EXPECT_GE(52 * nsPerMs, kernel.clockNs - beginning);
    EXPECT_THAT(device.firstFailure(), HasSubstr("\"silence\":\"busy\""));
}

TEST_F(SilenceIsATimeOut, AtAStartEndsTheTransfer)
{
    chip().busyUntilNs = foreverNs;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    Bytes data(64);
    EXPECT_EQ((Answer{0, ETIME}), device.read(data));
    // once more with the least, since it was given up so early
    EXPECT_THAT(kernel.log, ElementsAre("50W 0000 50R 64", "50W 0000 50R 1"));
    kernel.log.clear();
    EXPECT_EQ((Answer{0, ETIME}), device.write({1}));
    EXPECT_THAT(kernel.log, ElementsAre("50W 000001"));
    EXPECT_EQ(4U, device.number(15));
}

TEST_F(SilenceIsATimeOut, IsWaitedForWhileAnotherHandleWrites)
{
    std::shared_ptr<host::iic::bus> wires;
    ASSERT_EQ(0, host::iic::openLinuxBus("", 7, settings.folder() / "locks", false, wires));
    host::iic::addressLocks other(wires->identity());
    ASSERT_TRUE(other.beginWrite(0xA0, std::chrono::milliseconds(0)));
    chip().busyUntilNs = kernel.clockNs + 200 * nsPerMs;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    EXPECT_EQ(slice(chip().memory, 0, 4), device.readAll(4));
}

TEST_F(SilenceIsATimeOut, HubThatCannotBeAskedTakesItsNextPageWhenItIsReady)
{
    kernel.functions &= ~static_cast<unsigned long>(I2C_FUNC_SMBUS_QUICK);
    kernel.chips[0x40] = {.memory = Bytes(65536), .offsetBytes = 3, .writeCycleNs = 20 * nsPerMs, .hubStatus = {0}};
    OpenDevice device("/dev/i2c-7");
    device.set({.address = 0x80, .offsetLength = 3, .writeCycleMs = 15, .pageSize = 8});
    device.seek(0x03A0F0);
    EXPECT_EQ((Answer{10, 0}), device.write({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ((Bytes{8, 9, 10}), slice(kernel.chips[0x40].memory, 0xA0F7, 3));
}

/// An adapter that gives a transfer up after 600 bytes or 25 ms.
class AdapterWithATimeOut : public LinuxBus
{
protected:
    AdapterWithATimeOut()
    {
        kernel.mostBytes = 600;
        kernel.giveUpNs = 25 * nsPerMs;
    }
};

// At 100 kHz 6.275 ms, a quarter of what it waited, have room for 38 bits of addresses and offset and 65 bytes.
TEST_F(AdapterWithATimeOut, IsAskedForLess)
{
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    EXPECT_EQ(slice(chip().memory, 0, 1000), device.readAll(1000));
    ASSERT_THAT(kernel.log, SizeIs(17));
    EXPECT_EQ("50W 0000 50R 1000", kernel.log[0]);
    EXPECT_EQ("50W 0000 50R 65", kernel.log[1]);
    EXPECT_EQ("50W 0041 50R 65", kernel.log[2]);
    kernel.log.clear();
    device.readAll(100);
    // what it waits is known by now
    EXPECT_THAT(kernel.log, ElementsAre("50W 03E8 50R 65", "50W 0429 50R 35"));
}

// The page that was given up has begun a write cycle for the bytes that the chip took.
TEST_F(AdapterWithATimeOut, IsGivenAPageInParts)
{
    kernel.mostBytes = 30;
    kernel.giveUpNs = 2 * nsPerMs;
    chip().writeCycleNs = 3'500'000;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    EXPECT_EQ((Answer{64, 0}), device.write(pattern(64, 9)));
    EXPECT_EQ(pattern(64, 9), slice(chip().memory, 0, 64));
    EXPECT_EQ("50W 66", kernel.log.front());
}

TEST_F(AdapterWithATimeOut, ThatLeavesAChipBusyForGoodIsReportedAsThat)
{
    kernel.mostBytes = 30;
    kernel.giveUpNs = 2 * nsPerMs;
    chip().writeCycleNs = foreverNs;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    EXPECT_EQ((Answer{0, ETIME}), device.write(pattern(64, 9)));
    EXPECT_THAT(device.firstFailure(), HasSubstr("\"silence\":\"busy\""));
}

// There a time-out may also be the write cycle of the page before: the address alone tells them apart.
TEST_F(AdapterWithATimeOut, IsGivenALaterPageInParts)
{
    kernel.mostBytes = 30;
    kernel.giveUpNs = 2 * nsPerMs;
    kernel.absentError = ETIMEDOUT;
    chip().writeCycleNs = 3'500'000;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    device.seek(60);
    EXPECT_EQ((Answer{68, 0}), device.write(pattern(68, 9)));
    EXPECT_EQ(pattern(68, 9), slice(chip().memory, 60, 68));
}

TEST_F(AdapterWithATimeOut, OfAHeldBusIsNotMetAgain)
{
    kernel.lastingFailure = ETIMEDOUT;
    kernel.messageNs = 1000 * nsPerMs;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    Bytes data(12000);
    EXPECT_EQ((Answer{0, ETIME}), device.read(data));
    EXPECT_THAT(kernel.log, ElementsAre("50W 0000 50R 2773"));
}

TEST_F(AdapterWithATimeOut, DoesNotCutAPlainTransfer)
{
    OpenDevice device("/dev/i2c-7@A0");
    Bytes data(1000);
    EXPECT_EQ((Answer{0, ETIME}), device.read(data));
    EXPECT_THAT(kernel.log, ElementsAre("50R 1000"));
}

} // namespace
} // namespace kest::test
