#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

class Fram : public MachineTest
{
protected:
    void powerFram(const std::string& type, const std::string& more = {})
    {
        power(chip(type, "0xA0", "kind = \"fram\"\nimage = \"a.bin\"\n" + more) +
              chip("24C02", "0xA4", "image = \"b.bin\""));
    }
};

TEST_F(Fram, HasNoWriteCycle)
{
    powerFram("24C256");
    EXPECT_EQ(outcome::done, on->write(0xA0, {0x01, 0x00, 1, 2, 3}).end);
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(on->readAt(0xA0, {0x01, 0x00}, 4).data, (Bytes{1, 2, 3, 0xFF}));
}

TEST_F(Fram, HasNoPages)
{
    powerFram("24C256");
    const Bytes data = counting(1000, 5);
    EXPECT_EQ(outcome::done, on->write(0xA0, Bytes{0x00, 0x3E} + data).end);
    EXPECT_EQ(on->readAt(0xA0, {0x00, 0x3E}, 1000).data, data);
    const Bytes image = home.content("a.bin");
    EXPECT_EQ(data, Bytes(image.begin() + 0x3E, image.begin() + 0x3E + 1000));
    EXPECT_EQ(0xFF, image[0x3D]);
    EXPECT_EQ(0xFF, image[0x3E + 1000]);
}

TEST_F(Fram, WriteRollsOverAtTheEnd)
{
    powerFram("24C02");
    on->write(0xA0, {0xFE, 1, 2, 3, 4});
    const Bytes image = home.content("a.bin");
    EXPECT_EQ(1, image[0xFE]);
    EXPECT_EQ(2, image[0xFF]);
    EXPECT_EQ(3, image[0x00]);
    EXPECT_EQ(4, image[0x01]);
    EXPECT_EQ(0xFF, image[0x02]);
}

TEST_F(Fram, WhatWasAcknowledgedStaysWithoutAStop)
{
    powerFram("24C02");
    fault({.kind = "short", .count = 1, .byte = 3});
    EXPECT_EQ(outcome::shortTransfer, on->write(0xA0, {0x10, 1, 2, 3, 4}).end);
    EXPECT_EQ(on->readAt(0xA0, {0x10}, 4).data, (Bytes{1, 2, 0xFF, 0xFF}));
    // a repeated START
    EXPECT_EQ(on->readAt(0xA0, {0x20, 0xAB}, 1).data, Bytes{0xFF});
    EXPECT_EQ(on->readAt(0xA0, {0x20}, 1).data, Bytes{0xAB});
}

TEST_F(Fram, ReadAfterARepeatedStartGivesWhatWasJustWritten)
{
    powerFram("24C02");
    Bytes sent{0x40, 7, 8}, offset{0x40}, data(2);
    segment parts[3] = {{0xA0, direction::write, sent, false},
                        {0xA0, direction::write, offset, false},
                        {0xA0, direction::read, data, false}};
    EXPECT_EQ(outcome::done, on->run(parts, {}).end);
    EXPECT_EQ(data, (Bytes{7, 8}));
}

TEST_F(Fram, OneTransactionWritesToItAndToAnEeprom)
{
    powerFram("24C02");
    Bytes first{0x40, 7}, second{0x41, 8};
    segment parts[2] = {{0xA0, direction::write, first, false}, {0xA4, direction::write, second, false}};
    EXPECT_EQ(outcome::done, on->run(parts, {}).end);
    EXPECT_EQ(7, home.content("a.bin")[0x40]);
    EXPECT_EQ(8, home.content("b.bin")[0x41]);
}

TEST_F(Fram, LossOfPowerTearsNothing)
{
    powerFram("24C02");
    fault({.kind = "power-cut", .nth = 5, .count = 1});
    EXPECT_EQ(outcome::dataNotAcknowledged, on->write(0xA0, {0x10, 1, 2, 3, 4}).end);
    EXPECT_EQ(on->readAt(0xA0, {0x10}, 4).data, (Bytes{1, 2, 0xFF, 0xFF}));
    machine->powerCycle();
    EXPECT_EQ(on->readAt(0xA0, {0x10}, 4).data, (Bytes{1, 2, 0xFF, 0xFF}));
}

TEST_F(Fram, BehindAHub)
{
    power(chip("HUB922", "0x80") + chip("24C256", "0xA2", "hub = 0x80\nport = 3\nkind = \"fram\"\nimage = \"a.bin\""));
    const std::uint64_t stop = on->write(0x80, {3, 0xA2, 0x00, 0x10, 1, 2}).busTimeNs;
    ASSERT_TRUE(on->asksUntilAnswered(0x80, 200));
    // START, five bytes, STOP and one poll of 11 bits, at 2.5 us; no write cycle
    EXPECT_LE(on->planar->busTimeNs() - stop, 300'000U);
    EXPECT_EQ(on->readAt(0x80, {3, 0xA2, 0x00, 0x10}, 3).data, (Bytes{0, 1, 2}));
}

TEST_F(Fram, ProtectionRefusesOrForgets)
{
    powerFram("24C02", "protect = \"nak\"\nprotect_area = \"half\"");
    const Answer refused = on->write(0xA0, {0x7E, 1, 2, 3});
    EXPECT_EQ(outcome::dataNotAcknowledged, refused.end);
    EXPECT_EQ(3U, refused.bytesMoved);
    EXPECT_EQ(on->readAt(0xA0, {0x7E}, 3).data, (Bytes{1, 2, 0xFF}));
    powerFram("24C02", "protect = \"silent\"\nprotect_area = \"quarter\"");
    EXPECT_EQ(outcome::done, on->write(0xA0, {0xBF, 4, 5}).end);
    EXPECT_EQ(on->readAt(0xA0, {0xBF}, 2).data, (Bytes{4, 0xFF}));
}

TEST_F(Fram, LostImageIsAGoneAdapter)
{
    powerFram("24C02");
    on->write(0xA0, {0x10, 0x41});
    std::filesystem::rename(home.path / "a.bin", home.path / "kept");
    EXPECT_EQ(outcome::gone, on->write(0xA0, {0x10, 0x42}).end);
    std::filesystem::rename(home.path / "kept", home.path / "a.bin");
    EXPECT_EQ(on->readAt(0xA0, {0x10}, 1).data, Bytes{0x41});
}

TEST_F(Fram, CounterIsKeptByTheMachineAndUnknownAfterPowerUp)
{
    powerFram("24C02");
    on->write(0xA0, {0x10, 1, 2});
    on.reset();
    machine.reset();
    open();
    EXPECT_EQ(0x12U, value("planar 0xA0 24C02", "counter"));
    machine->powerCycle();
    // the chip's second choice; the first was for the new machine
    EXPECT_EQ(190U, value("planar 0xA0 24C02", "counter"));
}

} // namespace
} // namespace kest::sim::test
