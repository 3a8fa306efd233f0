#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

// A hub at 0x80 with a 24C128 at A2 on port 3 and a 24C02 at A4 on port 1; its reset driver at C0.
class Hub : public MachineTest
{
protected:
    void SetUp() override
    {
        power(chip("HUB922", "0x80") + chip("PCA9552", "0xC0") +
              chip("24C128", "0xA2", "hub = 0x80\nport = 3\nimage = \"riser.bin\"\nwrite_cycle_min_ms = 3.5") +
              chip("24C02", "0xA4", "hub = 0x80\nport = 1\nimage = \"fan.bin\"") +
              chip("LM75", "0x90", "hub = 0x80\nport = 7\ncelsius = 21"));
    }
    std::uint8_t status() { return on->read(0x80, 1).data.at(0); }
    void resetLine(bool low) { on->write(0xC0, {0x09, static_cast<std::uint8_t>(low ? 0x15 : 0x55)}); }
    outcome write(Bytes sent)
    {
        const outcome end = on->write(0x80, std::move(sent)).end;
        on->idleMs(50);
        return end;
    }
};

const Bytes deadbeef{0xDE, 0xAD, 0xBE, 0xEF};
const Bytes riserAt10{3, 0xA2, 0x00, 0x10};

TEST_F(Hub, StartsQuietInANewMachine) { EXPECT_EQ(0, status()); }

TEST_F(Hub, PassesAWriteOnToTheDevice)
{
    EXPECT_EQ(outcome::done, write(riserAt10 + deadbeef));
    EXPECT_EQ(0, status());
    const Bytes image = home.content("riser.bin");
    EXPECT_EQ(Bytes(image.begin() + 0x0F, image.begin() + 0x15), (Bytes{0xFF, 0xDE, 0xAD, 0xBE, 0xEF, 0xFF}));
}

TEST_F(Hub, ReadsStatusThenData)
{
    write(riserAt10 + deadbeef);
    EXPECT_EQ(on->readAt(0x80, riserAt10, 5).data, Bytes{0} + deadbeef);
}

TEST_F(Hub, DeviceWithOneOffsetByte)
{
    write({1, 0xA4, 0x20, 5, 6, 7});
    EXPECT_EQ(6, home.content("fan.bin")[0x21]);
    EXPECT_EQ(on->readAt(0x80, {1, 0xA4, 0x20}, 4).data, (Bytes{0, 5, 6, 7}));
}

TEST_F(Hub, SensorBehindIt) { EXPECT_EQ(on->readAt(0x80, {7, 0x90, 0x00}, 3).data, (Bytes{0, 21, 0})); }

TEST_F(Hub, AnswersNoAddressWhileItPassesAWriteOn)
{
    EXPECT_EQ(outcome::done, on->write(0x80, riserAt10 + deadbeef).end);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->read(0x80, 1).end);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->write(0x80, riserAt10 + deadbeef).end);
    // the main bus is free
    EXPECT_EQ(outcome::done, on->probe(0xC0));
    on->idleMs(3);
    // write cycle of 3.5 ms
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    on->idleMs(1);
    EXPECT_EQ(outcome::done, on->probe(0x80));
    EXPECT_EQ(0, status());
}

