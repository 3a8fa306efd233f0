#include "sim/sensor.h"

#include <array>

#include "base/clock.h"
#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

/// No fault strikes a sensor by itself.
struct NoFaults final : chipFaults {
    std::optional<strike> meets(faultKind) override { return {}; }
    void subBusWasReset() override {}
    void behindHub(std::uint8_t) override {}
};

/// A sensor alone, without bus and machine file, as a machine that has just been made has it.
class LooseSensor : public ::testing::Test
{
protected:
    void make(const char* type, double celsius, unsigned bits)
    {
        const auto* const row = std::ranges::find(sensorTypes, std::string_view{type}, &sensorType::name);
        under = std::make_unique<sensor>(*row, celsius, bits);
        under->asNew();
    }
    void makeLm75(double celsius) { make("LM75", celsius, 9); }
    void makeLm92(double celsius) { make("LM92", celsius, 13); }
    void passMs(std::uint64_t milliseconds) { clock.now += milliseconds * nsPerMs; }
    void warm(double celsius)
    {
        under->follow({.toMicroCelsius = static_cast<std::int32_t>(celsius * 1e6), .begin = clock.now}, clock.now);
    }
    void write(const Bytes& sent)
    {
        under->start(direction::write, clock, none);
        for (const std::uint8_t byte : sent) {
            under->take(byte, clock);
        }
        under->stop(clock, none);
    }
    Bytes read(std::size_t length)
    {
        Bytes got(length);
        under->start(direction::read, clock, none);
        std::ranges::generate(got, [this] { return under->give(clock, none); });
        under->stop(clock, none);
        return got;
    }
    listedRegister line(const char* name)
    {
        const auto lines = under->list(clock.now);
        const auto found = std::ranges::find(lines, name, &listedRegister::name);
        return found == lines.end() ? listedRegister{"no such line", 0xDEADBEEF, ""} : *found;
    }
    std::uint32_t level(const char* output) { return line(output).value; }
    void goThroughTheStateFile()
    {
        std::array<std::uint8_t, chipStateBytes> record{};
        stateFields stored{record, stateFields::way::store};
        under->exchange(stored);
        stateFields loaded{record, stateFields::way::load, clock.now};
        under->exchange(loaded);
        EXPECT_EQ(nullptr, loaded.damaged());
    }

    std::unique_ptr<sensor> under;
    busClock clock;
    NoFaults none;
};

TEST_F(LooseSensor, ReadGivesTheLatestConversionThatHasEnded)
{
    struct Part {
        const char* type;
        unsigned bits;
        std::uint64_t conversionMs;
        Bytes at25, at30;
    };
    for (const Part& each :
         {Part{"LM75", 9, 300, {0x19, 0x00}, {0x1E, 0x00}}, Part{"LM75", 11, 100, {0x19, 0x00}, {0x1E, 0x00}},
          Part{"LM92", 13, 1000, {0x0C, 0x80}, {0x0F, 0x00}}}) {
        SCOPED_TRACE(each.type + std::to_string(each.bits));
        clock.now = 0;
        make(each.type, 25, each.bits);
        warm(30);
        passMs(each.conversionMs - 1);
        EXPECT_EQ(each.at25, read(2));
        passMs(1);
        EXPECT_EQ(each.at30, read(2));
        warm(25);
        passMs(each.conversionMs - 1);
        EXPECT_EQ(each.at30, read(2));
        passMs(1);
        EXPECT_EQ(each.at25, read(2));
    }
}

TEST_F(LooseSensor, NoConversionTearsTheBytesOfARead)
{
    makeLm75(25.5);
    under->start(direction::read, clock, none);
    EXPECT_EQ(0x19, under->give(clock, none));
    warm(30);
    passMs(300);
    EXPECT_EQ(0x80, under->give(clock, none));
    under->stop(clock, none);
    EXPECT_EQ((Bytes{0x1E, 0x00}), read(2));
}

