/// Transfers on a simulated bus: positions, pieces, pages, busy devices, hubs.
#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

using IicTransfer = IicMachine;

TEST_F(IicTransfer, PositionStartsAtZeroAndMovesOnByWholeTransfers)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    EXPECT_EQ(part(pattern(32768, 1), 0, 10), device.readAll(10));
    EXPECT_EQ(part(pattern(32768, 1), 10, 10), device.readAll(10));
    // the position is not changed
    EXPECT_EQ((Answer{0, 0}), device.seek(5000));
    EXPECT_EQ((Answer{3, 0}), device.write({1, 2, 3}));
    EXPECT_EQ(part(pattern(32768, 1), 5003, 5), device.readAll(5));
}

TEST_F(IicTransfer, FailedShortAndPlainTransfersLeaveThePosition)
{
    OpenDevice device("sim:planar");
    Bytes data(100);
    device.set(main256());
    device.seek(300);
    machine->addFault({.kind = "short", .bus = "planar", .way = "read", .count = 1, .byte = 40});
    EXPECT_EQ((Answer{40, EIO}), device.read(data));
    machine->addFault({.kind = "hold-sda", .bus = "planar", .count = 1});
    EXPECT_EQ((Answer{0, ETIME}), device.read(data));
    EXPECT_EQ((Answer{0, 0}), device.reset());
    Block plain = main256();
    plain.offsetLength = 0;
    device.set(plain);
    EXPECT_EQ((Answer{100, 0}), device.read(data));
    device.set(main256());
    EXPECT_EQ(part(pattern(32768, 1), 300, 100), device.readAll(100));
}

TEST_F(IicTransfer, SeekTakesTheLowThirtyTwoBitsAndWhenceZero)
{
    OpenDevice device("sim:planar");
    device.set(hub128());
    // the top bit is not a sign
    EXPECT_EQ((Answer{0, 0}), device.seek(static_cast<long>(0x83A20010U)));
    EXPECT_EQ((Answer{0, 0}), device.seek(-1));
    for (const int whence : {1, 2, -1, 3}) {
        errno = 0;
        EXPECT_EQ(-1, mern_iic_seek(device.handle(), 0, whence));
        EXPECT_EQ(EINVAL, errno);
    }
    if (sizeof(long) > 4) {
        EXPECT_EQ((Answer{0, 0}), device.seek(static_cast<long>(0x1200000064ULL)));
        device.set(main256());
        EXPECT_EQ(part(pattern(32768, 1), 0x64, 4), device.readAll(4));
    }
}

TEST_F(IicTransfer, LengthZeroReturnsZeroAndTouchesNothing)
{
    // not even a target
    OpenDevice device("sim:planar");
    const auto before = wires->busTimeNs();
    errno = 7;
    EXPECT_EQ(0, mern_iic_read(device.handle(), nullptr, 0));
    EXPECT_EQ(0, mern_iic_write(device.handle(), nullptr, 0));
    EXPECT_EQ(7, errno);
    EXPECT_EQ(before, wires->busTimeNs());
}

TEST_F(IicTransfer, NullBufferIsAFault)
{
    OpenDevice device("sim:planar@A0");
    errno = 0;
    EXPECT_EQ(0, mern_iic_read(device.handle(), nullptr, 1));
    EXPECT_EQ(EFAULT, errno);
    errno = 0;
    EXPECT_EQ(0, mern_iic_write(device.handle(), nullptr, 1));
    EXPECT_EQ(EFAULT, errno);
}