TEST_F(Hub, IsBusyAsLongAsPassingOnAndTheWriteCycleTake)
{
    const std::uint64_t stop = on->write(0x80, riserAt10 + deadbeef).busTimeNs;
    ASSERT_TRUE(on->asksUntilAnswered(0x80, 200));
    const std::uint64_t took = on->planar->busTimeNs() - stop;
    // START, address, two offset bytes, four data bytes, STOP: 65 bits of 2.5 us; then 3.5 ms; then
    // polls of 27.5 us on both buses.
    EXPECT_GE(took, 162'500U + 3'500'000U);
    EXPECT_LE(took, 162'500U + 3'500'000U + 3 * 27'500U);
}

TEST_F(Hub, NeedsNoTimeForAReadOrACommand)
{
    on->readAt(0x80, riserAt10, 5);
    EXPECT_EQ(outcome::done, on->probe(0x80));
    on->write(0x80, {0x20, 0x06});
    EXPECT_EQ(outcome::done, on->probe(0x80));
}

TEST_F(Hub, DeviceThatIsNotThereIsStatus2)
{
    EXPECT_EQ(outcome::done, write({3, 0xA6, 0, 0, 1}));
    EXPECT_EQ(2, status());
    EXPECT_EQ(0, status());
    // another port
    EXPECT_EQ(on->readAt(0x80, {2, 0xA2, 0, 0}, 3).data, (Bytes{2, 0xFF, 0xFF}));
    EXPECT_EQ(2, status());
}

TEST_F(Hub, DeviceThatRefusesDataIsStatus2)
{
    power(chip("HUB922", "0x82") + chip("24C02", "0xA4", "hub = 0x82\nport = 0\nimage = \"p.bin\"\nprotect = \"nak\""));
    on->write(0x82, {0, 0xA4, 0, 1});
    on->idleMs(5);
    EXPECT_EQ(on->read(0x82, 1).data, Bytes{2});
}

TEST_F(Hub, PortsAbove7AreStatus7)
{
    for (const std::uint8_t port : Bytes{8, 9, 0x1F, 0x21, 0xFF}) {
        write({port, 0xA2, 0, 0, 1});
        EXPECT_EQ(7, status()) << +port;
        EXPECT_EQ(on->readAt(0x80, {port, 0xA2, 0, 0}, 2).data, (Bytes{7, 0xFF})) << +port;
        EXPECT_EQ(7, status()) << +port;
    }
}

TEST_F(Hub, Port20HexIsACommandAndAMalformedOne)
{
    for (const Bytes& sent : {Bytes{0x20}, Bytes{0x20, 0xA2, 0, 0, 1}, Bytes{0x20, 0x08}, Bytes{0x20, 0x06, 0x00}}) {
        write(sent);
        EXPECT_EQ(1, status());
    }
    EXPECT_EQ(on->readAt(0x80, {0x20, 0xA2, 0, 0}, 2).data, (Bytes{1, 0xFF}));
    // not cleared by the byte before data
    EXPECT_EQ(1, status());
}

TEST_F(Hub, HeaderWithoutAnOffsetIsMalformed)
{
    for (const Bytes& sent : {Bytes{3}, Bytes{3, 0xA2}, Bytes{3, 0xA2, 0}, Bytes{3, 0xA3, 0, 0}}) {
        write(sent);
        EXPECT_EQ(1, status());
    }
    EXPECT_EQ(on->readAt(0x80, {3, 0xA2, 0}, 2).data, (Bytes{1, 0xFF}));
    // not cleared by the byte before data
    EXPECT_EQ(on->readAt(0x80, {3, 0xA2, 0, 0, 0}, 2).data, (Bytes{1, 0xFF}));
}

TEST_F(Hub, MoreThan256BytesAfterTheAddressIsStatus8)
{
    EXPECT_EQ(outcome::done, write(Bytes{3, 0xA2, 0, 0} + Bytes(252, 0x55)));
    EXPECT_EQ(0, status());
    // takes them all
    EXPECT_EQ(outcome::done, write(Bytes{3, 0xA2, 0, 0} + Bytes(253, 0x66)));
    EXPECT_EQ(8, status());
    // and passed nothing on
    EXPECT_EQ(0x55, home.content("riser.bin")[0]);
}

TEST_F(Hub, DeviceThatStaysBusyIsStatus6After30Milliseconds)
{
    power(chip("HUB922", "0x80") +
          chip("24C02", "0xA4", "hub = 0x80\nport = 1\nimage = \"slow.bin\"\nwrite_cycle_ms = 100"));
    const std::uint64_t stop = on->write(0x80, {1, 0xA4, 0, 9}).busTimeNs;
    ASSERT_TRUE(on->asksUntilAnswered(0x80, 2000));
    const std::uint64_t took = on->planar->busTimeNs() - stop;
    EXPECT_GE(took, 30'000'000U);
    EXPECT_LE(took, 30'300'000U);
    EXPECT_EQ(6, status());
}

TEST_F(Hub, StatusStaysUntilAPlainReadAndNothingIsPassedOn)
{
    write({3, 0xA6, 0, 0, 1});
    // taken and dropped
    EXPECT_EQ(outcome::done, write(riserAt10 + deadbeef));
    EXPECT_EQ(on->readAt(0x80, riserAt10, 5).data, (Bytes{2, 0xFF, 0xFF, 0xFF, 0xFF}));
    // not cleared before data
    EXPECT_EQ(2, on->readAt(0x80, riserAt10, 2).data.at(0));
    // an address alone leaves it, and the hub driving the first bit of it when it was one for reading
    on->probe(0x80);
    on->read(0x80, 0);
    EXPECT_EQ(outcome::done, on->planar->reset());
    EXPECT_EQ(2, status());
    EXPECT_EQ(home.content("riser.bin"), Bytes(16384, 0xFF));
    EXPECT_EQ(outcome::done, write(riserAt10 + deadbeef));
    EXPECT_EQ(0xDE, home.content("riser.bin")[0x10]);
}

TEST_F(Hub, DroppedWriteLeavesTheHubReady)
{
    write({3, 0xA6, 0, 0, 1});
    on->write(0x80, riserAt10 + deadbeef);
    EXPECT_EQ(outcome::done, on->probe(0x80));
}

TEST_F(Hub, MalformedCommandDoesNotHideAnEarlierStatus)
{
    write({3, 0xA6, 0, 0, 1});
    write({0x20, 0x55});
    EXPECT_EQ(2, status());
}

TEST_F(Hub, CommandTellsTheErrorStatus)
{
    write({3, 0xA6, 0, 0, 1});
    on->write(0x80, {0x20, 0x07});
    EXPECT_EQ(2, status());
    EXPECT_EQ(on->readAt(0x80, {0x20, 0x07}, 1).data, Bytes{0});
}

TEST_F(Hub, PlainReadOfMoreThanAByteIsTheStatusAndThenNothing)
{
    write({9, 0xA2, 0, 0});
    EXPECT_EQ(on->read(0x80, 3).data, (Bytes{7, 0xFF, 0xFF}));
    EXPECT_EQ(0, status());
}

TEST_F(Hub, SubBusResetClearsTheStatus)
{
    write({3, 0xA6, 0, 0, 1});
    on->write(0x80, {0x20, 0x06});
    EXPECT_EQ(0, status());
}

TEST_F(Hub, HeldSubBusIsStatus3Or4UntilItsReset)
{
    for (const auto& [kind, expected] :
         {std::pair<const char*, std::uint8_t>{"hub-hold-sda", 3}, {"hub-hold-scl", 4}}) {
        SCOPED_TRACE(kind);
        fault({.kind = kind, .count = 1});
        write(riserAt10 + deadbeef);
        EXPECT_EQ(status(), expected);
        // a plain read does not free it
        EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{expected, 0xFF}));
        EXPECT_EQ(status(), expected);
        // the other sub-buses work
        EXPECT_EQ(on->readAt(0x80, {1, 0xA4, 0}, 2).data, (Bytes{0, 0xFF}));
        on->write(0x80, {0x20, 0x06});
        EXPECT_EQ(0, status());
        EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{0, 0xFF}));
    }
}

