#include "platform/host/iic/pagewaits.h"

#include <gtest/gtest.h>

#include "platform/host/iic/tools.h"
#include "tests/host/linux_bus.h"

namespace kest::test
{
namespace
{

using host::iic::pageWaitCount;
using host::iic::pageWaits;

TEST(PageWaits, CountAPageInPartsOnce)
{
    pageWaitCount count;
    count.note(0, 3);
    count.note(0, 2);
    count.note(1, 0);
    count.note(1, 1);
    count.note(2, std::nullopt);
    count.note(2, std::nullopt);
    EXPECT_EQ(3U, count.sums().pages);
    EXPECT_EQ(2U, count.sums().busyPages);
    EXPECT_EQ(1U, count.sums().unaskedPages);
    EXPECT_EQ(0U, count.sums().lastPolls);
    count.note(3, 5);
    EXPECT_EQ(5U, count.sums().lastPolls);
}

class PageWaitsOnLinux : public LinuxBus
{
protected:
    static pageWaits waits(std::uint8_t address)
    {
        int error = 0;
        const auto bus = host::iic::toolBus::open("/dev/i2c-7", MERN_NODE_LOCAL, error);
        return bus == nullptr ? pageWaits{} : bus->waitsAfterPages(address);
    }
};

TEST_F(PageWaitsOnLinux, AreKeptForEachTarget)
{
    const pageWaits before = waits(0xA0);
    chip().writeCycleNs = 3'500'000;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    ASSERT_EQ((Answer{130, 0}), device.write(pattern(130, 3)));
    const pageWaits after = waits(0xA0);
    EXPECT_EQ(3U, after.pages - before.pages);
    EXPECT_EQ(3U, after.busyPages - before.busyPages);
    EXPECT_EQ(0U, after.unaskedPages - before.unaskedPages);
    EXPECT_LT(0U, after.lastPolls);
    EXPECT_EQ(0U, waits(0xA2).pages);
}

TEST_F(PageWaitsOnLinux, ShowAChipThatIsNeverBusy)
{
    const pageWaits before = waits(0xA0);
    chip().writeCycleNs = 0;
    OpenDevice device("/dev/i2c-7");
    device.set(eeprom());
    ASSERT_EQ((Answer{128, 0}), device.write(pattern(128, 3)));
    const pageWaits after = waits(0xA0);
    EXPECT_EQ(2U, after.pages - before.pages);
    EXPECT_EQ(0U, after.busyPages - before.busyPages);
    EXPECT_EQ(0U, after.lastPolls);
}

} // namespace
} // namespace kest::test
