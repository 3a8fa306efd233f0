/// Configuration items and the configuration block.
#include <algorithm>

#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

using IicConfig = IicMachine;

TEST_F(IicConfig, ItemsTakeTheirSizeAndDirectionsOnly)
{
    struct {
        unsigned int item;
        unsigned int size;
        bool readable;
        bool settable;
    } const items[] = {{2, 4, true, true},   {3, 4, true, true},   {15, 4, true, false}, {16, 4, true, true},
                       {17, 8, false, true}, {18, 8, false, true}, {19, 44, true, true}};
    OpenDevice device("sim:planar@A0");
    for (unsigned int item = 0; item < 64; ++item) {
        const auto* row = std::ranges::find_if(items, [item](const auto& each) { return each.item == item; });
        for (const int direction : {-1, 0, 1, 2, 3}) {
            for (const unsigned int size : {0U, 1U, 2U, 3U, 4U, 5U, 7U, 8U, 9U, 43U, 44U, 45U, 100U, 0xFFFFFFFFU}) {
                Bytes value = size == 8 ? registerLock(0xC0, 0) : size == 44 ? Block{}.raw() : Bytes(100);
                const bool allowed = row != std::end(items) && row->size == size &&
                                     ((direction == 1 && row->readable) || (direction == 2 && row->settable));
                if (size == 4) {
                    // an address in either byte order
                    value[0] = value[3] = 0xA0;
                    value[std::endian::native == std::endian::little ? 3 : 0] = 0;
                }
                const Answer result = device.config(direction, item, value.data(), size);
                EXPECT_EQ(allowed ? (Answer{0, 0}) : (Answer{-1, EINVAL}), result)
                    << "item " << item << " direction " << direction << " size " << size;
            }
        }
    }
}

TEST_F(IicConfig, NullValueIsAFault)
{
    OpenDevice device("sim:planar@A0");
    EXPECT_EQ((Answer{-1, EFAULT}), device.config(1, 2, nullptr, 4));
    EXPECT_EQ((Answer{-1, EFAULT}), device.config(2, 19, nullptr, 44));
    EXPECT_EQ((Answer{-1, EFAULT}), device.config(2, 17, nullptr, 8));
}

TEST_F(IicConfig, BlockIsGivenBackAsItWasSet)
{
    OpenDevice device("sim:planar");
    Bytes raw = Block{.speedKhz = 100, .address = 0xA0, .offsetLength = 2, .timeoutMs = 77, .pageSize = 64}.raw();
    for (const std::size_t unlisted : {6U, 7U, 8U, 11U, 16U, 19U, 22U, 23U, 28U, 31U, 32U, 35U, 36U, 39U}) {
        // ignored and kept
        raw[unlisted] = static_cast<std::uint8_t>(0x80 + unlisted);
    }
    EXPECT_EQ((Answer{0, 0}), device.config(2, 19, raw.data(), 44));
    Bytes back(44);
    EXPECT_EQ((Answer{0, 0}), device.config(1, 19, back.data(), 44));
    EXPECT_EQ(raw, back);
    EXPECT_EQ(0xA0U, device.number(3));
}

TEST_F(IicConfig, BlockWithAFieldOutOfItsRangeChangesNothing)
{
    OpenDevice device("sim:planar");
    const Block good{.address = 0xA0, .offsetLength = 2, .pageSize = 64};
    device.set(good);
    const Block wrong[] = {{.address = 0xA1},   {.address = 0x100},   {.address = 0x1A0},
                           {.address = 0xFFFF}, {.offsetLength = 5},  {.offsetLength = 0xFFFF},
                           {.pageSize = 3},     {.pageSize = 48},     {.pageSize = 0xFFFFFFFFU},
                           {.pageSize = 65},    {.offsetLength = 256}};
    for (const Block& each : wrong) {
        EXPECT_EQ((Answer{-1, EINVAL}), device.set(each))
            << each.address << " " << each.offsetLength << " " << each.pageSize;
        Bytes back(44);
        device.config(1, 19, back.data(), 44);
        EXPECT_EQ(good.raw(), back);
    }
    for (const std::uint32_t page : {0U, 1U, 2U, 8U, 0x80000000U}) {
        EXPECT_EQ((Answer{0, 0}), device.set({.pageSize = page})) << page;
    }
}

TEST_F(IicConfig, SpeedOfItemTwoOutlastsLaterBlocks)
{
    OpenDevice device("sim:planar");
    EXPECT_EQ(0U, device.number(2));
    device.set({.speedKhz = 400, .address = 0xA0});
    // the block's value, until item 2 is set
    EXPECT_EQ(400U, device.number(2));
    EXPECT_EQ((Answer{0, 0}), device.setNumber(2, 100));
    device.set({.speedKhz = 400, .address = 0xA0});
    EXPECT_EQ(100U, device.number(2));
    for (const std::uint32_t any : {0U, 1U, 123456U, 0xFFFFFFFFU}) {
        EXPECT_EQ((Answer{0, 0}), device.setNumber(2, any));
        EXPECT_EQ(any, device.number(2));
        // accepted on every bus, and without effect
        device.readAll(1);
    }
}