TEST_F(Hub, HoldCanOutlastResets)
{
    fault({.kind = "hub-hold-sda", .count = 1, .value = 1});
    write(riserAt10 + deadbeef);
    on->write(0x80, {0x20, 0x06});
    EXPECT_EQ(3, status());
    on->write(0x80, {0x20, 0x06});
    EXPECT_EQ(0, status());
}

TEST_F(Hub, HoldEndsWithItsFault)
{
    const auto number = fault({.kind = "hub-hold-sda", .count = 1});
    write(riserAt10 + deadbeef);
    EXPECT_TRUE(machine->clearFault(number));
    status();
    EXPECT_EQ(on->readAt(0x80, riserAt10, 1).data, Bytes{0});
}

TEST_F(Hub, ClearingTheFaultOfOnePortLeavesTheOtherHeld)
{
    const auto first = fault({.kind = "hub-hold-sda", .count = 1});
    write(riserAt10 + deadbeef);
    EXPECT_EQ(3, status());
    const auto second = fault({.kind = "hub-hold-scl", .count = 1});
    write({1, 0xA4, 0, 1});
    EXPECT_EQ(4, status());
    EXPECT_EQ("ports 3", meaning("planar 0x80 HUB922", "SDA held"));
    EXPECT_EQ("ports 1", meaning("planar 0x80 HUB922", "SCL held"));
    machine->clearFault(second);
    EXPECT_EQ(on->readAt(0x80, {1, 0xA4, 0}, 2).data, (Bytes{0, 0xFF}));
    EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{3, 0xFF}));
    EXPECT_EQ(3, status());
    machine->clearFault(first);
    EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{0, 0xFF}));
}

