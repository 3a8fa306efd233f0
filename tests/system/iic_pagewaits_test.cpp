/// What chips of the simulated machine show after pages: whether they are busy with a write cycle.
#include "platform/host/iic/tools.h"
#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

class IicPageWaits : public IicMachine
{
protected:
    static host::iic::pageWaits waits(std::uint8_t address)
    {
        int error = 0;
        const auto bus = host::iic::toolBus::open("sim:planar", MERN_NODE_LOCAL, error);
        return bus == nullptr ? host::iic::pageWaits{} : bus->waitsAfterPages(address);
    }
};

TEST_F(IicPageWaits, EveryPageOfAnEepromIsFollowedByAWriteCycle)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    ASSERT_EQ((Answer{200, 0}), device.write(pattern(200, 9)));
    EXPECT_EQ(4U, waits(0xA0).pages);
    EXPECT_EQ(4U, waits(0xA0).busyPages);
    EXPECT_LT(0U, waits(0xA0).lastPolls);
}

TEST_F(IicPageWaits, AHubIsAskedInPlaceOfTheChip)
{
    OpenDevice device("sim:planar");
    device.set(hub02());
    ASSERT_EQ((Answer{0, 0}), device.seek(onCard));
    ASSERT_EQ((Answer{12, 0}), device.write(pattern(12, 9)));
    EXPECT_EQ(2U, waits(0x80).pages);
    EXPECT_EQ(2U, waits(0x80).busyPages);
    EXPECT_EQ(0U, waits(0xA6).pages);
}

TEST_F(IicPageWaits, APageThatIsRefusedCountsForNothing)
{
    OpenDevice device("sim:planar");
    device.set({.address = 0xAA, .offsetLength = 2, .pageSize = 32});
    ASSERT_EQ((Answer{0, EIO}), device.write(pattern(40, 9)));
    EXPECT_EQ(0U, waits(0xAA).pages);
}

class IicPageWaitsOfAFastPart : public IicPageWaits
{
protected:
    IicPageWaitsOfAFastPart()
    {
        power("[[bus]]\nname = \"planar\"\n" + eeprom("24C256", 0xA0, "main.bin", "kind = \"fram\"\n") +
              eeprom("24C32", 0xAA, "protected.bin", "protect = \"silent\"\n"));
    }
};

TEST_F(IicPageWaitsOfAFastPart, AFerroelectricPartIsNeverBusy)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    ASSERT_EQ((Answer{200, 0}), device.write(pattern(200, 9)));
    EXPECT_EQ(4U, waits(0xA0).pages);
    EXPECT_EQ(0U, waits(0xA0).busyPages);
    EXPECT_EQ(0U, waits(0xA0).lastPolls);
}

TEST_F(IicPageWaitsOfAFastPart, AProtectedPartThatIsSilentIsNotBusy)
{
    OpenDevice device("sim:planar");
    device.set({.address = 0xAA, .offsetLength = 2, .pageSize = 32});
    ASSERT_EQ((Answer{40, 0}), device.write(pattern(40, 9)));
    EXPECT_EQ(2U, waits(0xAA).pages);
    EXPECT_EQ(0U, waits(0xAA).busyPages);
}

} // namespace
} // namespace kest::test
