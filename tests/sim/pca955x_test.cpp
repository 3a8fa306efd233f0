#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

class LedDriver : public MachineTest
{
};

TEST_F(LedDriver, Pca9552PowersUpWithItsLedsOff)
{
    power(chip("PCA9552", "0xC0"));
    EXPECT_EQ(on->readAt(0xC0, {0x10}, 10).data, (Bytes{0xFF, 0xFF, 0xFF, 0x80, 0xFF, 0x80, 0x55, 0x55, 0x55, 0x55}));
}

TEST_F(LedDriver, Pca9551PowersUpWithItsLedsOff)
{
    power(chip("PCA9551", "0xC4"));
    EXPECT_EQ(on->readAt(0xC4, {0x10}, 7).data, (Bytes{0xFF, 0xFF, 0x80, 0xFF, 0x80, 0x55, 0x55}));
}

TEST_F(LedDriver, AutoIncrementWritesRegisterAfterRegister)
{
    power(chip("PCA9552", "0xC0"));
    on->write(0xC0, {0x16, 0x01, 0x02, 0x03, 0x04});
    EXPECT_EQ(on->readAt(0xC0, {0x16}, 4).data, (Bytes{0x01, 0x02, 0x03, 0x04}));
}

TEST_F(LedDriver, WithoutTheFlagTheRegisterStays)
{
    power(chip("PCA9552", "0xC0"));
    on->write(0xC0, {0x06, 0x01, 0x02, 0x03});
    EXPECT_EQ(on->readAt(0xC0, {0x06}, 3).data, (Bytes{0x03, 0x03, 0x03}));
    EXPECT_EQ(on->readAt(0xC0, {0x07}, 1).data, Bytes{0x55});
}

TEST_F(LedDriver, AutoIncrementRollsOverFromTheLastRegister)
{
    power(chip("PCA9552", "0xC0") + chip("PCA9551", "0xC4"));
    // LS3, INPUT0, INPUT1, PSC0
    EXPECT_EQ(on->readAt(0xC0, {0x19}, 4).data, (Bytes{0x55, 0xFF, 0xFF, 0xFF}));
    // LS1, INPUT (ignored), PSC0
    on->write(0xC4, {0x16, 0x51, 0xEE, 0x07});
    // pin 5 low: LED on
    EXPECT_EQ(on->readAt(0xC4, {0x16}, 3).data, (Bytes{0x51, 0xDF, 0x07}));
}

TEST_F(LedDriver, PointerOutlivesTheTransaction)
{
    power(chip("PCA9552", "0xC0"));
    on->write(0xC0, {0x16, 0x0A, 0x0B});
    on->write(0xC0, {0x16});
    EXPECT_EQ(on->read(0xC0, 1).data, Bytes{0x0A});
    EXPECT_EQ(on->read(0xC0, 1).data, Bytes{0x0B});
}

// Selector 00 pulls low, 01 lets go: the input registers see it.
TEST_F(LedDriver, InputsFollowTheOutputs)
{
    // pins 0 and 15 pulled low from outside
    power(chip("PCA9552", "0xC0", "inputs = 0x7FFE"));
    // pin 1 and pin 12 LED on
    on->write(0xC0, {0x16, 0x51, 0x55, 0x55, 0x54});
    EXPECT_EQ(on->readAt(0xC0, {0x00}, 1).data, Bytes{0xFC});
    EXPECT_EQ(on->readAt(0xC0, {0x01}, 1).data, Bytes{0x6F});
}

// PSC 43 on a PCA9552: (43 + 1) / 44 s, half of it low.
TEST_F(LedDriver, BlinkingOutputsChangeWithBusTime)
{
    power(chip("PCA9552", "0xC0"));
    on->write(0xC0, {0x12, 43, 0x80});
    // pin 0: blink 0
    on->write(0xC0, {0x06, 0x56});
    EXPECT_EQ(on->readAt(0xC0, {0x00}, 1).data, Bytes{0xFE});
    on->idleMs(600);
    EXPECT_EQ(on->readAt(0xC0, {0x00}, 1).data, Bytes{0xFF});
    on->idleMs(500);
    EXPECT_EQ(on->readAt(0xC0, {0x00}, 1).data, Bytes{0xFE});
}