TEST_F(Hub, EachPortsHoldOutlastsItsOwnResets)
{
    fault({.kind = "hub-hold-sda", .count = 1, .value = 2});
    write(riserAt10 + deadbeef);
    EXPECT_EQ(3, status());
    fault({.kind = "hub-hold-scl", .count = 1});
    write({1, 0xA4, 0, 1});
    EXPECT_EQ(4, status());
    on->write(0x80, {0x20, 0x06});
    // port 3 is held yet, port 1 is free
    EXPECT_EQ(3, status());
    EXPECT_EQ(on->readAt(0x80, {1, 0xA4, 0}, 2).data, (Bytes{0, 0xFF}));
    on->write(0x80, {0x20, 0x06});
    EXPECT_EQ(3, status());
    on->write(0x80, {0x20, 0x06});
    EXPECT_EQ(0, status());
}

TEST_F(Hub, StuckWriteCycleStrikesADeviceBehindIt)
{
    fault({.kind = "stuck-write-cycle", .address = 0xA2, .count = 1});
    // another device
    write({1, 0xA4, 0, 1});
    EXPECT_EQ(0, status());
    write(riserAt10 + deadbeef);
    EXPECT_EQ(6, status());
    EXPECT_EQ(home.content("riser.bin"), Bytes(16384, 0xFF));
    EXPECT_EQ(1U, machine->faults().at(0).struck);
    machine->clearFaults();
    write(riserAt10 + deadbeef);
    EXPECT_EQ(0, status());
    EXPECT_EQ(0xDE, home.content("riser.bin")[0x10]);
}

TEST_F(Hub, StatusFaultStrikesATransferAndPassesNothingOn)
{
    fault({.kind = "hub-status", .nth = 2, .count = 1, .value = 9});
    write(riserAt10 + Bytes{1});
    EXPECT_EQ(0, status());
    write(riserAt10 + Bytes{2});
    EXPECT_EQ(9, status());
    EXPECT_EQ(1, home.content("riser.bin")[0x10]);
    write(riserAt10 + Bytes{3});
    EXPECT_EQ(0, status());
    EXPECT_EQ(3, home.content("riser.bin")[0x10]);
}

TEST_F(Hub, StatusFaultUntilResetEndsWithASubBusReset)
{
    fault({.kind = "hub-status", .value = 5, .untilReset = true});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{5, 0xFF}));
        EXPECT_EQ(5, status());
    }
    on->write(0x80, {0x20, 0x06});
    EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{0, 0xFF}));
}

TEST_F(Hub, BadFirstByteIsToldAloneAndForgotten)
{
    write(riserAt10 + deadbeef);
    fault({.kind = "hub-bad-first-byte", .count = 1, .value = 0x42});
    EXPECT_EQ(on->readAt(0x80, riserAt10, 3).data, (Bytes{0x42, 0xFF, 0xFF}));
    EXPECT_EQ(0, status());
    EXPECT_EQ(on->readAt(0x80, riserAt10, 3).data, (Bytes{0, 0xDE, 0xAD}));
}

TEST_F(Hub, SilentHubAnswersNothingUntilItsReset)
{
    fault({.kind = "hub-silent", .address = 0x80, .untilReset = true});
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->readAt(0x80, riserAt10, 3).end);
    resetLine(true);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    resetLine(false);
    EXPECT_EQ(15, status());
    EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{0, 0xFF}));
}

