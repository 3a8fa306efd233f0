#include "tools/common/bus.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "tests/host/fakekernel.h"
#include "tests/tools/complaint.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{
namespace
{

using test::complaint;

TEST(DriversAddresses, AreRefusedUnlessForced)
{
    test::FakeKernel kernel;
    kernel.held = {0x50, 0x40};
    const auto refusal = [](const char* text, bool force) {
        return complaint([&] { refuseDoubtfulWrite(parseDeviceText(text), force); });
    };
    EXPECT_EQ("3 a kernel driver has A0 = 0x50", refusal("/dev/i2c-7,L,2C0256,A0", false));
    EXPECT_EQ("", refusal("/dev/i2c-7,L,2C0256,A0", true));
    EXPECT_EQ("", refusal("/dev/i2c-7,L,2C0256,A2", false));
    EXPECT_EQ("3 a kernel driver has 80 = 0x40", refusal("/dev/i2c-7,L,922,80,3,2C0128,A0", false));
    // A0 behind a hub is another address than A0 on the adapter's bus
    EXPECT_EQ("", refusal("/dev/i2c-7,L,922,88,3,2C0128,A0", false));
    // nothing went over the wires
    EXPECT_TRUE(kernel.log.empty());
    kernel.openError = EACCES;
    // the write itself reports this
    EXPECT_EQ("", refusal("/dev/i2c-7,L,2C0256,A0", false));
}

} // namespace
} // namespace kest::tools