// PSC 43: periods of 1 s that count from bus time 0. Low for (256 - PWM) / 256 of each.
TEST_F(LedDriver, OnePeriodIsLowForWhatPwmLeaves)
{
    struct Duty {
        std::uint8_t pwm;
        std::uint64_t lowMs; ///< of 1000
    };
    for (const Duty& each : {Duty{0x40, 750}, Duty{0x80, 500}, Duty{0xC0, 250}}) {
        // a new machine, whose bus time is 0
        on.reset();
        machine.reset();
        std::filesystem::remove(home.path / "machine.state");
        power(chip("PCA9552", "0xC0"));
        // pin 3: blink 1
        on->write(0xC0, {0x14, 43, each.pwm, 0xD5});
        on->idleMs(each.lowMs - 5);
        EXPECT_EQ((Bytes{0xF7}), on->readAt(0xC0, {0x00}, 1).data) << +each.pwm;
        on->idleMs(10);
        EXPECT_EQ((Bytes{0xFF}), on->readAt(0xC0, {0x00}, 1).data) << +each.pwm;
        on->idleMs(990 - each.lowMs);
        EXPECT_EQ((Bytes{0xFF}), on->readAt(0xC0, {0x00}, 1).data) << +each.pwm;
        on->idleMs(10);
        EXPECT_EQ((Bytes{0xF7}), on->readAt(0xC0, {0x00}, 1).data) << +each.pwm;
    }
}

TEST_F(LedDriver, Pwm0IsLowAllTheTimeAndPwm255AlmostNever)
{
    power(chip("PCA9551", "0xC4"));
    // PSC 37 on a PCA9551: 38 / 38 s; pin 0 blinks with PWM 0, pin 1 with PWM 255
    on->write(0xC4, {0x11, 37, 0, 37, 0xFF, 0x5E});
    for (int tenth = 0; tenth < 10; ++tenth) {
        // out of the first 1/256 s of each period
        on->idleMs(tenth == 0 ? 10 : 100);
        EXPECT_EQ((Bytes{0xFE}), on->readAt(0xC4, {0x00}, 1).data) << tenth;
    }
    on->idleMs(91);
    EXPECT_EQ((Bytes{0xFC}), on->readAt(0xC4, {0x00}, 1).data);
}

TEST_F(LedDriver, NumbersWithoutARegisterReadFf)
{
    power(chip("PCA9552", "0xC0"));
    on->write(0xC0, {0x0C, 0x00});
    EXPECT_EQ(on->readAt(0xC0, {0x0C}, 1).data, Bytes{0xFF});
}

TEST_F(LedDriver, ListingSaysWhatThePinsDo)
{
    power(chip("PCA9552", "0xC0"));
    on->write(0xC0, {0x16, 0xE4});
    EXPECT_EQ(0xE4U, value("planar 0xC0 PCA9552", "LS0"));
    EXPECT_EQ("pin 0 low, 1 off, 2 blink0, 3 blink1", meaning("planar 0xC0 PCA9552", "LS0"));
    EXPECT_EQ("pin 12 off, 13 off, 14 off, 15 off", meaning("planar 0xC0 PCA9552", "LS3"));
}

TEST_F(LedDriver, RegistersOutliveTheProcessButNotAPowerCycle)
{
    power(chip("PCA9552", "0xC0"));
    on->write(0xC0, {0x16, 0xAA});
    on.reset();
    machine.reset();
    open();
    EXPECT_EQ(on->readAt(0xC0, {0x16}, 1).data, Bytes{0xAA});
    machine->powerCycle();
    EXPECT_EQ(on->readAt(0xC0, {0x16}, 1).data, Bytes{0x55});
}

TEST_F(LedDriver, BytesTakenBeforeARefusedOneCount)
{
    power(chip("PCA9552", "0xC0"));
    fault({.kind = "nack-data", .count = 1, .byte = 2});
    EXPECT_EQ(outcome::dataNotAcknowledged, on->write(0xC0, {0x16, 0x11, 0x22}).end);
    EXPECT_EQ(on->readAt(0xC0, {0x16}, 2).data, (Bytes{0x11, 0x55}));
}