TEST_F(Hub, ItsOwnHoldOfTheMainBusEndsWhenItsResetPinGoesLow)
{
    const std::string chips = chip("HUB922", "0x80") + chip("24C02", "0xA0", "image = \"a.bin\"");
    const auto pinFree = [&] { power(chips + chip("PCA9552", "0xC0")); };
    const auto pinPulledLow = [&] { power(chips + chip("PCA9552", "0xC0", "inputs = 0x7FFF")); };
    for (const auto& [kind, held] : {std::pair{"hold-sda", outcome::sdaHeld}, {"hold-scl", outcome::sclHeld}}) {
        SCOPED_TRACE(kind);
        pinFree();
        fault({.kind = kind, .address = 0x80});
        EXPECT_EQ(held, on->probe(0x80));
        EXPECT_EQ(held, on->planar->lines());
        pinPulledLow();
        EXPECT_EQ(outcome::done, on->planar->lines());
        EXPECT_EQ(outcome::done, on->probe(0xA0));
        EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
        pinFree();
        EXPECT_EQ(outcome::done, on->probe(0x80));
        machine->clearFaults();
    }
}

TEST_F(Hub, AHoldByAnotherChipOutlastsItsReset)
{
    const std::string chips = chip("HUB922", "0x80") + chip("24C02", "0xA0", "image = \"a.bin\"");
    power(chips + chip("PCA9552", "0xC0"));
    fault({.kind = "hold-scl", .address = 0xA0});
    EXPECT_EQ(outcome::sclHeld, on->probe(0xA0));
    power(chips + chip("PCA9552", "0xC0", "inputs = 0x7FFF"));
    EXPECT_EQ(outcome::sclHeld, on->planar->lines());
}

// A reset of the bus frees SDA; a time of its own ends the hold of SCL.
TEST_F(Hub, ItsResetLeavesTheFaultOfAHoldThatIsOverAsItIs)
{
    fault({.kind = "hold-sda", .address = 0x80});
    EXPECT_EQ(outcome::sdaHeld, on->probe(0x80));
    EXPECT_EQ(outcome::done, on->planar->reset());
    resetLine(true);
    resetLine(false);
    EXPECT_EQ(outcome::sdaHeld, on->probe(0x80));
    machine->clearFaults();

    fault({.kind = "hold-scl", .address = 0x80, .lastsMs = 30});
    EXPECT_EQ(outcome::sclHeld, on->probe(0x80));
    on->idleMs(30);
    resetLine(true);
    resetLine(false);
    EXPECT_EQ(outcome::sclHeld, on->probe(0x80));
}

TEST_F(Hub, InResetItHoldsNothing)
{
    resetLine(true);
    fault({.kind = "hold-scl", .address = 0x80});
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
}

TEST_F(Hub, DeadHubStaysSilentWhateverIsReset)
{
    fault({.kind = "hub-silent", .address = 0x80});
    resetLine(true);
    resetLine(false);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
}

// A transaction that the hub has acknowledged goes through, whatever triggers the fault.
TEST_F(Hub, IsNeverSilentInsideATransaction)
{
    for (const char* kind : {"nack", "hub-silent"}) {
        for (const char* way : {"read", "write", ""}) {
            for (std::uint64_t nth = 1; nth < 4; ++nth) {
                SCOPED_TRACE(std::string{kind} + way + std::to_string(nth));
                machine->clearFaults();
                fault({.kind = kind, .address = 0x80, .way = way, .nth = nth, .count = 1});
                for (int i = 0; i < 4; ++i) {
                    const Answer got = on->readAt(0x80, riserAt10, 2);
                    EXPECT_TRUE(got.end == outcome::done ||
                                (got.end == outcome::addressNotAcknowledged && got.segment == 0));
                    EXPECT_EQ(got.end == outcome::done, std::cmp_not_equal(i + 1, nth));
                }
            }
        }
    }
}

TEST_F(Hub, NoFaultStrikesBetweenStatus0AndTheLastByte)
{
    write(riserAt10 + deadbeef);
    for (const char* kind : {"short", "corrupt", "arbitration", "hold-sda", "hold-scl"}) {
        for (std::uint64_t byte = 1; byte < 6; ++byte) {
            SCOPED_TRACE(std::string{kind} + std::to_string(byte));
            machine->clearFaults();
            fault({.kind = kind, .address = 0x80, .way = "read", .byte = byte});
            EXPECT_EQ(on->readAt(0x80, riserAt10, 5).data, Bytes{0} + deadbeef);
        }
    }
    EXPECT_EQ(0U, machine->faults().at(0).struck);
}