TEST_F(IicConfig, SpeedIsTheClockOfTheBus)
{
    OpenDevice device("sim:planar@A0");
    device.setNumber(2, 100);
    const auto before = wires->busTimeNs();
    device.readAll(9);
    // START, address, nine bytes, STOP: 92 bits of 10 us; and nothing else
    EXPECT_EQ(920'000U, wires->busTimeNs() - before);
}

TEST_F(IicConfig, TargetAddress)
{
    OpenDevice device("sim:planar@90");
    // no block in force
    EXPECT_EQ((Answer{0, 0}), device.setNumber(3, 0xC0));
    EXPECT_EQ(0xC0U, device.number(3));
    EXPECT_EQ((Answer{-1, EINVAL}), device.setNumber(3, 0xC1));
    EXPECT_EQ((Answer{-1, EINVAL}), device.setNumber(3, 0x100));
    EXPECT_EQ((Answer{-1, EINVAL}), device.setNumber(3, 0xFFFFFFC0U));
    device.set({.address = 0});
    // a block without an address replaces none
    EXPECT_EQ(0xC0U, device.number(3));
    device.set({.address = 0x80});
    EXPECT_EQ(0x80U, device.number(3));
    // behind a hub
    EXPECT_EQ((Answer{-1, ENOSYS}), device.setNumber(3, 0xC0));
    EXPECT_EQ((Answer{0, 0}), device.setNumber(3, 0x80));
    EXPECT_EQ(0x80U, device.number(3));
    device.set({.address = 0});
    EXPECT_EQ((Answer{0, 0}), device.setNumber(3, 0xC0));
}

TEST_F(IicConfig, WithoutATargetTransfersAndDetectionAreInvalid)
{
    OpenDevice device("sim:planar");
    Bytes data(4);
    std::uint32_t state = 0;
    const auto before = wires->busTimeNs();
    EXPECT_EQ((Answer{0, EINVAL}), device.read(data));
    EXPECT_EQ((Answer{0, EINVAL}), device.write(data));
    EXPECT_EQ((Answer{-1, EINVAL}), device.config(1, 15, &state, 4));
    // nothing ever goes to address 0
    EXPECT_EQ(before, wires->busTimeNs());
}

TEST_F(IicConfig, DmaOptionIsRemembered)
{
    OpenDevice device("sim:planar");
    EXPECT_EQ(0U, device.number(16));
    device.setNumber(16, 2);
    EXPECT_EQ(2U, device.number(16));
}

TEST_F(IicConfig, DetectStates)
{
    OpenDevice device("sim:planar@A0");
    EXPECT_EQ(3U, device.number(15));
    OpenDevice absent("sim:planar@AE");
    EXPECT_EQ(0U, absent.number(15));
    struct {
        const char* kind;
        std::uint32_t state;
    } const faults[] = {{"nack", 0}, {"hold-scl", 1}, {"hold-sda", 2}, {"arbitration", 4}, {"gone", 4}};
    for (const auto& each : faults) {
        const auto number = machine->addFault({.kind = each.kind, .bus = "planar"});
        EXPECT_EQ(each.state, device.number(15)) << each.kind;
        machine->clearFault(number);
        wires->reset();
    }
    EXPECT_EQ(3U, device.number(15));
}

TEST_F(IicConfig, DetectionWaitsForABusyChipAsLongAsByteFortyAndFiftyMillisecondsAllow)
{
    OpenDevice device("sim:planar@A0");
    // without a wait for the end of its cycle
    const auto writesOnePage = [this] {
        Bytes page{0, 0, 0x55};
        sim::segment whole{.address = 0xA0, .way = sim::direction::write, .bytes = page};
        ASSERT_EQ(sim::outcome::done, wires->transfer({&whole, 1}, 0).end);
    };
    writesOnePage();
    // 3.5 ms
    EXPECT_EQ(3U, device.number(15));
    writesOnePage();
    device.set({.busyWaitMs = 2});
    EXPECT_EQ(0U, device.number(15));
    settle();
    machine->addFault({.kind = "nack", .bus = "planar"});
    device.set({.busyWaitMs = 1000});
    const double before = busMs();
    EXPECT_EQ(0U, device.number(15));
    EXPECT_NEAR(50.0, busMs() - before, 5.0);
}

TEST_F(IicConfig, ResetAndConfigurationLeavePositionAndTargetAlone)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    device.seek(1000);
    device.set(main256());
    device.setNumber(2, 400);
    device.setNumber(16, 2);
    EXPECT_EQ((Answer{0, 0}), device.reset());
    EXPECT_EQ(0xA0U, device.number(3));
    EXPECT_EQ(part(pattern(32768, 1), 1000, 4), device.readAll(4));
}

} // namespace
} // namespace kest::test