class Expander : public MachineTest
{
};

TEST_F(Expander, Pca9555PowersUpAsInputs)
{
    power(chip("PCA9555", "0x40"));
    for (const auto& [command, expected] : {std::pair<std::uint8_t, std::uint8_t>{0, 0xFF},
                                            {1, 0xFF},
                                            {2, 0xFF},
                                            {3, 0xFF},
                                            {4, 0},
                                            {5, 0},
                                            {6, 0xFF},
                                            {7, 0xFF}}) {
        EXPECT_EQ(on->readAt(0x40, {command}, 1).data, Bytes{expected}) << +command;
    }
}

TEST_F(Expander, Pca9555StaysInItsRegisterPair)
{
    power(chip("PCA9555", "0x40"));
    // output 0, 1, 0
    on->write(0x40, {0x02, 1, 2, 3});
    EXPECT_EQ(on->readAt(0x40, {0x02}, 4).data, (Bytes{3, 2, 3, 2}));
    // direction 1, 0
    on->write(0x40, {0x07, 0x70, 0x60});
    EXPECT_EQ(on->readAt(0x40, {0x06}, 2).data, (Bytes{0x60, 0x70}));
    EXPECT_EQ(on->readAt(0x40, {0x04}, 2).data, (Bytes{0, 0}));
}

TEST_F(Expander, Pca9554StaysInItsRegister)
{
    power(chip("PCA9554", "0x42"));
    on->write(0x42, {0x01, 1, 2, 3});
    EXPECT_EQ(on->readAt(0x42, {0x01}, 2).data, (Bytes{3, 3}));
    EXPECT_EQ(on->readAt(0x42, {0x00}, 1).data, Bytes{0xFF});
    EXPECT_EQ(on->readAt(0x42, {0x03}, 1).data, Bytes{0xFF});
}

TEST_F(Expander, OutputsAreReadBackAsInputs)
{
    // pins 4-7 pulled up
    power(chip("PCA9554", "0x42", "inputs = [0, 0, 1, 1]"));
    on->write(0x42, {0x01, 0x05});
    EXPECT_EQ(on->readAt(0x42, {0x00}, 1).data, Bytes{0xFC});
    // pins 0-3 outputs
    on->write(0x42, {0x03, 0xF0});
    EXPECT_EQ(on->readAt(0x42, {0x00}, 1).data, Bytes{0xF5});
}

TEST_F(Expander, PolarityInvertsWhatIsRead)
{
    power(chip("PCA9555", "0x40", "inputs = 0x1234"));
    on->write(0x40, {0x04, 0xFF, 0x0F});
    EXPECT_EQ(on->readAt(0x40, {0x00}, 2).data, (Bytes{0xCB, 0x1D}));
}

TEST_F(Expander, InputRegistersTakeNothing)
{
    power(chip("PCA9555", "0x40", "inputs = 0x1234"));
    EXPECT_EQ(outcome::done, on->write(0x40, {0x00, 0x00, 0x00}).end);
    EXPECT_EQ(on->readAt(0x40, {0x00}, 2).data, (Bytes{0x34, 0x12}));
}

class Interrupt : public MachineTest
{
protected:
    void power9554(const char* inputs) { power(chip("PCA9554", "0x42", std::string{"inputs = "} + inputs)); }
    void power9555(const char* inputs) { power(chip("PCA9555", "0x40", std::string{"inputs = "} + inputs)); }
    std::uint32_t of9554() { return value("planar 0x42 PCA9554", "INT"); }
    std::uint32_t of9555() { return value("planar 0x40 PCA9555", "INT"); }
};

TEST_F(Interrupt, InputThatChangesPullsItLowUntilItIsRead)
{
    power9554("0xFF");
    EXPECT_EQ(1U, of9554());
    EXPECT_EQ("inactive", meaning("planar 0x42 PCA9554", "INT"));
    power9554("0xF5");
    EXPECT_EQ(0U, of9554());
    EXPECT_EQ("active, changed: 1, 3", meaning("planar 0x42 PCA9554", "INT"));
    // other registers are not the input
    on->readAt(0x42, {0x01}, 1);
    on->readAt(0x42, {0x02}, 1);
    on->readAt(0x42, {0x03}, 1);
    EXPECT_EQ(0U, of9554());
    EXPECT_EQ(Bytes{0xF5}, on->readAt(0x42, {0x00}, 1).data);
    EXPECT_EQ(1U, of9554());
    power9554("0xFF");
    EXPECT_EQ(0U, of9554());
}