TEST_F(Hub, NoFaultStrikesInAJoinedSegmentAfterStatus0)
{
    write(riserAt10 + deadbeef);
    fault({.kind = "short", .address = 0x80, .way = "read", .byte = 3});
    Bytes header = riserAt10, first(1), data(4);
    segment parts[3] = {{0x80, direction::write, header, false},
                        {0x80, direction::read, first, false},
                        {0x80, direction::read, data, true}};
    EXPECT_EQ(outcome::done, on->run(parts, {}).end);
    EXPECT_EQ(data, deadbeef);
}

TEST_F(Hub, FaultsStrikeTheDataOfAFailedRead)
{
    fault({.kind = "short", .address = 0x80, .way = "read", .byte = 2});
    EXPECT_EQ(outcome::shortTransfer, on->readAt(0x80, {2, 0xA2, 0, 0}, 5).end);
}

TEST_F(Hub, ReadCutOffInItsStatusHoldsSda)
{
    write(riserAt10 + deadbeef);
    fault({.kind = "short", .address = 0x80, .way = "read", .count = 1});
    EXPECT_EQ(outcome::shortTransfer, on->readAt(0x80, riserAt10, 5).end);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::done, on->planar->reset());
    EXPECT_EQ(on->readAt(0x80, riserAt10, 5).data, Bytes{0} + deadbeef);
}

// A STOP in the middle of the status byte: it has not been read.
TEST_F(Hub, StatusOfAPlainReadThatIsCutOffStays)
{
    machine->powerCycle();
    fault({.kind = "short", .way = "read", .count = 1});
    EXPECT_EQ(outcome::shortTransfer, on->read(0x80, 1).end);
    EXPECT_EQ(15, status());
    EXPECT_EQ(0, status());
}

TEST_F(Hub, PlainReadWithoutBytesHoldsSdaAndKeepsTheStatus)
{
    machine->powerCycle();
    EXPECT_EQ(outcome::done, on->read(0x80, 0).end);
    EXPECT_EQ(outcome::sdaHeld, on->planar->lines());
    EXPECT_EQ(outcome::done, on->planar->reset());
    EXPECT_EQ(15, status());
}

TEST_F(Hub, CorruptionNeverMakesAStatus0)
{
    fault({.kind = "corrupt", .address = 0x80, .way = "read", .value = 2});
    // 2 ^ 2 would be 0
    EXPECT_EQ(on->readAt(0x80, {2, 0xA2, 0, 0}, 1).data, Bytes{2});
    machine->clearFaults();
    status();
    fault({.kind = "corrupt", .address = 0x80, .way = "read", .value = 4});
    EXPECT_EQ(on->readAt(0x80, riserAt10, 1).data, Bytes{4});
}

TEST_F(Hub, WriteCutOffIsNotPassedOn)
{
    fault({.kind = "short", .address = 0x80, .count = 1, .byte = 6});
    EXPECT_EQ(outcome::shortTransfer, on->write(0x80, riserAt10 + deadbeef).end);
    EXPECT_EQ(outcome::done, on->probe(0x80));
    EXPECT_EQ(0, status());
    EXPECT_EQ(home.content("riser.bin"), Bytes(16384, 0xFF));
}

TEST_F(Hub, RepeatedStartToItForgetsTheWrite)
{
    Bytes sent = riserAt10 + deadbeef, again{};
    segment parts[2] = {{0x80, direction::write, sent, false}, {0x80, direction::write, again, false}};
    EXPECT_EQ(outcome::done, on->run(parts, {}).end);
    EXPECT_EQ(home.content("riser.bin"), Bytes(16384, 0xFF));
}

TEST_F(Hub, ResetLineLowHoldsItSilentAndReleaseGivesStatus15)
{
    // status 2
    write({3, 0xA6, 0, 0, 1});
    resetLine(true);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    EXPECT_EQ("held in reset", meaning("planar 0x80 HUB922", "reset"));
    resetLine(false);
    // at once
    EXPECT_EQ(outcome::done, on->probe(0x80));
    EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{15, 0xFF}));
    EXPECT_EQ(15, status());
    EXPECT_EQ(0, status());
}

