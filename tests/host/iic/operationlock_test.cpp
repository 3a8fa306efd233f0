/// Locks on devices for whole operations, between handles and between processes.
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/host/iic/locks.h"
#include "platform/host/iic/operationlock.h"
#include "tests/temporaryfolder.h"

namespace kest::test
{
namespace
{

using namespace std::chrono_literals;
using host::iic::operationLock;
using host::iic::operationPlace;
using host::iic::operationRecord;
using host::iic::operationUse;

constexpr operationPlace planar{.address = 0xA0};
const std::function<bool()> never = [] { return false; };

/// Time that passes only in pauses; something can happen at a moment of it.
class StepClock : public host::iic::lockClock
{
public:
    StepClock() { host::iic::useLockClock(this); }
    ~StepClock() override { host::iic::useLockClock(nullptr); }
    std::chrono::nanoseconds now() override { return m_now; }
    void pause(std::chrono::nanoseconds time) override
    {
        m_now += time;
        if (happening && m_now >= when) {
            std::exchange(happening, nullptr)();
        }
    }

    std::function<void()> happening;
    std::chrono::nanoseconds when{0};

private:
    std::chrono::nanoseconds m_now{1h};
};

class OperationLocks : public testing::Test
{
protected:
    [[nodiscard]] host::iic::busIdentity bus(const std::string& name = "iic.planar") const
    {
        return {.folder = m_folder.path(),
                .name = name,
                .mode = 0600,
                .group = getegid(),
                .text = "sim:planar",
                .owner = geteuid()};
    }
    static operationRecord by(const std::string& doing)
    {
        return {.process = 7, .user = 8, .sinceMs = 9, .program = "test", .doing = doing, .device = "vpd"};
    }
    [[nodiscard]] std::filesystem::path lockFile() const { return m_folder.path() / "iic.planar.operations"; }

    /// A child that has a device, until it is killed.
    class Holder
    {
    public:
        Holder(const host::iic::busIdentity& identity, operationUse use, bool forksOn = false)
        {
            std::array<int, 2> ready{};
            std::array<int, 2> life{};
            EXPECT_EQ(0, pipe2(ready.data(), O_CLOEXEC));
            EXPECT_EQ(0, pipe2(life.data(), O_CLOEXEC));
            m_process = fork();
            if (m_process == 0) {
                close(life[1]);
                operationLock lock(identity, planar, use);
                const bool had = lock.attempt(by("hold")) == 0;
                if (forksOn && fork() == 0) {
                    // ends with the test's end of a pipe, not with its parent
                    char none = 0;
                    static_cast<void>(!read(life[0], &none, 1));
                    _exit(0);
                }
                static_cast<void>(!write(ready[1], had ? "y" : "n", 1));
                pause();
                _exit(0);
            }
            char word = 0;
            EXPECT_EQ(1, read(ready[0], &word, 1));
            EXPECT_EQ('y', word);
            close(ready[0]);
            close(ready[1]);
            close(life[0]);
            m_life = life[1];
        }
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;
        ~Holder()
        {
            end();
            close(m_life);
        }
        void end()
        {
            if (m_process > 0) {
                kill(m_process, SIGKILL);
                waitpid(m_process, nullptr, 0);
                m_process = 0;
            }
        }