TEST_F(Interrupt, InputThatReturnsLetsItGo)
{
    power9554("0xFF");
    power9554("0xF5");
    EXPECT_EQ(0U, of9554());
    power9554("0xFF");
    EXPECT_EQ(1U, of9554());
}

TEST_F(Interrupt, EachPortIsReadByItself)
{
    power9555("0xFFFF");
    power9555("0xFEFE");
    EXPECT_EQ("active, changed: 0, 8", meaning("planar 0x40 PCA9555", "INT"));
    on->readAt(0x40, {0x00}, 1);
    EXPECT_EQ("active, changed: 8", meaning("planar 0x40 PCA9555", "INT"));
    on->readAt(0x40, {0x01}, 1);
    EXPECT_EQ(1U, of9555());
    power9555("0xFFFF");
    EXPECT_EQ(0U, of9555());
    // the pair in one read
    on->readAt(0x40, {0x00}, 2);
    EXPECT_EQ(1U, of9555());
}

TEST_F(Interrupt, OutputsCauseNoneUntilTheyAreInputsThatDifferFromTheirLastRead)
{
    power9554("0xFF");
    // pin 0: output 0
    on->write(0x42, {0x01, 0xFE});
    on->write(0x42, {0x03, 0xFE});
    EXPECT_EQ(1U, of9554());
    on->readAt(0x42, {0x00}, 1);
    on->write(0x42, {0x03, 0xFF});
    EXPECT_EQ("active, changed: 0", meaning("planar 0x42 PCA9554", "INT"));
}

// It counts as read in the acknowledge slot.
TEST_F(Interrupt, AReadThatIsCutOffKeepsItAndThePointer)
{
    power9555("0xFFFF");
    power9555("0xF77F");
    on->write(0x40, {0x00});
    fault({.kind = "short", .way = "read", .count = 1, .byte = 1});
    // of port 1, which is 0xF7: the bit after the cut is 0, the next one 1
    EXPECT_EQ(outcome::shortTransfer, on->read(0x40, 2).end);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::done, on->planar->clocks(1));
    EXPECT_EQ("active, changed: 11", meaning("planar 0x40 PCA9555", "INT"));
    EXPECT_EQ((Bytes{0xF7, 0x7F}), on->read(0x40, 2).data);
    EXPECT_EQ(1U, of9555());
}

TEST_F(Interrupt, PolarityIsNoChangeOfAPin)
{
    power9554("0xFF");
    on->write(0x42, {0x02, 0xFF});
    EXPECT_EQ(1U, of9554());
    EXPECT_EQ(Bytes{0x00}, on->readAt(0x42, {0x00}, 1).data);
    EXPECT_EQ(1U, of9554());
}

TEST_F(Interrupt, OutlivesTheProcessAndEndsWithThePower)
{
    power9555("0xFFFF");
    power9555("0x7FFF");
    on.reset();
    machine.reset();
    open();
    EXPECT_EQ("active, changed: 15", meaning("planar 0x40 PCA9555", "INT"));
    machine->powerCycle();
    EXPECT_EQ(1U, of9555());
}

TEST_F(Expander, ListingSaysWhatThePinsDo)
{
    power(chip("PCA9554", "0x42", "inputs = 0x00"));
    on->write(0x42, {0x01, 0x02});
    on->write(0x42, {0x03, 0xFC});
    EXPECT_EQ("pin 0 output 0, 1 output 1, 2 input, 3 input, 4 input, 5 input, 6 input, 7 input",
              meaning("planar 0x42 PCA9554", "CONFIG"));
    EXPECT_EQ("pin 0 0, 1 1, 2 0, 3 0, 4 0, 5 0, 6 0, 7 0", meaning("planar 0x42 PCA9554", "INPUT"));
    EXPECT_EQ(2U, value("planar 0x42 PCA9554", "OUTPUT"));
}

} // namespace
} // namespace kest::sim::test
