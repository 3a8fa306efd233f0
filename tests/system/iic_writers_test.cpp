/// Several handles that write pages to one chip, and others that meet its silence meanwhile.
#include <functional>

#include "platform/host/iic/bus_sim.h"
#include "platform/host/iic/locks.h"
#include "tests/system/iic_clock.h"
#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

class IicWriters : public IicMachine
{
protected:
    explicit IicWriters(double writeCycleMs = 3.5) : IicMachine(writeCycleMs)
    {
        EXPECT_EQ(0, host::iic::openSimulatedBus(folder(), false, "planar", "", m_bus));
        other = std::make_unique<host::iic::addressLocks>(m_bus->identity());
    }
    static Block impatient(Block values, std::uint32_t timeoutMs)
    {
        values.timeoutMs = timeoutMs;
        return values;
    }

    /// Another handle, which can be stopped in the middle of a write.
    std::unique_ptr<host::iic::addressLocks> other;

private:
    std::shared_ptr<host::iic::bus> m_bus;
};

class IicWritersOfASlowChip : public IicWriters
{
protected:
    IicWritersOfASlowChip() : IicWriters(200) {}
};

TEST_F(IicWriters, WriteWaitsForItsTimeOutAndSendsNothing)
{
    OpenDevice device("sim:planar");
    device.set(impatient(main256(), 30));
    ASSERT_TRUE(other->beginWrite(0xA0, std::chrono::milliseconds(0)));
    const auto busTime = wires->busTimeNs();
    DrivenClock clock;
    EXPECT_EQ((Answer{0, ETIME}), device.write({1, 2, 3, 4}));
    EXPECT_EQ(300, clock.pauses);
    EXPECT_EQ(busTime, wires->busTimeNs());
    EXPECT_NE(std::string::npos, device.firstFailure().find("\"silence\":\"other writer\""));
    EXPECT_EQ(pattern(32768, 1), image("main.bin"));
}

TEST_F(IicWriters, WriteGoesOnWhenTheOtherIsDone)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    ASSERT_TRUE(other->beginWrite(0xA0, std::chrono::milliseconds(0)));
    DrivenClock clock;
    clock.inPause = [this](int pauses) {
        if (pauses == 3) {
            other->endWrite();
        }
    };
    EXPECT_EQ((Answer{4, 0}), device.write({1, 2, 3, 4}));
    EXPECT_EQ(3, clock.pauses);
    settle();
    EXPECT_EQ(with(pattern(32768, 1), 0, {1, 2, 3, 4}), image("main.bin"));
    EXPECT_TRUE(other->beginWrite(0xA0, std::chrono::milliseconds(0))) << "nothing is held between calls";
}

TEST_F(IicWriters, WritersToOtherChipsAndHoldersOfAdvisoryLocksAreNotInTheWay)
{
    OpenDevice device("sim:planar");
    OpenDevice holder("sim:planar");
    Bytes record = registerLock(0xA0, 0);
    const DrivenClock clock;
    device.set(main256());
    ASSERT_TRUE(other->beginWrite(0xA8, std::chrono::milliseconds(0)));
    EXPECT_EQ((Answer{0, 0}), holder.config(2, 17, record.data(), 8));
    EXPECT_EQ((Answer{4, 0}), device.write({1, 2, 3, 4}));
    EXPECT_EQ(0, clock.pauses);
}

TEST_F(IicWriters, ReadsAndWritesWithoutPagesDoNotWait)
{
    OpenDevice device("sim:planar");
    const DrivenClock clock;
    Block noPages = main256();
    noPages.pageSize = 0;
    device.set(noPages);
    ASSERT_TRUE(other->beginWrite(0xA0, std::chrono::milliseconds(0)));
    EXPECT_EQ((Answer{4, 0}), device.write({1, 2, 3, 4}));
    EXPECT_EQ(4U, device.readAll(4).size());
    EXPECT_EQ(0, clock.pauses);
}

TEST_F(IicWriters, HubIsTheTargetOfWhatIsBehindIt)
{
    OpenDevice device("sim:planar");
    device.set(impatient(hub128(), 10));
    device.seek(onRiser);
    ASSERT_TRUE(other->beginWrite(0x80, std::chrono::milliseconds(0)));
    const DrivenClock clock;
    EXPECT_EQ((Answer{0, ETIME}), device.write({1, 2, 3, 4}));
    EXPECT_EQ(pattern(16384, 5), image("riser.bin"));
}

TEST_F(IicWriters, WithoutALockFileItIsWrittenWithout)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    std::filesystem::create_directory(folder() / "iic.planar.lock");
    EXPECT_EQ((Answer{4, 0}), device.write({1, 2, 3, 4}));
}

TEST_F(IicWriters, MalformedWriteFailsWithoutWaiting)
{
    OpenDevice device("sim:planar");
    device.set(small02());
    device.seek(254);
    ASSERT_TRUE(other->beginWrite(0xA8, std::chrono::milliseconds(0)));
    const DrivenClock clock;
    EXPECT_EQ((Answer{0, EINVAL}), device.write({1, 2, 3, 4}));
    EXPECT_EQ(0, clock.pauses);
}

// There is no chip at AE. The layer can't distinguish this from a chip with a long write cycle.
TEST_F(IicWriters, SilenceBesideAnotherWriterIsBusyAndNotAbsent)
{
    OpenDevice device("sim:planar@AE");
    Bytes data(4);
    Block values{.address = 0xAE, .offsetLength = 2, .timeoutMs = 300, .busyWaitMs = 0};
    device.set(values);
    EXPECT_EQ((Answer{0, ENXIO}), device.read(data));
    EXPECT_EQ(0U, device.number(15));
    ASSERT_TRUE(other->beginWrite(0xAE, std::chrono::milliseconds(0)));
    const double before = busMs();
    EXPECT_EQ((Answer{0, ETIME}), device.read(data));
    // bus time passes with the test's own probes
    EXPECT_NEAR(300.0, busMs() - before, 30.0);
    EXPECT_EQ((Answer{0, ETIME}), device.write({1}));
    EXPECT_EQ(4U, device.number(15));
    other->endWrite();
    EXPECT_EQ((Answer{0, ENXIO}), device.read(data));
    EXPECT_EQ(0U, device.number(15));
}

TEST_F(IicWriters, AnotherThatNeverEndsIsNotWaitedForWithoutEnd)
{
    OpenDevice device("sim:planar@AE");
    Bytes data(4);
    device.set({.address = 0xAE, .offsetLength = 2});
    ASSERT_TRUE(other->beginWrite(0xAE, std::chrono::milliseconds(0)));
    const double before = busMs();
    EXPECT_EQ((Answer{0, ETIME}), device.read(data));
    EXPECT_NEAR(10'000.0, busMs() - before, 100.0);
}

TEST_F(IicWritersOfASlowChip, ReadWaitsOnWhileAnotherWritesAPage)
{
    OpenDevice writer("sim:planar@A0");
    OpenDevice reader("sim:planar");
    reader.set(impatient(main256(), 1000));
    // sends a page and does not wait
    writer.set({.address = 0xA0, .writeCycleMs = 0});
    EXPECT_EQ((Answer{3, 0}), writer.write({0, 0, 0x5A}));
    ASSERT_TRUE(other->beginWrite(0xA0, std::chrono::milliseconds(0)));
    Bytes data(2);
    EXPECT_EQ((Answer{2, 0}), reader.read(data));
    EXPECT_EQ((Bytes{0x5A, pattern(32768, 1)[1]}), data);
}

} // namespace
} // namespace kest::test