    private:
        pid_t m_process = 0;
        int m_life = -1;
    };

private:
    TemporaryFolder m_folder{TemporaryFolder::inMemory};
};

TEST_F(OperationLocks, ReadsShareADeviceAndAWriteHasItAlone)
{
    operationLock reader(bus(), planar, operationUse::read);
    operationLock other(bus(), planar, operationUse::read);
    operationLock writer(bus(), planar, operationUse::write);
    EXPECT_EQ(0, reader.attempt(by("read")));
    EXPECT_EQ(0, other.attempt(by("read")));
    EXPECT_EQ(EAGAIN, writer.attempt(by("write")));
    reader.release();
    EXPECT_EQ(EAGAIN, writer.attempt(by("write")));
    other.release();
    EXPECT_EQ(0, writer.attempt(by("write")));
    EXPECT_EQ(EAGAIN, reader.attempt(by("read")));
    EXPECT_EQ(EAGAIN, operationLock(bus(), planar, operationUse::write).attempt(by("write")));
}

TEST_F(OperationLocks, EachPlaceAndBusHasItsOwn)
{
    operationLock one(bus(), planar, operationUse::write);
    operationLock behindAHub(bus(), {.hub = 0x80, .port = 0, .address = 0xA0}, operationUse::write);
    operationLock atAnotherPort(bus(), {.hub = 0x80, .port = 1, .address = 0xA0}, operationUse::write);
    operationLock onAnotherBus(bus("iic.riser"), planar, operationUse::write);
    operationLock same(bus(), planar, operationUse::read);
    EXPECT_EQ(0, one.attempt(by("write")));
    EXPECT_EQ(0, behindAHub.attempt(by("write")));
    EXPECT_EQ(0, atAnotherPort.attempt(by("write")));
    EXPECT_EQ(0, onAnotherBus.attempt(by("write")));
    EXPECT_EQ(EAGAIN, same.attempt(by("read")));
}

TEST_F(OperationLocks, AreApartFromTheLayersOwn)
{
    host::iic::addressLocks layer(bus());
    operationLock writer(bus(), planar, operationUse::write);
    EXPECT_EQ(0, layer.lock(0xA0, 0ms));
    EXPECT_TRUE(layer.beginWrite(0xA0, 0ms));
    EXPECT_EQ(0, writer.attempt(by("write")));
    layer.releaseAll();
    EXPECT_EQ(0, layer.lock(0xA0, 0ms));
}

/// Otherwise readers that follow each other would keep a writer away for ever.
TEST_F(OperationLocks, AReaderWaitsBehindAWriterThatWaits)
{
    operationLock reader(bus(), planar, operationUse::read);
    operationLock writer(bus(), planar, operationUse::write);
    operationLock late(bus(), planar, operationUse::read);
    EXPECT_EQ(0, reader.attempt(by("read")));
    EXPECT_EQ(EAGAIN, writer.attempt(by("write")));
    EXPECT_EQ(EAGAIN, late.attempt(by("read")));
    reader.release();
    EXPECT_EQ(EAGAIN, late.attempt(by("read")));
    EXPECT_EQ(0, writer.attempt(by("write")));
    writer.release();
    EXPECT_EQ(0, late.attempt(by("read")));
}

TEST_F(OperationLocks, AWriterThatGaveUpHoldsNobodyUp)
{
    StepClock clock;
    operationLock reader(bus(), planar, operationUse::read);
    operationLock writer(bus(), planar, operationUse::write);
    EXPECT_EQ(0, reader.attempt(by("read")));
    EXPECT_EQ(EBUSY, writer.wait(by("write"), 30s, never));
    EXPECT_EQ(1h + 30s, clock.now());
    EXPECT_EQ(0, operationLock(bus(), planar, operationUse::read).attempt(by("read")));
}

TEST_F(OperationLocks, AWaitEndsWithTheHoldersWork)
{
    StepClock clock;
    operationLock reader(bus(), planar, operationUse::read);
    operationLock writer(bus(), planar, operationUse::write);
    EXPECT_EQ(0, writer.attempt(by("write")));
    clock.when = 1h + 5s;
    clock.happening = [&writer] { writer.release(); };
    EXPECT_EQ(0, reader.wait(by("read"), 30s, never));
    // seen at once: no pause is longer than 10 ms
    EXPECT_LE(1h + 5s, clock.now());
    EXPECT_GE(1h + 5s + 10ms, clock.now());
}

TEST_F(OperationLocks, AWaitThatIsStoppedEnds)
{
    const StepClock clock;
    operationLock writer(bus(), planar, operationUse::write);
    operationLock reader(bus(), planar, operationUse::read);
    EXPECT_EQ(0, writer.attempt(by("write")));
    EXPECT_EQ(EINTR, reader.wait(by("read"), 30s, [] { return true; }));
    writer.release();
    EXPECT_EQ(0, operationLock(bus(), planar, operationUse::write).attempt(by("write")));
}

TEST_F(OperationLocks, HoldersSayWhoTheyAre)
{
    operationLock one(bus(), planar, operationUse::read);
    operationLock two(bus(), planar, operationUse::read);
    operationLock elsewhere(bus(), {.address = 0xA2}, operationUse::write);
    operationLock writer(bus(), planar, operationUse::write);
    EXPECT_EQ(0, one.attempt(by("dump")));
    EXPECT_EQ(0, two.attempt(by("verify")));
    EXPECT_EQ(0, elsewhere.attempt(by("write")));
    EXPECT_EQ(EAGAIN, writer.attempt(by("write")));
    std::vector<operationRecord> holders = writer.holders();
    ASSERT_EQ(2U, holders.size());
    EXPECT_EQ("dump", holders[0].doing);
    EXPECT_EQ("verify", holders[1].doing);
    EXPECT_EQ(7U, holders[1].process);
    one.release();
    holders = writer.holders();
    ASSERT_EQ(1U, holders.size());
    EXPECT_EQ("verify", holders[0].doing);
}

TEST_F(OperationLocks, MoreHoldersThanRecordsHoldAllTheSame)
{
    std::vector<std::unique_ptr<operationLock>> readers;
    for (int count = 0; count < 70; ++count) {
        readers.push_back(std::make_unique<operationLock>(bus(), planar, operationUse::read));
        EXPECT_EQ(0, readers.back()->attempt(by("read")));
    }
    operationLock writer(bus(), planar, operationUse::write);
    EXPECT_EQ(EAGAIN, writer.attempt(by("write")));
    EXPECT_EQ(64U, writer.holders().size());
}

TEST_F(OperationLocks, AKilledHolderIsGoneAtOnce)
{
    Holder holder(bus(), operationUse::write);
    operationLock reader(bus(), planar, operationUse::read);
    EXPECT_EQ(EAGAIN, reader.attempt(by("read")));
    EXPECT_EQ(1U, reader.holders().size());
    holder.end();
    // its record is still in the file
    EXPECT_EQ(0U, reader.holders().size());
    EXPECT_EQ(0, reader.attempt(by("read")));
}

TEST_F(OperationLocks, AChildOfTheHolderDoesNotHaveIt)
{
    operationLock writer(bus(), planar, operationUse::write);
    EXPECT_EQ(0, writer.attempt(by("write")));
    const pid_t child = fork();
    if (child == 0) {
        // releases nothing of its parent's
        writer.release();
        _exit(operationLock(bus(), planar, operationUse::read).attempt(by("read")) == EAGAIN ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    EXPECT_EQ(EAGAIN, operationLock(bus(), planar, operationUse::read).attempt(by("read")));
}

TEST_F(OperationLocks, AHoldersChildThatOutlivesItKeepsNothing)
{
    Holder holder(bus(), operationUse::write, true);
    holder.end();
    EXPECT_EQ(0, operationLock(bus(), planar, operationUse::write).attempt(by("write")));
}

TEST_F(OperationLocks, AFileInTheirPlaceIsTakenByEverybody)
{
    operationLock first(bus(), planar, operationUse::write);
    EXPECT_EQ(0, first.attempt(by("write")));
    operationLock waiting(bus(), planar, operationUse::write);
    EXPECT_EQ(EAGAIN, waiting.attempt(by("write")));
    std::filesystem::remove(lockFile());
    operationLock next(bus(), planar, operationUse::write);
    EXPECT_EQ(0, next.attempt(by("write")));
    first.release();
    // at the old file first
    EXPECT_EQ(EAGAIN, waiting.attempt(by("write")));
    EXPECT_EQ(EAGAIN, waiting.attempt(by("write")));
    next.release();
    EXPECT_EQ(0, waiting.attempt(by("write")));
}

TEST_F(OperationLocks, WhatOthersWroteIntoTheFileHarmsNobody)
{
    std::ofstream(lockFile(), std::ios::binary) << std::string(100000, '\xFF');
    operationLock writer(bus(), planar, operationUse::write);
    EXPECT_EQ(0, writer.attempt(by("write")));
    operationLock reader(bus(), planar, operationUse::read);
    EXPECT_EQ(EAGAIN, reader.attempt(by("read")));
    EXPECT_EQ(1U, reader.holders().size());
}

TEST_F(OperationLocks, AFileThatCannotBeHadIsRefused)
{
    std::filesystem::create_directory(lockFile());
    EXPECT_EQ(EACCES, operationLock(bus(), planar, operationUse::read).attempt(by("read")));
    std::filesystem::remove(lockFile());
    std::filesystem::create_symlink("elsewhere", lockFile());
    EXPECT_EQ(EACCES, operationLock(bus(), planar, operationUse::read).attempt(by("read")));
}

TEST_F(OperationLocks, HaveOneOrderOfAllPlaces)
{
    const operationLock one(bus(), planar, operationUse::read);
    const operationLock same(bus(), planar, operationUse::write);
    const operationLock next(bus(), {.address = 0xA2}, operationUse::read);
    const operationLock deeper(bus(), {.hub = 0x80, .port = 0, .address = 0x10}, operationUse::read);
    const operationLock elsewhere(bus("iic.riser"), planar, operationUse::read);
    EXPECT_TRUE((one <=> same) == 0);
    EXPECT_TRUE(one < next);
    EXPECT_TRUE(next < deeper);
    EXPECT_TRUE(deeper < elsewhere);
}

} // namespace
} // namespace kest::test
