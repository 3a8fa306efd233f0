#include "tools/common/advice.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace kest::tools
{
namespace
{

TEST(Advice, ErrnoDecidesTheExitCode)
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

TEST(Advice, HintsNameTheBusAndItsNode)
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
    EXPECT_EQ("'ls /dev/i2c-*' shows the adapters; the kernel's module i2c-dev makes them",
              adviceFor(ENOENT, {"/dev/i2c-9", "L"}).tryThis);
    EXPECT_EQ("'kestctl topology' shows the buses", adviceFor(ENODEV, {"/dev/i2c-9", "L"}).tryThis);
    EXPECT_EQ("check the node map in kest.toml", adviceFor(ENODEV, {"/dev/i2c-9", "1"}).tryThis);
    // the caller names the entry
    EXPECT_EQ("", adviceFor(ENODATA, {"/dev/i2c-9", "L"}).tryThis);
}

/// Some adapters end a transfer to a missing chip with a time-out.
TEST(Advice, ATimeOutIsNotTakenForAHeldBusAlone)
{
    EXPECT_EQ("no answer in time: the bus is held, the chip stayed busy, or there is none",
              adviceFor(ETIME, {"/dev/i2c-9", "L"}).what);
}

} // namespace
} // namespace kest::tools