TEST_F(Hub, Status15StaysUntilAPlainReadLikeAnyOther)
{
    resetLine(true);
    resetLine(false);
    write(riserAt10 + deadbeef);
    EXPECT_EQ(home.content("riser.bin"), Bytes(16384, 0xFF));
    EXPECT_EQ(15, status());
}

TEST_F(Hub, ResetLineEndsHeldSubBusesAndBusyness)
{
    fault({.kind = "hub-hold-scl", .count = 1, .value = 100});
    write(riserAt10 + deadbeef);
    EXPECT_EQ(4, status());
    resetLine(true);
    resetLine(false);
    EXPECT_EQ(15, status());
    // not held any more
    EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{0, 0xFF}));
    on->write(0x80, riserAt10 + deadbeef);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    resetLine(true);
    resetLine(false);
    // not busy any more
    EXPECT_EQ(outcome::done, on->probe(0x80));
    EXPECT_EQ(15, status());
    on->idleMs(4);
    EXPECT_EQ(on->readAt(0x80, riserAt10, 2).data, (Bytes{0, 0xDE}));
}

TEST_F(Hub, OtherPinsDoNotResetIt)
{
    // pins 0-14 low
    on->write(0xC0, {0x16, 0x00, 0x00, 0x00, 0x40});
    EXPECT_EQ(outcome::done, on->probe(0x80));
    EXPECT_EQ(0, status());
}

TEST_F(Hub, BlinkingLowHoldsItInReset)
{
    // pin 15: blink 0
    on->write(0xC0, {0x09, 0x95});
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
}

// Each period begins with the pin low.
TEST_F(Hub, BlinkingHoldsItInResetAsAPeriodBeginsAtEveryDutyCycle)
{
    // pin 15: blink 0
    on->write(0xC0, {0x09, 0x95});
    for (const std::uint8_t duty : Bytes{0x00, 0x80, 0xFF}) {
        on->write(0xC0, {0x03, duty});
        EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80)) << +duty;
    }
    resetLine(false);
    EXPECT_EQ(15, status());
}

TEST_F(Hub, BlinkingWithPwm0HoldsItInResetAllTheTime)
{
    // PSC 43: 1 s; pin 15: blink 0
    on->write(0xC0, {0x12, 43, 0, 0, 0, 0x55, 0x55, 0x55, 0x95});
    for (int tenth = 0; tenth < 10; ++tenth) {
        EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80)) << tenth;
        on->idleMs(100);
    }
    EXPECT_EQ("held in reset", meaning("planar 0x80 HUB922", "reset"));
}

TEST_F(Hub, EachLowPartOfABlinkPeriodResetsIt)
{
    // 1 s, low for the first quarter; pin 15: blink 0
    on->write(0xC0, {0x12, 43, 0xC0, 0, 0, 0x55, 0x55, 0x55, 0x95});
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    on->idleMs(300);
    EXPECT_EQ(15, status());
    EXPECT_EQ(0, status());
    on->idleMs(600);
    EXPECT_EQ(0, status());
    on->idleMs(150);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    on->idleMs(250);
    EXPECT_EQ(15, status());
}

TEST_F(Hub, ALowPartThatPassesWhileTheBusIsIdleResetsItToo)
{
    power(chip("HUB922", "0x80") + chip("HUB922", "0x88") + chip("PCA9552", "0xC0"));
    on->write(0xC0, {0x12, 43, 0xC0, 0, 0, 0x55, 0x55, 0x55, 0x95});
    on->idleMs(300);
    EXPECT_EQ((Bytes{15}), on->read(0x80, 1).data);
    EXPECT_EQ((Bytes{15}), on->read(0x88, 1).data);
    on->idleMs(1000);
    EXPECT_EQ((Bytes{15}), on->read(0x80, 1).data);
    EXPECT_EQ((Bytes{15}), on->read(0x88, 1).data);
    on->idleMs(100);
    EXPECT_EQ((Bytes{0}), on->read(0x80, 1).data);
}