TEST_F(IicTransfer, LengthThatNoResultCanHoldIsInvalid)
{
    OpenDevice device("sim:planar");
    std::uint8_t byte = 0;
    device.set(main256());
    errno = 0;
    EXPECT_EQ(0, mern_iic_read(device.handle(), &byte, 0x80000000U));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(0, mern_iic_write(device.handle(), &byte, 0xFFFFFFFFU));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(IicTransfer, OffsetsOfOneAndTwoBytes)
{
    OpenDevice small("sim:planar");
    small.set(small02());
    small.seek(0x7F);
    EXPECT_EQ(part(pattern(256, 2), 0x7F, 20), small.readAll(20));
    OpenDevice large("sim:planar");
    large.set({.address = 0xA4, .offsetLength = 2, .pageSize = 128});
    EXPECT_EQ(pattern(65536, 3), large.readAll(65536));
}

TEST_F(IicTransfer, TransactionOfALongReadTakesAQuarterOfASecondAtTheSpeedOfTheBus)
{
    struct {
        std::uint16_t speedKhz;
        int firstPiece;
        double milliseconds;
    } const cases[] = {{100, 2773, 249.965}, {0, 11105, 249.987}, {400, 11105, 249.987}, {5000, 27769, 249.9916}};
    for (const auto& each : cases) {
        OpenDevice device("sim:planar");
        Bytes data(60000);
        device.set({.speedKhz = each.speedKhz, .address = 0xA4, .offsetLength = 2, .pageSize = 128});
        machine->addFault({.kind = "gone", .bus = "planar", .nth = 2, .count = 1});
        const double before = busMs();
        EXPECT_EQ((Answer{each.firstPiece, ENODEV}), device.read(data)) << each.speedKhz;
        EXPECT_NEAR(each.milliseconds, busMs() - before, 0.0001) << each.speedKhz;
        machine->clearFaults();
        EXPECT_EQ((Answer{60000, 0}), device.read(data));
        EXPECT_EQ(part(pattern(65536, 3), 0, 60000), data);
    }
}

TEST_F(IicTransfer, PositionOrEndBeyondTheOffsetIsInvalidWithNothingSent)
{
    struct {
        Block settings;
        long position;
        std::size_t length;
        bool readToo; ///< whether a read is refused, too
    } const cases[] = {
        {small02(), 0x100, 1, true},   {small02(), 0xFF, 2, false},        {small02(), 0, 257, false},
        {main256(), 0x10000, 1, true}, {main256(), 0xFFFF, 2, false},      {main256(), 0x12345678, 1, true},
        {main256(), -1, 1, true},      {hub02(), onCard + 0xFF, 2, false}, {hub128(), onRiser + 0xFFFF, 2, false}};
    for (const auto& each : cases) {
        OpenDevice device("sim:planar");
        device.set(each.settings);
        device.seek(each.position);
        const auto before = wires->busTimeNs();
        Bytes data(each.length);
        EXPECT_EQ((Answer{0, EINVAL}), device.write(data)) << each.position;
        EXPECT_EQ(before, wires->busTimeNs());
        if (each.readToo) {
            EXPECT_EQ((Answer{0, EINVAL}), device.read(data)) << each.position;
            EXPECT_EQ(before, wires->busTimeNs());
        }
    }
}

TEST_F(IicTransfer, ReadsRollOverAsTheChipDoes)
{
    OpenDevice device("sim:planar");
    device.set(small02());
    device.seek(250);
    const Bytes all = pattern(256, 2);
    Bytes expected = part(all, 250, 6);
    expected.insert(expected.end(), all.begin(), all.begin() + 14);
    EXPECT_EQ(expected, device.readAll(20));
    Bytes data(1);
    // the position is past the end: no write at the start
    EXPECT_EQ((Answer{0, EINVAL}), device.write(data));
}

TEST_F(IicTransfer, WritesAreSplitAtPages)
{
    OpenDevice device("sim:planar");
    const Bytes data = pattern(1000, 9);
    device.set(main256());
    device.seek(61);
    EXPECT_EQ((Answer{1000, 0}), device.write(data));
    EXPECT_EQ(with(pattern(32768, 1), 61, data), image("main.bin"));
    OpenDevice small("sim:planar");
    small.set(small02());
    EXPECT_EQ((Answer{256, 0}), small.write(pattern(256, 8)));
    EXPECT_EQ(pattern(256, 8), image("small.bin"));
}

TEST_F(IicTransfer, WithoutAPageSizeAWriteIsOneMessage)
{
    OpenDevice device("sim:planar");
    Block values = main256();
    values.pageSize = 0;
    device.set(values);
    EXPECT_EQ((Answer{80, 0}), device.write(pattern(80, 9)));
    // The chip wrapped round in its page of 64: this is the effect of a wrong page size.
    const Bytes data = pattern(80, 9);
    EXPECT_EQ(part(data, 64, 16), part(image("main.bin"), 0, 16));
    EXPECT_EQ(part(data, 16, 48), part(image("main.bin"), 16, 48));
    EXPECT_EQ(part(pattern(32768, 1), 64, 64), part(image("main.bin"), 64, 64));
}

TEST_F(IicTransfer, PlainTransfers)
{
    OpenDevice device("sim:planar@C0");
    // a prescaler
    EXPECT_EQ((Answer{2, 0}), device.write({0x02, 0x4B}));
    EXPECT_EQ((Answer{1, 0}), device.write({0x02}));
    EXPECT_EQ((Bytes{0x4B}), device.readAll(1));
    Bytes tooLong(8193);
    const auto before = wires->busTimeNs();
    EXPECT_EQ((Answer{0, EINVAL}), device.read(tooLong));
    EXPECT_EQ((Answer{0, EINVAL}), device.write(tooLong));
    EXPECT_EQ(before, wires->busTimeNs());
}

TEST_F(IicTransfer, WriteCycleIsOverWhenAWriteIsDone)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    EXPECT_EQ((Answer{10, 0}), device.write(pattern(10)));
    EXPECT_EQ(sim::outcome::done, wires->probe(0xA0, 0).end);
}

