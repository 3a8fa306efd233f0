#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

class Sensor : public MachineTest
{
};

TEST_F(Sensor, Lm75HasNineBits)
{
    power(chip("LM75", "0x90", "celsius = 25.5") + chip("LM75", "0x92", "celsius = -25.0") +
          chip("LM75", "0x94", "celsius = 25.125"));
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x19, 0x80}));
    EXPECT_EQ(on->read(0x92, 2).data, (Bytes{0xE7, 0x00}));
    EXPECT_EQ(on->read(0x94, 2).data, (Bytes{0x19, 0x00}));
}

TEST_F(Sensor, Lm75MayHaveElevenBits)
{
    power(chip("LM75", "0x90", "celsius = 25.125\nbits = 11") + chip("LM75", "0x92", "celsius = -54.875\nbits = 11"));
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x19, 0x20}));
    EXPECT_EQ(on->read(0x92, 2).data, (Bytes{0xC9, 0x20}));
}

TEST_F(Sensor, Lm75PowersUpWithItsThresholds)
{
    power(chip("LM75", "0x90"));
    EXPECT_EQ(on->readAt(0x90, {0x01}, 1).data, Bytes{0x00});
    EXPECT_EQ(on->readAt(0x90, {0x02}, 2).data, (Bytes{0x4B, 0x00}));
    EXPECT_EQ(on->readAt(0x90, {0x03}, 2).data, (Bytes{0x50, 0x00}));
}

TEST_F(Sensor, PointerStaysUntilItIsWrittenAgain)
{
    power(chip("LM75", "0x90", "celsius = 1"));
    on->write(0x90, {0x03});
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x50, 0x00}));
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x50, 0x00}));
    on->write(0x90, {0x00});
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x01, 0x00}));
}

TEST_F(Sensor, ThresholdsKeepNineBits)
{
    power(chip("LM75", "0x90"));
    on->write(0x90, {0x03, 0x1E, 0xFF});
    EXPECT_EQ(on->readAt(0x90, {0x03}, 2).data, (Bytes{0x1E, 0x80}));
}

TEST_F(Sensor, HalfAThresholdChangesNothing)
{
    power(chip("LM75", "0x90"));
    on->write(0x90, {0x02, 0x10});
    EXPECT_EQ(on->readAt(0x90, {0x02}, 2).data, (Bytes{0x4B, 0x00}));
}

TEST_F(Sensor, TemperatureTakesNothing)
{
    power(chip("LM75", "0x90", "celsius = 20"));
    EXPECT_EQ(outcome::done, on->write(0x90, {0x00, 0x11, 0x22}).end);
    EXPECT_EQ(on->read(0x90, 2).data, (Bytes{0x14, 0x00}));
}

TEST_F(Sensor, LongReadsRepeatTheRegister)
{
    power(chip("LM75", "0x90", "celsius = 25.5"));
    EXPECT_EQ(on->read(0x90, 5).data, (Bytes{0x19, 0x80, 0x19, 0x80, 0x19}));
    on->write(0x90, {0x01, 0x12});
    EXPECT_EQ(on->readAt(0x90, {0x01}, 3).data, (Bytes{0x12, 0x12, 0x12}));
}

TEST_F(Sensor, Lm75AlarmEndsBelowTheHysteresis)
{
    power(chip("LM75", "0x90", "celsius = 30"));
    EXPECT_EQ("30.0000 C", meaning("planar 0x90 LM75", "TEMP"));
    // THYST 25
    on->write(0x90, {0x02, 0x19, 0x00});
    // TOS 29
    on->write(0x90, {0x03, 0x1D, 0x00});
    EXPECT_EQ("30.0000 C, O.S. active", meaning("planar 0x90 LM75", "TEMP"));
    // TOS 40
    on->write(0x90, {0x03, 0x28, 0x00});
    EXPECT_EQ("30.0000 C, O.S. active", meaning("planar 0x90 LM75", "TEMP"));
    // THYST 31
    on->write(0x90, {0x02, 0x1F, 0x00});
    EXPECT_EQ("30.0000 C", meaning("planar 0x90 LM75", "TEMP"));
}

TEST_F(Sensor, Lm92HasThirteenBits)
{
    power(chip("LM92", "0x96", "celsius = 48.25") + chip("LM92", "0x94", "celsius = 20.0625") +
          chip("LM92", "0x92", "celsius = 85"));
    EXPECT_EQ(on->read(0x96, 2).data, (Bytes{0x18, 0x20}));
    EXPECT_EQ(on->read(0x94, 2).data, (Bytes{0x0A, 0x08}));
    // above T_HIGH 64 and T_CRIT 80
    EXPECT_EQ(on->read(0x92, 2).data, (Bytes{0x2A, 0x86}));
}

TEST_F(Sensor, Lm92BelowZeroIsLow)
{
    power(chip("LM92", "0x96", "celsius = -1"));
    EXPECT_EQ(on->read(0x96, 2).data, (Bytes{0xFF, 0x81}));
}

TEST_F(Sensor, Lm92PowersUpWithItsLimits)
{
    power(chip("LM92", "0x96"));
    // 2 degrees
    EXPECT_EQ(on->readAt(0x96, {0x02}, 2).data, (Bytes{0x01, 0x00}));
    // 80
    EXPECT_EQ(on->readAt(0x96, {0x03}, 2).data, (Bytes{0x28, 0x00}));
    // 10
    EXPECT_EQ(on->readAt(0x96, {0x04}, 2).data, (Bytes{0x05, 0x00}));
    // 64
    EXPECT_EQ(on->readAt(0x96, {0x05}, 2).data, (Bytes{0x20, 0x00}));
    EXPECT_EQ(on->readAt(0x96, {0x07}, 2).data, (Bytes{0x80, 0x01}));
}

} // namespace
} // namespace kest::sim::test