TEST_F(LooseSensor, AfterPowerUpItReads0UntilTheFirstConversionHasEnded)
{
    makeLm75(25);
    passMs(1000);
    under->powerUp();
    goThroughTheStateFile();
    EXPECT_EQ((Bytes{0x00, 0x00}), read(2));
    passMs(299);
    EXPECT_EQ((Bytes{0x00, 0x00}), read(2));
    passMs(1);
    EXPECT_EQ((Bytes{0x19, 0x00}), read(2));
}

// From 20 to 50 degrees in 9 s: a degree in each conversion of 300 ms. The first one that measures the ramp ends 100 ms
// after its begin.
TEST_F(LooseSensor, EachConversionMeasuresTheRampAtItsEnd)
{
    makeLm75(20);
    write({0x01, 0x10});
    write({0x03, 0x19, 0x00});
    write({0x00});
    passMs(500);
    const temperatureRamp ramp{.fromMicroCelsius = 20'000'000,
                               .toMicroCelsius = 50'000'000,
                               .begin = 500 * nsPerMs,
                               .lastingNs = 9000 * nsPerMs};
    under->follow(ramp, clock.now);
    EXPECT_EQ((Bytes{0x14, 0x00}), read(2));
    passMs(4500);
    // 4.3 s of it had passed at 4.8 s
    under->follow(ramp, clock.now);
    EXPECT_EQ((Bytes{0x22, 0x80}), read(2));
    EXPECT_EQ(35'000'000, under->microCelsius());
    // four in a row above 25 degrees
    EXPECT_EQ(0U, level("O.S."));
    passMs(60'000);
    under->follow(ramp, clock.now);
    EXPECT_EQ((Bytes{0x32, 0x00}), read(2));
}

TEST_F(LooseSensor, ShutdownKeepsTheTemperatureAlongARamp)
{
    makeLm75(20);
    write({0x01, 0x01});
    write({0x00});
    passMs(5000);
    under->follow({.fromMicroCelsius = 20'000'000, .toMicroCelsius = 50'000'000, .lastingNs = 9000 * nsPerMs},
                  clock.now);
    EXPECT_EQ((Bytes{0x14, 0x00}), read(2));
    EXPECT_EQ(36'666'666, under->microCelsius());
}

TEST_F(LooseSensor, ConversionsBeginWhenThePowerComes)
{
    makeLm75(25);
    passMs(1000);
    under->powerUp();
    under->poweredAt(clock.now);
    passMs(299);
    EXPECT_EQ((Bytes{0x00, 0x00}), read(2));
    passMs(1);
    EXPECT_EQ((Bytes{0x19, 0x00}), read(2));
}

TEST_F(LooseSensor, ShutdownKeepsTheTemperatureAndItsEndBeginsAConversion)
{
    makeLm75(25);
    write({0x01, 0x01});
    write({0x00});
    warm(30);
    passMs(10'000);
    EXPECT_EQ((Bytes{0x19, 0x00}), read(2));
    write({0x01, 0x00});
    write({0x00});
    passMs(299);
    EXPECT_EQ((Bytes{0x19, 0x00}), read(2));
    passMs(1);
    EXPECT_EQ((Bytes{0x1E, 0x00}), read(2));
}

TEST_F(LooseSensor, TemperatureStaysWithinWhatThePartMeasures)
{
    makeLm75(25);
    warm(1000);
    EXPECT_EQ(125'000'000, under->microCelsius());
    warm(-1000);
    EXPECT_EQ(-55'000'000, under->microCelsius());
    makeLm92(25);
    warm(151);
    EXPECT_EQ(150'000'000, under->microCelsius());
    warm(-56);
    EXPECT_EQ(-55'000'000, under->microCelsius());
}

TEST_F(LooseSensor, TemperatureAndConversionOutliveTheProcess)
{
    makeLm75(25);
    passMs(200);
    warm(-10.5);
    goThroughTheStateFile();
    EXPECT_EQ(-10'500'000, under->microCelsius());
    EXPECT_EQ((Bytes{0x19, 0x00}), read(2));
    passMs(99);
    goThroughTheStateFile();
    EXPECT_EQ((Bytes{0x19, 0x00}), read(2));
    passMs(1);
    EXPECT_EQ((Bytes{0xF5, 0x80}), read(2));
}

TEST_F(LooseSensor, OsIsLowAboveTosAndHighAgainBelowThyst)
{
    makeLm75(25);
    EXPECT_EQ(1U, level("O.S."));
    warm(80.5);
    passMs(299);
    EXPECT_EQ(1U, level("O.S."));
    passMs(1);
    EXPECT_EQ(0U, level("O.S."));
    EXPECT_EQ("active", line("O.S.").meaning);
    // between THYST 75 and TOS 80
    warm(75);
    passMs(300);
    EXPECT_EQ(0U, level("O.S."));
    warm(74.5);
    passMs(300);
    EXPECT_EQ(1U, level("O.S."));
    EXPECT_EQ("inactive", line("O.S.").meaning);
}

TEST_F(LooseSensor, TosAloneIsNotTooHot)
{
    makeLm75(80);
    EXPECT_EQ(1U, level("O.S."));
    // the 2 bits more of an LM75 with 11 are not compared: 80.375 counts as 80
    make("LM75", 80.375, 11);
    EXPECT_EQ(1U, level("O.S."));
    make("LM75", 80.5, 11);
    EXPECT_EQ(0U, level("O.S."));
}

TEST_F(LooseSensor, OsPolarityBitMakesItActiveHigh)
{
    makeLm75(81);
    EXPECT_EQ(0U, level("O.S."));
    write({0x01, 0x04});
    EXPECT_EQ(1U, level("O.S."));
    EXPECT_EQ("active", line("O.S.").meaning);
}

TEST_F(LooseSensor, FaultQueueCountsConversions)
{
    struct Row {
        std::uint8_t configuration;
        std::uint64_t conversions;
    };
    for (const Row& each : {Row{0x00, 1}, Row{0x08, 2}, Row{0x10, 4}, Row{0x18, 6}}) {
        SCOPED_TRACE(each.conversions);
        clock.now = 0;
        makeLm75(25);
        write({0x01, each.configuration});
        warm(90);
        passMs(300 * each.conversions - 1);
        EXPECT_EQ(1U, level("O.S."));
        passMs(1);
        EXPECT_EQ(0U, level("O.S."));
        warm(25);
        passMs(300 * each.conversions - 1);
        EXPECT_EQ(0U, level("O.S."));
        passMs(1);
        EXPECT_EQ(1U, level("O.S."));
    }
}

TEST_F(LooseSensor, FaultQueueOutlivesTheProcess)
{
    makeLm75(25);
    write({0x01, 0x08});
    warm(90);
    passMs(300);
    read(2);
    goThroughTheStateFile();
    EXPECT_EQ(1U, level("O.S."));
    passMs(300);
    EXPECT_EQ(0U, level("O.S."));
}

TEST_F(LooseSensor, InterruptModeTellsEachCrossingUntilARead)
{
    makeLm75(25);
    write({0x01, 0x02});
    write({0x00});
    warm(90);
    passMs(300);
    EXPECT_EQ(0U, level("O.S."));
    passMs(30'000);
    EXPECT_EQ(0U, level("O.S."));
    EXPECT_EQ((Bytes{0x5A, 0x00}), read(2));
    EXPECT_EQ(1U, level("O.S."));
    // still hot: told already
    passMs(30'000);
    EXPECT_EQ(1U, level("O.S."));
    warm(70);
    passMs(300);
    EXPECT_EQ(0U, level("O.S."));
    // a read of any register
    write({0x03});
    EXPECT_EQ(0U, level("O.S."));
    read(1);
    EXPECT_EQ(1U, level("O.S."));
}

TEST_F(LooseSensor, AReadThatIsCutOffInItsFirstByteKeepsTheInterrupt)
{
    makeLm75(25);
    write({0x01, 0x02});
    warm(90);
    passMs(300);
    under->start(direction::read, clock, none);
    under->give(clock, none);
    under->cut();
    EXPECT_EQ(0U, level("O.S."));
    write({0x00});
    under->start(direction::read, clock, none);
    under->give(clock, none);
    under->give(clock, none);
    under->cut();
    EXPECT_EQ(1U, level("O.S."));
}

TEST_F(LooseSensor, ShutdownResetsTheInterruptAndKeepsTheComparatorsOutput)
{
    makeLm75(90);
    write({0x01, 0x01});
    EXPECT_EQ(0U, level("O.S."));
    EXPECT_EQ("shut down, comparator mode, fault queue 1", line("CONF").meaning);
    clock.now = 0;
    makeLm75(25);
    write({0x01, 0x1A});
    EXPECT_EQ("interrupt mode, fault queue 6", line("CONF").meaning);
    warm(90);
    passMs(1800);
    EXPECT_EQ(0U, level("O.S."));
    write({0x01, 0x1B});
    EXPECT_EQ(1U, level("O.S."));
}

TEST_F(LooseSensor, Lm92HasAnOutputForItsWindowAndOneForTheCriticalTemperature)
{
    makeLm92(25);
    EXPECT_EQ(1U, level("INT"));
    EXPECT_EQ(1U, level("T_CRIT_A"));
    warm(70);
    passMs(1000);
    EXPECT_EQ(0U, level("INT"));
    EXPECT_EQ(1U, level("T_CRIT_A"));
    warm(81);
    passMs(1000);
    EXPECT_EQ(0U, level("T_CRIT_A"));
    // T_CRIT 80 less 2 is still critical
    warm(78);
    passMs(1000);
    EXPECT_EQ(0U, level("T_CRIT_A"));
    warm(9);
    passMs(1000);
    EXPECT_EQ(0U, level("INT"));
    EXPECT_EQ(1U, level("T_CRIT_A"));
    // polarities
    write({0x01, 0x0C});
    EXPECT_EQ(1U, level("INT"));
    EXPECT_EQ(0U, level("T_CRIT_A"));
}

TEST_F(LooseSensor, Lm92InterruptModeIsForTheWindowAlone)
{
    makeLm92(25);
    write({0x01, 0x02});
    write({0x00});
    warm(85);
    passMs(1000);
    EXPECT_EQ(0U, level("INT"));
    EXPECT_EQ(0U, level("T_CRIT_A"));
    EXPECT_EQ((Bytes{0x2A, 0x86}), read(2));
    EXPECT_EQ(1U, level("INT"));
    EXPECT_EQ(0U, level("T_CRIT_A"));
    warm(61.9375);
    passMs(1000);
    EXPECT_EQ(0U, level("INT"));
    EXPECT_EQ(1U, level("T_CRIT_A"));
}

TEST_F(LooseSensor, Lm92FaultQueueHasFour)
{
    makeLm92(25);
    write({0x01, 0x10});
    write({0x00});
    warm(85);
    passMs(3999);
    EXPECT_EQ((Bytes{0x2A, 0x80}), read(2));
    passMs(1);
    EXPECT_EQ((Bytes{0x2A, 0x86}), read(2));
}

TEST_F(LooseSensor, ListingTellsATemperatureThatIsNotMeasuredYet)
{
    makeLm75(25.5);
    EXPECT_EQ("25.5000 C", line("TEMP").meaning);
    warm(30);
    EXPECT_EQ("25.5000 C (around it 30.0000 C)", line("TEMP").meaning);
    passMs(300);
    EXPECT_EQ("30.0000 C", line("TEMP").meaning);
}

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

TEST_F(Sensor, OneByteOfTwoThatEndsOnA0HoldsSdaForOneMoreBit)
{
    power(chip("LM75", "0x90", "celsius = 24"));
    const Answer got = on->read(0x90, 1);
    EXPECT_EQ(outcome::done, got.end);
    EXPECT_EQ(Bytes{0x18}, got.data);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::sdaHeld, on->probe(0x90));
    EXPECT_EQ(outcome::done, on->planar->clocks(1));
    EXPECT_EQ(outcome::done, on->probe(0x90));
    on->read(0x90, 1);
    EXPECT_EQ(outcome::done, on->planar->reset());
    EXPECT_EQ((Bytes{0x18, 0x00}), on->read(0x90, 2).data);
    EXPECT_EQ(outcome::done, on->planar->lines());
}

TEST_F(Sensor, NoRepeatedStartWhileOneByteOfTwoHoldsSda)
{
    power(chip("LM75", "0x90", "celsius = 24"));
    Bytes first(1), second(1);
    segment parts[2] = {{0x90, direction::read, first, false}, {0x90, direction::read, second, true}};
    EXPECT_EQ(outcome::done, on->run(parts, {}).end);
    parts[1].joined = false;
    const Answer got = on->run(parts, {});
    EXPECT_EQ(outcome::sdaHeld, got.end);
    EXPECT_EQ(1U, got.segment);
    EXPECT_EQ(Bytes{0x18}, first);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::done, on->planar->clocks(9));
}

TEST_F(Sensor, OneByteHoldsNothingWhenItEndsOnA1OrNoByteFollows)
{
    power(chip("LM75", "0x90", "celsius = 25"));
    EXPECT_EQ(Bytes{0x19}, on->read(0x90, 1).data);
    EXPECT_EQ(outcome::done, on->planar->lines());
    EXPECT_EQ(Bytes{0x00}, on->readAt(0x90, {0x01}, 1).data);
    EXPECT_EQ(outcome::done, on->planar->lines());
}

TEST_F(Sensor, ReadCutOffHoldsSdaUntilTheAcknowledgeSlot)
{
    power(chip("LM75", "0x90", "celsius = 25.5") + chip("LM92", "0x96", "celsius = 48.25"));
    // the second byte is 0x80: four bits are out, four zeros follow
    fault({.kind = "short", .way = "read", .count = 1, .byte = 1});
    EXPECT_EQ(outcome::shortTransfer, on->read(0x90, 2).end);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::sdaHeld, on->planar->clocks(3));
    EXPECT_EQ(outcome::done, on->planar->clocks(1));
    EXPECT_EQ((Bytes{0x19, 0x80}), on->read(0x90, 2).data);
    // the first byte is 0x18
    fault({.kind = "short", .way = "read", .count = 1, .byte = 0});
    EXPECT_EQ(outcome::shortTransfer, on->read(0x96, 2).end);
    EXPECT_EQ(outcome::done, on->planar->lines());
    EXPECT_EQ((Bytes{0x18, 0x20}), on->read(0x96, 2).data);
}

TEST_F(Sensor, TemperatureOfTheMachineFileTakesEffectAtOnce)
{
    power(chip("LM75", "0x90", "celsius = 25"));
    on->write(0x90, {0x03, 0x1E, 0x00});
    power(chip("LM75", "0x90", "celsius = 40"));
    EXPECT_EQ((Bytes{0x28, 0x00}), on->readAt(0x90, {0x00}, 2).data);
    EXPECT_EQ("40.0000 C, O.S. active", meaning("planar 0x90 LM75", "TEMP"));
    EXPECT_EQ(0U, value("planar 0x90 LM75", "O.S."));
}

TEST_F(Sensor, PowerCycleBeginsWithAConversion)
{
    power(chip("LM75", "0x90", "celsius = 25"));
    machine->powerCycle();
    EXPECT_EQ((Bytes{0x00, 0x00}), on->read(0x90, 2).data);
    on->idleMs(300);
    EXPECT_EQ((Bytes{0x19, 0x00}), on->read(0x90, 2).data);
}

TEST_F(Sensor, PowerCycleBeginsAConversionAlsoWhenNobodyAsks)
{
    power(chip("LM75", "0x90", "celsius = 25") + chip("PCA9554", "0x40"));
    machine->powerCycle();
    on->planar->idle(299'900'000);
    // the second byte of the read comes later
    EXPECT_EQ((Bytes{0x00, 0x00}), on->read(0x90, 2).data);
    on->idleMs(1);
    EXPECT_EQ((Bytes{0x19, 0x00}), on->read(0x90, 2).data);
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
