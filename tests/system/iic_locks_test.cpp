/// Address locks between handles and processes.
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>

#include "tests/host/trace_support.h"
#include "tests/places.h"
#include "tests/system/iic_clock.h"
#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

Answer lock(OpenDevice& device, Bytes record) { return device.config(2, 17, record.data(), 8); }
Answer unlock(OpenDevice& device, Bytes record) { return device.config(2, 18, record.data(), 8); }

/// A child that runs `work` and reports its result; killed at the end when the test has not waited for it.
class Child
{
public:
    template <typename Work>
    explicit Child(Work work)
    {
        EXPECT_EQ(0, pipe2(m_ready, O_CLOEXEC));
        m_process = fork();
        if (m_process == 0) {
            _exit(work([this] { announce(); }) ? 0 : 1);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        if (m_process > 0) {
            end(SIGKILL);
        }
        close(m_ready[0]);
        close(m_ready[1]);
    }
    // from the child
    void awaitWord() const
    {
        char word = 0;
        EXPECT_EQ(1, read(m_ready[0], &word, 1));
    }
    void kill(int signal) const { ::kill(m_process, signal); }
    int end(int signal = 0)
    {
        int status = 0;
        if (signal != 0) {
            ::kill(m_process, signal);
        }
        waitpid(m_process, &status, 0);
        m_process = 0;
        return status;
    }

private:
    void announce() const { static_cast<void>(!write(m_ready[1], "!", 1)); }

    int m_ready[2]{};
    pid_t m_process = 0;
};

using IicLocks = IicMachine;

TEST_F(IicLocks, RecordsOfBothKindsAndTheirByteOrder)
{
    OpenDevice device("sim:planar");
    EXPECT_EQ((Answer{0, 0}), lock(device, registerLock(0xC0, 500)));
    EXPECT_EQ((Answer{0, 0}), unlock(device, registerLock(0xC0, 500)));
    EXPECT_EQ((Answer{0, 0}), lock(device, hubLock(0x80, 500)));
    EXPECT_EQ((Answer{0, 0}), unlock(device, hubLock(0x80, 500)));
    const Bytes wrong[] = {{0, 1, 0, 0xC0, 0, 0, 0, 0}, {0, 3, 0, 0xC0, 0, 0, 0, 0},      {2, 0, 0, 0xC0, 0, 0, 0, 0},
                           {0, 2, 1, 0xC0, 0, 0, 0, 0}, {0, 2, 0, 0xC1, 0, 0, 0, 0},      {0, 2, 0, 0, 0, 0, 0, 0},
                           {0, 2, 0xC0, 0, 0, 0, 0, 0}, {0xFF, 0xFF, 0, 0xC0, 0, 0, 0, 0}};
    for (const Bytes& record : wrong) {
        EXPECT_EQ((Answer{-1, EINVAL}), lock(device, record)) << testing::PrintToString(record);
        EXPECT_EQ((Answer{-1, EINVAL}), unlock(device, record));
    }
    EXPECT_EQ((Answer{-1, EINVAL}), lock(device, hubLock(0x81, 0)));
    EXPECT_EQ((Answer{-1, EINVAL}), lock(device, hubLock(0x180, 0)));
}

TEST_F(IicLocks, ExcludeTheHandlesOfOneProcessWhateverTheKind)
{
    OpenDevice one("sim:planar@C0");
    OpenDevice other("sim:planar@C0");
    EXPECT_EQ((Answer{0, 0}), lock(one, registerLock(0xC0, 0)));
    EXPECT_EQ((Answer{-1, EBUSY}), lock(other, registerLock(0xC0, 0)));
    EXPECT_EQ((Answer{-1, EBUSY}), lock(other, hubLock(0xC0, 0)));
    // another address
    EXPECT_EQ((Answer{0, 0}), lock(other, hubLock(0xC2, 0)));
    EXPECT_EQ((Answer{-1, EINVAL}), unlock(other, registerLock(0xC0, 0)));
    EXPECT_EQ((Answer{0, 0}), unlock(one, hubLock(0xC0, 0)));
    EXPECT_EQ((Answer{0, 0}), lock(other, registerLock(0xC0, 0)));
}

TEST_F(IicLocks, ALockHeldAlreadyIsADeadlockAndNothingElseIs)
{
    OpenDevice device("sim:planar@C0");
    EXPECT_EQ((Answer{0, 0}), lock(device, registerLock(0xC0, 1000)));
    EXPECT_EQ((Answer{-1, EDEADLK}), lock(device, registerLock(0xC0, 1000)));
    EXPECT_EQ((Answer{-1, EDEADLK}), lock(device, hubLock(0xC0, 1000)));
    // advisory: transfers are not locked out
    EXPECT_EQ((Answer{1, 0}), device.write({0}));
    EXPECT_EQ((Answer{0, 0}), unlock(device, registerLock(0xC0, 0)));
    EXPECT_EQ((Answer{-1, EINVAL}), unlock(device, registerLock(0xC0, 0)));
}

TEST_F(IicLocks, TransfersOfOthersGoOn)
{
    OpenDevice one("sim:planar@C0");
    OpenDevice other("sim:planar@C0");
    lock(one, registerLock(0xC0, 0));
    EXPECT_EQ((Answer{2, 0}), other.write({2, 0x12}));
}

TEST_F(IicLocks, BusesAndNodesHaveLocksOfTheirOwn)
{
    OpenDevice near("sim:planar@A0");
    OpenDevice far("sim:planar@A0", 3);
    EXPECT_EQ((Answer{0, 0}), lock(near, hubLock(0xA0, 0)));
    EXPECT_EQ((Answer{0, 0}), lock(far, hubLock(0xA0, 0)));
}

TEST_F(IicLocks, EndWithClose)
{
    OpenDevice other("sim:planar");
    {
        OpenDevice one("sim:planar");
        lock(one, registerLock(0xC0, 0));
        EXPECT_EQ((Answer{-1, EBUSY}), lock(other, registerLock(0xC0, 0)));
    }
    EXPECT_EQ((Answer{0, 0}), lock(other, registerLock(0xC0, 0)));
}

TEST_F(IicLocks, WaiterIsBusyAtItsTimeOut)
{
    OpenDevice one("sim:planar");
    OpenDevice other("sim:planar");
    lock(one, registerLock(0xC0, 0));
    DrivenClock clock;
    EXPECT_EQ((Answer{-1, EBUSY}), lock(other, registerLock(0xC0, 0)));
    EXPECT_EQ(0, clock.pauses);
    EXPECT_EQ((Answer{-1, EBUSY}), lock(other, registerLock(0xC0, 30)));
    EXPECT_EQ(300, clock.pauses);
    EXPECT_EQ(std::chrono::milliseconds(30) + std::chrono::nanoseconds(1), clock.now());
    EXPECT_EQ((Answer{-1, EBUSY}), lock(other, registerLock(0xC0, 110)));
    EXPECT_EQ(1400, clock.pauses);
    EXPECT_EQ(std::chrono::milliseconds(140) + std::chrono::nanoseconds(1), clock.now());
}

TEST_F(IicLocks, WaiterHasTheLockWhenItIsFree)
{
    OpenDevice one("sim:planar");
    OpenDevice other("sim:planar");
    lock(one, registerLock(0xC0, 0));
    DrivenClock clock;
    clock.inPause = [&one](int pauses) {
        if (pauses == 3) {
            EXPECT_EQ((Answer{0, 0}), unlock(one, registerLock(0xC0, 0)));
        }
    };
    EXPECT_EQ((Answer{0, 0}), lock(other, registerLock(0xC0, 20'000)));
    EXPECT_EQ(3, clock.pauses);
    EXPECT_EQ((Answer{-1, EBUSY}), lock(one, registerLock(0xC0, 0)));
}

TEST_F(IicLocks, KilledHolderReleasesAtOnce)
{
    Child holder([](const auto& announce) {
        OpenDevice device("sim:planar");
        const bool held = lock(device, registerLock(0xC0, 0)) == Answer{0, 0};
        announce();
        pause();
        return held;
    });
    holder.awaitWord();
    OpenDevice waiter("sim:planar");
    DrivenClock clock;
    int status = 0;
    clock.inPause = [&](int pauses) { status = pauses == 2 ? holder.end(SIGKILL) : status; };
    EXPECT_EQ((Answer{0, 0}), lock(waiter, registerLock(0xC0, 20'000)));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(2, clock.pauses);
}

TEST_F(IicLocks, WaiterForAFileThatIsExchangedMeetsTheOthersAtTheNewOne)
{
    OpenDevice one("sim:planar");
    OpenDevice other("sim:planar");
    OpenDevice third("sim:planar");
    lock(one, registerLock(0xC0, 0));
    DrivenClock clock;
    clock.inPause = [&](int /*pauses*/) {
        EXPECT_TRUE(std::filesystem::remove(folder() / "iic.planar.lock"));
        EXPECT_EQ((Answer{0, 0}), unlock(one, registerLock(0xC0, 0)));
    };
    EXPECT_EQ((Answer{0, 0}), lock(other, registerLock(0xC0, 20'000)));
    EXPECT_EQ((Answer{-1, EBUSY}), lock(third, registerLock(0xC0, 0)));
    EXPECT_EQ(1, clock.pauses);
}

TEST_F(IicLocks, ExitOfTheHolderReleases)
{
    OpenDevice waiter("sim:planar");
    Child holder([](const auto& announce) {
        // never closed
        auto* device = new OpenDevice("sim:planar");
        const bool held = lock(*device, registerLock(0xC0, 0)) == Answer{0, 0};
        announce();
        return held;
    });
    holder.awaitWord();
    EXPECT_EQ(0, holder.end());
    EXPECT_EQ((Answer{0, 0}), lock(waiter, registerLock(0xC0, 0)));
}

TEST_F(IicLocks, ForkedChildDoesNotKeepTheParentsLock)
{
    auto holder = std::make_unique<OpenDevice>("sim:planar");
    EXPECT_EQ((Answer{0, 0}), lock(*holder, registerLock(0xC0, 0)));
    // it has a copy of everything and keeps running
    Child child([&holder](const auto& announce) {
        const bool released =
            // the lock is the parent's, not the child's
            unlock(*holder, registerLock(0xC0, 0)) == Answer{-1, EINVAL};
        const bool excluded = lock(*holder, registerLock(0xC0, 0)) == Answer{-1, EBUSY};
        announce();
        pause();
        return released && excluded;
    });
    child.awaitWord();
    OpenDevice other("sim:planar");
    EXPECT_EQ((Answer{-1, EBUSY}), lock(other, registerLock(0xC0, 0)));
    holder.reset();
    EXPECT_EQ((Answer{0, 0}), lock(other, registerLock(0xC0, 0)));
}

TEST_F(IicLocks, ChildSeesItsParentsLocksAsAnothers)
{
    OpenDevice device("sim:planar");
    EXPECT_EQ((Answer{0, 0}), lock(device, registerLock(0xC0, 0)));
    Child child([&device](const auto&) {
        return unlock(device, registerLock(0xC0, 0)) == Answer{-1, EINVAL} &&
               lock(device, registerLock(0xC0, 0)) == Answer{-1, EBUSY} &&
               lock(device, registerLock(0xC2, 0)) == Answer{0, 0};
    });
    EXPECT_EQ(0, child.end());
}

TEST_F(IicLocks, HandleThatTakesItAgainAndAgainLetsWaitersIn)
{
    Child greedy([](const auto& announce) {
        OpenDevice device("sim:planar");
        announce();
        for (;;) {
            lock(device, registerLock(0xC0, 10'000));
            device.setNumber(16, 1);
            unlock(device, registerLock(0xC0, 0));
        }
        return true;
    });
    greedy.awaitWord();
    OpenDevice device("sim:planar");
    for (int turn = 0; turn < 20; ++turn) {
        EXPECT_EQ((Answer{0, 0}), lock(device, registerLock(0xC0, 1000)));
        EXPECT_EQ((Answer{0, 0}), unlock(device, registerLock(0xC0, 0)));
    }
}

/// Increments a counter in the four bytes of the chip's prescalers and duty cycles, under the chip's lock.
bool countUp(OpenDevice& device)
{
    Bytes value(4);
    const bool read = lock(device, registerLock(0xC0, 30'000)) == Answer{0, 0} &&
                      device.write({0x12}) == Answer{1, 0} && device.read(value) == Answer{4, 0};
    std::uint32_t count =
        1U + (value[0] | static_cast<std::uint32_t>(value[1]) << 8 | static_cast<std::uint32_t>(value[2]) << 16 |
              static_cast<std::uint32_t>(value[3]) << 24);
    const Bytes message{0x12, static_cast<std::uint8_t>(count), static_cast<std::uint8_t>(count >> 8),
                        static_cast<std::uint8_t>(count >> 16), static_cast<std::uint8_t>(count >> 24)};
    return read && device.write(message) == Answer{5, 0} && unlock(device, registerLock(0xC0, 0)) == Answer{0, 0};
}

/// Rounds of each process; fewer under a sanitizer or the emulator, unless KEST_LONG_TESTS is set.
int manyRounds()
{
    const bool slow = underSanitizer || isEmulated();
    return slow && std::getenv("KEST_LONG_TESTS") == nullptr ? 500 : 5000;
}

TEST_F(IicLocks, FourProcessesLoseNoUpdate)
{
    const int rounds = manyRounds();
    OpenDevice device("sim:planar@C0");
    EXPECT_EQ((Answer{5, 0}), device.write({0x12, 0, 0, 0, 0}));
    {
        std::vector<std::unique_ptr<Child>> workers;
        for (int number = 0; number < 4; ++number) {
            workers.push_back(std::make_unique<Child>([rounds](const auto&) {
                OpenDevice own("sim:planar@C0");
                Block values;
                values.writeCycleMs = 0;
                own.set(values);
                bool good = true;
                for (int round = 0; good && round < rounds; ++round) {
                    good = countUp(own);
                }
                return good;
            }));
        }
        for (const auto& worker : workers) {
            EXPECT_EQ(0, worker->end());
        }
    }
    device.write({0x12});
    const Bytes value = device.readAll(4);
    const std::uint32_t count =
        value[0] | static_cast<std::uint32_t>(value[1]) << 8 | static_cast<std::uint32_t>(value[2]) << 16;
    EXPECT_EQ(4U * static_cast<std::uint32_t>(rounds), count);
}

TEST_F(IicLocks, KilledWhileItCountsLosesNothingOfTheOthers)
{
    OpenDevice device("sim:planar@C0");
    EXPECT_EQ((Answer{5, 0}), device.write({0x12, 0, 0, 0, 0}));
    for (int turn = 0; turn < 5; ++turn) {
        Child victim([](const auto& announce) {
            OpenDevice own("sim:planar@C0");
            for (int round = 0;; ++round) {
                countUp(own);
                if (round == 3) {
                    announce();
                }
            }
            return true;
        });
        victim.awaitWord();
        victim.end(SIGKILL);
        // bus and lock are free again
        EXPECT_TRUE(countUp(device));
    }
}

} // namespace
} // namespace kest::test
