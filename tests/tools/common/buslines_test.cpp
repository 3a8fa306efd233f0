#include "tools/common/buslines.h"

#include <array>
#include <gtest/gtest.h>
#include <vector>

namespace kest::tools
{
namespace
{

using host::iic::busAct;
using host::iic::busEvent;
using host::iic::direction;
using host::iic::outcome;
using host::iic::segment;

/// A read of 20 bytes behind two offset bytes.
struct LongRead {
    std::array<std::uint8_t, 2> offset{0x01, 0x2C};
    std::array<std::uint8_t, 20> data{};
    std::array<segment, 2> parts{segment{0xA0, direction::write, offset}, segment{0xA0, direction::read, data}};
    busEvent event{.bus = "sim:planar", .segments = parts, .beganNs = 1'000'000, .endedNs = 1'452'500};
};

TEST(BusLines, HaveBusAddressDirectionBytesResultAndTime)
{
    LongRead read;
    read.data.fill(0xFE);
    EXPECT_EQ("sim:planar: A0 = 0x50: write 2: 01 2c; read 20: fe fe fe fe ...: done, 0.453 ms",
              busLine(read.event, 4));
    EXPECT_EQ(
        "sim:planar: A0 = 0x50: write 2: 01 2c; read 20: fe fe fe fe fe fe fe fe fe fe fe fe fe fe fe fe fe fe fe "
        "fe: done, 0.453 ms",
        busLine(read.event, 20));
}

TEST(BusLines, OfAReadThatFailedHaveNoBytes)
{
    LongRead read;
    read.event.end = outcome::addressNotAcknowledged;
    EXPECT_EQ("sim:planar: A0 = 0x50: write 2: 01 2c; read 20: address not acknowledged, 0.453 ms",
              busLine(read.event, 16));
}

TEST(BusLines, NameQuestionsAndResets)
{
    EXPECT_EQ("/dev/i2c-3: C0 = 0x60: is it there: not acknowledged, 0.100 ms",
              busLine({.bus = "/dev/i2c-3",
                       .act = busAct::probe,
                       .segments = {},
                       .address = 0xC0,
                       .end = outcome::notAcknowledged,
                       .beganNs = 0,
                       .endedNs = 100'000},
                      16));
    EXPECT_EQ("sim:\\x1Bred: reset: SCL held, 0.000 ms", busLine({.bus = "sim:\x1Bred",
                                                                  .act = busAct::reset,
                                                                  .segments = {},
                                                                  .end = outcome::sclHeld,
                                                                  // a clock that was set back
                                                                  .beganNs = 5,
                                                                  .endedNs = 0},
                                                                 16));
}

TEST(BusLines, OfEqualFailuresAreCounted)
{
    LongRead read;
    read.event.segments = std::span(read.parts).first(1);
    read.event.end = outcome::addressNotAcknowledged;
    busLines lines(false);
    const std::string first = "kestctl: sim:planar: A0 = 0x50: write 2: 01 2c: address not acknowledged, 0.453 ms\n";
    EXPECT_EQ(first, lines.take(read.event));
    read.event.endedNs += 1000;
    EXPECT_EQ("", lines.take(read.event));
    EXPECT_EQ("", lines.take(read.event));
    read.event.end = outcome::done;
    EXPECT_EQ("kestctl: ... and 2 more like it\nkestctl: sim:planar: A0 = 0x50: write 2: 01 2c: done, 0.454 ms\n",
              lines.take(read.event));
    // what is done counts each time
    EXPECT_EQ("kestctl: sim:planar: A0 = 0x50: write 2: 01 2c: done, 0.454 ms\n", lines.take(read.event));
    EXPECT_EQ("", lines.rest());
}

TEST(BusLines, AreAllThereWhenAllAreWanted)
{
    LongRead read;
    read.event.end = outcome::addressNotAcknowledged;
    busLines lines(true);
    const std::string line = lines.take(read.event);
    EXPECT_EQ(line, lines.take(read.event));
    EXPECT_EQ("", lines.rest());
}

} // namespace
} // namespace kest::tools