TEST_F(Hub, Pin15PulledLowFromOutsideHoldsItInReset)
{
    const std::string hub = chip("HUB922", "0x80");
    power(hub + chip("PCA9552", "0xC0", "inputs = 0x7FFF"));
    // in a machine just made
    EXPECT_EQ("held in reset", meaning("planar 0x80 HUB922", "reset"));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    machine->powerCycle();
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    // the output lets go, the other side does not
    resetLine(false);
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
    power(hub + chip("PCA9552", "0xC0"));
    EXPECT_EQ(15, status());
    power(hub + chip("PCA9552", "0xC0", "inputs = 0x7FFF"));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x80));
}

TEST_F(Hub, CommandAtARepeatedStart)
{
    // status 2
    write({3, 0xA6, 0, 0, 1});
    // done, and the read is a plain one
    EXPECT_EQ(on->readAt(0x80, {0x20, 0x06}, 2).data, (Bytes{0, 0xFF}));
    // unknown, and the plain read gives it
    EXPECT_EQ(on->readAt(0x80, {0x20, 0x08}, 1).data, Bytes{1});
    EXPECT_EQ(0, status());
    write({3, 0xA6, 0, 0, 1});
    Bytes command{0x20, 0x06}, none{};
    segment parts[2] = {{0x80, direction::write, command, false}, {0x80, direction::write, none, false}};
    EXPECT_EQ(outcome::done, on->run(parts, {}).end);
    // forgotten
    EXPECT_EQ(2, status());
}

TEST_F(Hub, ExpandersDriveTheirOwnTwoHubs)
{
    power(chip("HUB922", "0x80") + chip("HUB922", "0x82") + chip("HUB922", "0x88") + chip("HUB922", "0x8A") +
          chip("PCA9552", "0xC0") + chip("PCA9552", "0xC2"));
    const auto answering = [this] {
        Bytes there;
        for (const std::uint8_t hub : Bytes{0x80, 0x82, 0x88, 0x8A}) {
            if (on->probe(hub) == outcome::done) {
                there.push_back(hub);
            }
        }
        return there;
    };
    on->write(0xC0, {0x09, 0x15});
    EXPECT_EQ(answering(), (Bytes{0x82, 0x8A}));
    on->write(0xC0, {0x09, 0x55});
    on->write(0xC2, {0x09, 0x15});
    EXPECT_EQ(answering(), (Bytes{0x80, 0x88}));
    on->write(0xC2, {0x09, 0x55});
    EXPECT_EQ(on->read(0x88, 1).data, Bytes{15});
    EXPECT_EQ(on->read(0x8A, 1).data, Bytes{15});
}

TEST_F(Hub, PowerCycleBringsItOutOfReset)
{
    resetLine(true);
    machine->powerCycle();
    EXPECT_EQ(15, status());
}

TEST_F(Hub, HoldsSclWhileItFetches)
{
    const std::uint64_t before = on->planar->busTimeNs();
    const std::uint64_t after = on->readAt(0x80, riserAt10, 3).busTimeNs;
    // Main bus: 2 STARTs, 2 addresses, 4 + 3 bytes, STOP: 84 bits. Sub-bus: 2 STARTs, 2 addresses, 2
    // offset bytes, 2 data bytes: 56. Each repeated START takes 1 us more than a START.
    EXPECT_EQ((84U + 56U) * 2500U + 2 * 1000U, after - before);
}

TEST_F(Hub, StateOutlivesTheProcess)
{
    write({9, 0xA2, 0, 0});
    on.reset();
    machine.reset();
    open();
    EXPECT_EQ(7, status());
}

TEST_F(Hub, ListedWithItsStatusAndTheChipsBehindIt)
{
    write({9, 0xA2, 0, 0});
    EXPECT_EQ(7U, value("planar 0x80 HUB922", "STATUS"));
    EXPECT_EQ("no such port", meaning("planar 0x80 HUB922", "STATUS"));
    EXPECT_EQ("21.0000 C", meaning("planar 0x80 port 7 0x90 LM75", "TEMP"));
    int behind = 0;
    for (const auto& chip : machine->chips()) {
        if (chip.behindHub) {
            EXPECT_EQ(0x80, chip.hubAddress);
            ++behind;
        }
    }
    EXPECT_EQ(3, behind);
}

} // namespace
} // namespace kest::sim::test
