#include "platform/host/iic/exchange.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <linux/i2c.h>
#include <memory>

#include "platform/host/iic/bus_linux.h"
#include "tests/host/linux_bus.h"

namespace kest::test
{
namespace
{

using host::iic::exchangeEnd;
using host::iic::exchangeResult;

class Exchange : public LinuxBus
{
protected:
    Exchange() { EXPECT_EQ(0, host::iic::openLinuxBus("", 7, settings.folder(), false, wires)); }

    exchangeResult read(const Bytes& offset, Bytes& into, bool waits = true)
    {
        return host::iic::exchange(
            *wires, {.address = 0xA0, .offset = offset, .into = into, .speedKhz = 0, .waits = waits}, messageBytes);
    }

    std::shared_ptr<host::iic::bus> wires;
    std::size_t messageBytes = 8192;
};

TEST_F(Exchange, IsOneTransactionAndNothingElse)
{
    Bytes into(4);
    kernel.calls.clear();
    const exchangeResult result = read({0x12, 0x34}, into);
    EXPECT_EQ(exchangeEnd::done, result.end);
    EXPECT_EQ(0, result.error);
    EXPECT_EQ(Bytes(chip().memory.begin() + 0x1234, chip().memory.begin() + 0x1238), into);
    EXPECT_EQ((std::vector<std::string>{"50W 1234 50R 4"}), kernel.log);
    EXPECT_EQ((std::vector<std::string>{}), kernel.calls);
}

TEST_F(Exchange, IsSentAgainUntilAWriteCycleHasEnded)
{
    chip().busyUntilNs = kernel.clockNs + 3'000'000;
    Bytes into(1);
    EXPECT_EQ(exchangeEnd::done, read({0x00, 0x00}, into).end);
    EXPECT_LT(1U, kernel.log.size());
    for (const std::string& sent : kernel.log) {
        EXPECT_EQ("50W 0000 50R 1", sent);
    }
}

TEST_F(Exchange, IsSilentAfterFiftyMilliseconds)
{
    kernel.chips.clear();
    Bytes into(1);
    const std::uint64_t startedNs = kernel.clockNs;
    const exchangeResult result = read({0x00}, into);
    EXPECT_EQ(exchangeEnd::silent, result.end);
    EXPECT_EQ(ENXIO, result.error);
    EXPECT_LE(50'000'000U, kernel.clockNs - startedNs);
    EXPECT_GT(51'000'000U, kernel.clockNs - startedNs);
}

TEST_F(Exchange, IsSentOnceWhereSilenceIsAnAnswer)
{
    kernel.chips.clear();
    Bytes into(1);
    EXPECT_EQ(exchangeEnd::silent, read({0x00, 0x00}, into, false).end);
    EXPECT_EQ(1U, kernel.log.size());
}

TEST_F(Exchange, IsSentAgainWhenTheArbitrationWasLost)
{
    kernel.failures = {EAGAIN, EAGAIN, 0};
    Bytes into(1);
    EXPECT_EQ(exchangeEnd::done, read({0x00, 0x00}, into, false).end);
    EXPECT_EQ(0U, kernel.failures.size());
}

TEST_F(Exchange, GoesOnInShorterMessagesWhereTheAdapterTakesNoLongerOnes)
{
    kernel.longestRead = 8;
    Bytes into(20);
    EXPECT_EQ(exchangeEnd::done, read({0x00, 0x10}, into).end);
    EXPECT_EQ(Bytes(chip().memory.begin() + 0x10, chip().memory.begin() + 0x24), into);
    EXPECT_EQ("50W 0010 50R 5 50R 5 50R 5 50R 5", kernel.log.back());
    EXPECT_EQ(5U, messageBytes);
}

TEST_F(Exchange, IsTooLongWhereTheAdapterTakesNoFurtherMessages)
{
    kernel.longestRead = 8;
    kernel.mostMessages = 2;
    Bytes into(16);
    const exchangeResult result = read({0x00}, into);
    EXPECT_EQ(exchangeEnd::tooLong, result.end);
    EXPECT_EQ(ENOSYS, result.error);
    EXPECT_EQ(8192U, messageBytes);
    Bytes less(8);
    EXPECT_EQ(exchangeEnd::done, read({0x00}, less).end);
}

TEST_F(Exchange, ThroughAHubIsNeverCut)
{
    kernel.longestRead = 8;
    Bytes into(16);
    EXPECT_EQ(exchangeEnd::tooLong, read({0x03, 0xA2, 0x00}, into).end);
}

TEST_F(Exchange, NeedsAnAdapterWithPlainMessages)
{
    EXPECT_EQ("", host::iic::exchangeTrouble(*wires));
    kernel.functions = I2C_FUNC_SMBUS_EMUL;
    ASSERT_EQ(0, host::iic::openLinuxBus("", 7, settings.folder(), false, wires));
    EXPECT_EQ("the adapter makes SMBus calls only", host::iic::exchangeTrouble(*wires));
}

TEST_F(Exchange, LastsNoLongerThanATransfer)
{
    // 250 ms of 10 kHz are 2500 bits: 47 for START, address, four offset bytes and STOP, 11 for a repeated START with
    // its address, and 9 for each byte
    EXPECT_EQ(271U, host::iic::longestExchange(*wires, 10));
    // an adapter whose clock is not known has 100 kHz
    EXPECT_EQ(2771U, host::iic::longestExchange(*wires, 0));
}

} // namespace
} // namespace kest::test
