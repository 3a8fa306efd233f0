/// Forks of a process whose threads are busy with the IIC layer: the child must be able to use it.
#include <atomic>
#include <functional>
#include <sys/wait.h>
#include <thread>

#include "platform/host/iic/ffdc.h"
#include "tests/forks.h"
#include "tests/sanitizers.h"
#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

/// A thread that repeats one piece of work.
class Busy
{
public:
    explicit Busy(const std::function<void()>& work)
        : m_thread([this, work](const std::stop_token& stop) {
              while (!stop.stop_requested()) {
                  work();
                  m_began = true;
              }
          })
    {
        while (!m_began) {
            std::this_thread::yield();
        }
    }

private:
    std::atomic<bool> m_began = false;
    std::jthread m_thread;
};

class IicFork : public IicMachine
{
protected:
    /// Runs `work` in a child. @return the child's status: 0 when `work` returned true
    static int inChild(const std::function<bool()>& work)
    {
        const pid_t child = fork();
        if (child == 0) {
            alarm(hangSeconds);
            _exit(work() ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return status;
    }
    /// Whether the process can open a handle, use it and close it.
    static bool ownHandleWorks()
    {
        OpenDevice device("sim:planar@A0");
        Bytes data(4);
        return device.error() == 0 && device.set(main256()).error == 0 && device.read(data) == Answer{4, 0} &&
               device.firstFailure().empty() && mern_iic_ffdc_unlock(device.handle(), 0) == 0;
    }
};

TEST_F(IicFork, ChildOfBusyThreadsHasALayerThatWorks)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    const Busy one([] { ownHandleWorks(); });
    const Busy other([] {
        mern_t closed = MERN_INVALID;
        mern_iic_seek(closed, 0, 0);
    });
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ(0, inChild(ownHandleWorks)) << round;
    }
}

TEST_F(IicFork, ChildHasALayerThatWorksBesideTheFirstUseOfAThread)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    EXPECT_EQ(0, failedBesideFirstUse(ownHandleWorks));
}

// Without a writable file, the records belong to the process alone.
TEST_F(IicFork, ChildCanAskForFirstFailuresThatThreadsAreBusyWith)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    const host::iic::busIdentity nowhere{.folder = "/-", .name = "bus", .mode = 0600, .group = 0, .text = "bus"};
    const auto drop = [&nowhere] { return host::iic::dropFirstFailure(nowhere, 0xA0) == 0; };
    const Busy one(drop);
    const Busy other(drop);
    for (int round = 0; round < 500; ++round) {
        ASSERT_EQ(0, inChild(drop)) << round;
    }
}

// The child cannot continue what another thread was doing.
TEST_F(IicFork, HandleThatAnotherThreadIsUsingIsClosedInTheChild)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    OpenDevice holder("sim:planar");
    OpenDevice waiting("sim:planar");
    Bytes record = registerLock(0xC0, 0);
    EXPECT_EQ((Answer{0, 0}), holder.config(2, 17, record.data(), 8));
    // nearly always within a call
    const Busy busy([&waiting] {
        Bytes patient = registerLock(0xC0, 50);
        waiting.config(2, 17, patient.data(), 8);
    });
    int closed = 0;
    for (int round = 0; round < 20; ++round) {
        const int status = inChild([&waiting] {
            errno = 0;
            return mern_iic_seek(waiting.handle(), 0, 0) == -1 && errno == EBADF && ownHandleWorks();
        });
        EXPECT_TRUE(WIFEXITED(status)) << "round " << round;
        closed += status == 0 ? 1 : 0;
    }
    EXPECT_LE(10, closed);
}

TEST_F(IicFork, HandleAtRestIsTheChildsToo)
{
    OpenDevice device("sim:planar@A0");
    EXPECT_EQ((Answer{0, 0}), device.set(main256()));
    EXPECT_EQ((Answer{0, 0}), device.seek(16));
    EXPECT_EQ(0, inChild([&device] {
                  Bytes data(4);
                  return device.read(data) == Answer{4, 0} && data == part(pattern(32768, 1), 16, 4) &&
                         mern_iic_close(device.handle()) == 0;
              }));
    EXPECT_EQ(part(pattern(32768, 1), 16, 4), device.readAll(4));
}

TEST_F(IicFork, HandleOfTheChildIsForeignToTheParent)
{
    // the process has given out tickets before
    static_cast<void>(OpenDevice("sim:planar"));
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    EXPECT_EQ(0, inChild([&ends] {
                  OpenDevice device("sim:planar@A8");
                  return write(ends[1], &device.handle(), sizeof(mern_t)) == static_cast<ssize_t>(sizeof(mern_t));
              }));
    mern_t foreign{};
    ASSERT_EQ(static_cast<ssize_t>(sizeof foreign), read(ends[0], &foreign, sizeof foreign));
    // in the place, and with the ticket, of the child's handle
    OpenDevice sameTurn("sim:planar@A0");
    errno = 0;
    EXPECT_EQ(-1, mern_iic_seek(foreign, 0, 0));
    EXPECT_EQ(EBADF, errno);
    close(ends[0]);
    close(ends[1]);
}

} // namespace
} // namespace kest::test