TEST_F(IicTransfer, BusyIsNotAbsent)
{
    Bytes page{0, 0, 0x55};
    sim::segment whole{.address = 0xA0, .way = sim::direction::write, .bytes = page};
    OpenDevice device("sim:planar");
    device.set(main256());
    // a write by another process, whose cycle begins now
    wires->transfer({&whole, 1}, 0);
    EXPECT_EQ((Bytes{0x55}), device.readAll(1));
    wires->transfer({&whole, 1}, 0);
    EXPECT_EQ((Answer{1, 0}), device.write({0x66}));
    EXPECT_EQ(0x66, image("main.bin")[1]);
}

TEST_F(IicTransfer, AbsentIsReportedAfterFiftyMillisecondsOfBusTimeOrByteForty)
{
    struct {
        std::uint32_t busyWaitMs;
        double waitedMs;
    } const cases[] = {{1000, 50}, {50, 50}, {20, 20}, {0, 0}};
    for (const auto& each : cases) {
        OpenDevice device("sim:planar");
        Bytes data(4);
        device.set({.address = 0xAE, .offsetLength = 2, .busyWaitMs = each.busyWaitMs});
        double before = busMs();
        EXPECT_EQ((Answer{0, ENXIO}), device.read(data));
        EXPECT_NEAR(each.waitedMs, busMs() - before, 0.1 + each.waitedMs / 10);
        before = busMs();
        EXPECT_EQ((Answer{0, ENXIO}), device.write(data));
        EXPECT_NEAR(each.waitedMs, busMs() - before, 0.1 + each.waitedMs / 10);
    }
}

TEST_F(IicTransfer, EndlessWriteCycleIsReportedAfterFourOfThemButAtLeastFiftyMilliseconds)
{
    struct {
        std::uint16_t promisedMs;
        double waitedMs;
    } const cases[] = {{0, 50}, {5, 50}, {13, 52}, {25, 100}};
    for (const auto& each : cases) {
        OpenDevice device("sim:planar");
        Block values = main256();
        values.writeCycleMs = each.promisedMs;
        device.set(values);
        const auto fault = machine->addFault({.kind = "stuck-write-cycle", .bus = "planar", .nth = 2, .count = 1});
        const double before = busMs();
        // of the second page
        EXPECT_EQ((Answer{64, ETIME}), device.write(pattern(192, 9)));
        EXPECT_NEAR(each.waitedMs + 6.5, busMs() - before, each.waitedMs / 10);
        EXPECT_EQ((Answer{0, ENXIO}), device.write({1}));
        machine->clearFault(fault);
    }
}

TEST_F(IicTransfer, TimeOutOfTheTransferIsBusTime)
{
    OpenDevice device("sim:planar");
    Block values = main256();
    values.timeoutMs = 12;
    device.set(values);
    // two pages of 5 ms are done, a third is sent
    EXPECT_EQ((Answer{192, ETIME}), device.write(pattern(640, 9)));
    EXPECT_EQ(with(pattern(32768, 1), 0, part(pattern(640, 9), 0, 192)), image("main.bin"));
    settle();
    // the same bytes at the same position again
    EXPECT_EQ((Answer{192, ETIME}), device.write(pattern(640, 8)));
    EXPECT_EQ(with(pattern(32768, 1), 0, part(pattern(640, 8), 0, 192)), image("main.bin"));
}

TEST_F(IicTransfer, ProtectedChipsRefusedDataIsAnError)
{
    OpenDevice device("sim:planar");
    device.set({.address = 0xAA, .offsetLength = 2, .pageSize = 32});
    EXPECT_EQ((Answer{0, EIO}), device.write({1, 2, 3}));
    EXPECT_EQ(pattern(4096, 4), image("protected.bin"));
    EXPECT_EQ(pattern(16, 4), device.readAll(16));
}

