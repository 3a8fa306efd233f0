#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

class WriteProtection : public MachineTest
{
protected:
    void power24c(const std::string& type, const std::string& more)
    {
        power(chip("PCA9555", "0x40") + chip(type, "0xA0", "image = \"a.bin\"\n" + more));
    }
    /// Pin 11 of the expander as an output.
    void drivePin11(bool high)
    {
        on->write(0x40, {0x03, static_cast<std::uint8_t>(high ? 0xFF : 0xF7)});
        on->write(0x40, {0x07, 0xF7});
    }
};

TEST_F(WriteProtection, OfTheUpperHalfLeavesTheLowerHalfWritable)
{
    power24c("24C02", "protect = \"silent\"\nprotect_area = \"half\"");
    EXPECT_EQ(outcome::done, on->store(0xA0, {0x78, 1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(outcome::done, on->write(0xA0, {0x80, 9}).end);
    // no write cycle
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(on->readAt(0xA0, {0x78}, 9).data, counting(8, 1) + Bytes{0xFF});
}

TEST_F(WriteProtection, OfTheUpperQuarterRefusesItsDataBytes)
{
    power24c("24C32", "protect = \"nak\"\nprotect_area = \"quarter\"");
    EXPECT_EQ(outcome::done, on->store(0xA0, {0x0B, 0xFF, 1}));
    const Answer refused = on->write(0xA0, {0x0C, 0x00, 2});
    EXPECT_EQ(outcome::dataNotAcknowledged, refused.end);
    EXPECT_EQ(2U, refused.bytesMoved);
    EXPECT_EQ(on->readAt(0xA0, {0x0B, 0xFF}, 2).data, (Bytes{1, 0xFF}));
}

TEST_F(WriteProtection, FollowsAPinOfAnExpander)
{
    power24c("24C02", "protect = \"nak\"\nprotect_chip = 0x40\nprotect_pin = 11");
    // an input, pulled up
    EXPECT_EQ(outcome::dataNotAcknowledged, on->write(0xA0, {0x10, 1}).end);
    EXPECT_EQ(1U, value("planar 0xA0 24C02", "WP"));
    drivePin11(false);
    EXPECT_EQ(0U, value("planar 0xA0 24C02", "WP"));
    EXPECT_EQ(outcome::done, on->store(0xA0, {0x10, 1}));
    drivePin11(true);
    EXPECT_EQ(outcome::dataNotAcknowledged, on->write(0xA0, {0x10, 2}).end);
    EXPECT_EQ(on->readAt(0xA0, {0x10}, 1).data, Bytes{1});
}

TEST_F(WriteProtection, PinHoldsForAPartBehindAHub)
{
    power(chip("HUB922", "0x80") + chip("PCA9555", "0x40") +
          chip("24C02", "0xA0",
               "hub = 0x80\nport = 0\nimage = \"a.bin\"\nprotect = \"silent\"\nprotect_chip = 0x40\nprotect_pin = 11"));
    on->write(0x80, {0, 0xA0, 0x10, 7});
    on->idleMs(10);
    EXPECT_EQ(on->readAt(0x80, {0, 0xA0, 0x10}, 2).data, (Bytes{0, 0xFF}));
    drivePin11(false);
    on->write(0x80, {0, 0xA0, 0x10, 7});
    on->idleMs(10);
    EXPECT_EQ(on->readAt(0x80, {0, 0xA0, 0x10}, 2).data, (Bytes{0, 7}));
}

} // namespace
} // namespace kest::sim::test
