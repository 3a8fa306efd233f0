#include "platform/host/iic/adapter.h"

#include <gmock/gmock.h>

#include "tests/host/linux_bus.h"

namespace kest::test
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(AdapterTexts, NameWhatAnAdapterLacks)
{
    EXPECT_THAT(host::iic::lackTexts(FakeKernel::i2cAdapter), IsEmpty());
    EXPECT_THAT(host::iic::lackTexts(I2C_FUNC_I2C), ElementsAre("no messages without data"));
    EXPECT_THAT(host::iic::lackTexts(I2C_FUNC_SMBUS_QUICK | I2C_FUNC_SMBUS_WORD_DATA),
                ElementsAre("SMBus calls only, with at most 2 bytes"));
    EXPECT_THAT(host::iic::lackTexts(I2C_FUNC_SMBUS_I2C_BLOCK),
                ElementsAre("SMBus calls only, with at most 32 bytes", "no messages without data"));
    EXPECT_THAT(host::iic::lackTexts(I2C_FUNC_SMBUS_QUICK | I2C_FUNC_SMBUS_BYTE_DATA),
                ElementsAre("SMBus calls only, with at most 1 byte"));
}

/// An adapter that cannot send an address alone: it says so, or refuses it when it is sent.
class NoAddressAlone : public LinuxBus, public testing::WithParamInterface<bool>
{
protected:
    NoAddressAlone()
    {
        if (GetParam()) {
            kernel.functions &= ~static_cast<unsigned long>(I2C_FUNC_SMBUS_QUICK);
        } else {
            kernel.shortestMessage = 1;
        }
    }
};
INSTANTIATE_TEST_SUITE_P(All, NoAddressAlone, testing::Bool());

TEST_P(NoAddressAlone, AsksADeviceByAReadOfTwoBytes)
{
    kernel.chips[0x48] = {.memory = pattern(2), .offsetBytes = 1};
    EXPECT_EQ(3U, OpenDevice("/dev/i2c-7@90").number(15));
    EXPECT_THAT(kernel.log, ElementsAre("48R 2"));
    EXPECT_EQ(0U, OpenDevice("/dev/i2c-7@92").number(15));
}

TEST_P(NoAddressAlone, ReadsOneByteOfAnEeprom)
{
    EXPECT_EQ(3U, OpenDevice("/dev/i2c-7@A0").number(15));
    EXPECT_THAT(kernel.log, ElementsAre("50R 1"));
}

// A read would take the status from a hub.
TEST_P(NoAddressAlone, DoesNotAskAHub)
{
    kernel.chips[0x40] = {.memory = Bytes(8), .hubStatus = {0}};
    EXPECT_EQ(4U, OpenDevice("/dev/i2c-7@80").number(15));
    EXPECT_THAT(kernel.log, IsEmpty());
}

TEST_F(LinuxBus, RefusalsNameWhatTheAdapterLacks)
{
    struct Row {
        unsigned long functions;
        std::size_t longestWrite;
        std::uint16_t offsetLength;
        const char* lacks;
    };
    const Row rows[] = {
        {I2C_FUNC_SMBUS_I2C_BLOCK, 8192, 2, "a call that moves such bytes"},
        {I2C_FUNC_SMBUS_BYTE_DATA, 8192, 3, "messages and transactions as long as this transfer needs"},
        {FakeKernel::i2cAdapter, 1, 2, "messages and transactions as long as this transfer needs"},
    };
    for (const Row& row : rows) {
        kernel.functions = row.functions;
        kernel.longestWrite = row.longestWrite;
        OpenDevice device("/dev/i2c-7");
        device.set({.address = 0xA0, .offsetLength = row.offsetLength});
        Bytes data(4);
        EXPECT_EQ((Answer{0, ENOSYS}), device.read(data)) << row.lacks;
        EXPECT_THAT(device.firstFailure(), HasSubstr("\"lacks\":\"" + std::string(row.lacks) + "\"")) << row.lacks;
        mern_iic_ffdc_unlock(device.handle(), 0);
    }
    EXPECT_THAT(kernel.log, IsEmpty());
}

} // namespace
} // namespace kest::test