TEST_F(IicTransfer, ArbitrationIsTriedAgainWithinByteForty)
{
    OpenDevice device("sim:planar");
    Bytes data(4);
    device.set(main256());
    machine->addFault({.kind = "arbitration", .bus = "planar", .count = 5});
    EXPECT_EQ((Answer{4, 0}), device.read(data));
    machine->addFault({.kind = "arbitration", .bus = "planar", .way = "write", .count = 3, .byte = 5});
    // lost in the middle of a page
    EXPECT_EQ((Answer{70, 0}), device.write(pattern(70, 9)));
    EXPECT_EQ(with(pattern(32768, 1), 4, pattern(70, 9)), image("main.bin"));
    const auto lasting = machine->addFault({.kind = "arbitration", .bus = "planar"});
    Block values = main256();
    values.busyWaitMs = 30;
    device.set(values);
    const double before = busMs();
    EXPECT_EQ((Answer{0, EIO}), device.read(data));
    EXPECT_NEAR(30.0, busMs() - before, 11.0);
    machine->clearFault(lasting);
}

// Through a hub: port, device address and offset precede the data, a status byte precedes what is read.

TEST_F(IicTransfer, HubReadDeliversOneStatusByteAndTheData)
{
    OpenDevice device("sim:planar");
    device.set(hub128());
    device.seek(onRiser + 100);
    // two pieces
    const Bytes data = device.readAll(1 + 12000);
    EXPECT_EQ(0, data[0]);
    EXPECT_EQ(part(pattern(16384, 5), 100, 12000), part(data, 1, 12000));
    device.set(hub02());
    device.seek(onCard + 0x10);
    EXPECT_EQ(part(pattern(256, 6), 0x10, 32), part(device.readAll(33), 1, 32));
}

TEST_F(IicTransfer, HubReadOfTheStatusAlone)
{
    OpenDevice device("sim:planar");
    device.set(hub128());
    device.seek(onRiser);
    EXPECT_EQ((Bytes{0}), device.readAll(1));
}

TEST_F(IicTransfer, HubReadCountsOnlyItsOffsetUp)
{
    OpenDevice device("sim:planar");
    device.set(hub02());
    device.seek(onCard + 0xF0);
    const Bytes all = pattern(256, 6);
    Bytes expected = part(all, 0xF0, 16);
    expected.insert(expected.end(), all.begin(), all.begin() + 16);
    // it rolls over in the chip, not into the device's address
    EXPECT_EQ(expected, part(device.readAll(33), 1, 32));
}

TEST_F(IicTransfer, HubWriteIsSplitAtPagesWithTheFullOffset)
{
    OpenDevice device("sim:planar");
    const Bytes data = pattern(500, 9);
    device.set(hub128());
    device.seek(onRiser + 0x7E);
    EXPECT_EQ((Answer{500, 0}), device.write(data));
    EXPECT_EQ(with(pattern(16384, 5), 0x7E, data), image("riser.bin"));
    device.set(hub02());
    device.seek(onCard);
    EXPECT_EQ((Answer{256, 0}), device.write(pattern(256, 8)));
    EXPECT_EQ(pattern(256, 8), image("card.bin"));
    device.set({.address = 0x80});
    // the hub's status after all this
    EXPECT_EQ((Bytes{0}), device.readAll(1));
}

TEST_F(IicTransfer, HubTakesNoMoreThanItsBufferAtOnce)
{
    OpenDevice device("sim:planar");
    Block values = hub128();
    values.pageSize = 0;
    device.set(values);
    device.seek(onRiser);
    EXPECT_EQ((Answer{1000, 0}), device.write(Bytes(1000, 0xEE)));
    device.set({.address = 0x80});
    // not 8: too long
    EXPECT_EQ((Bytes{0}), device.readAll(1));
}

TEST_F(IicTransfer, FirstByteOtherThanZeroFromAHubIsNoData)
{
    OpenDevice device("sim:planar");
    device.set(hub128());
    // no device at that address on the bus of port 7
    device.seek(0x07A20000L);
    Bytes data(17, 0x11);
    EXPECT_EQ((Answer{0, ENODATA}), device.read(data));
    // the device did not acknowledge
    EXPECT_EQ(2, data[0]);
    device.set({.address = 0x80});
    EXPECT_EQ((Bytes{2}), device.readAll(1));
    device.set(hub128());
    device.seek(onRiser);
    // the handle is as usable as before
    EXPECT_EQ(part(pattern(16384, 5), 0, 16), part(device.readAll(17), 1, 16));
}

TEST_F(IicTransfer, BusyHubIsWaitedFor)
{
    OpenDevice device("sim:planar");
    device.set(hub128());
    device.seek(onRiser);
    EXPECT_EQ((Answer{8, 0}), device.write(pattern(8, 9)));
    // without probes: it must acknowledge now
    device.set({.address = 0x80, .busyWaitMs = 0});
    EXPECT_EQ((Bytes{0}), device.readAll(1));
}

} // namespace
} // namespace kest::test
