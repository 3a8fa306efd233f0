#include "sim/busstate.h"
#include "sim/chip.h"
#include "sim/statefile.h"
#include "tests/sanitizers.h"
#include "tests/sim/machinetest.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <functional>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

/// Called by the next call of fallocate().
std::function<void()> beforeReserving;

} // namespace

/// In place of the C library's.
extern "C" int fallocate(int file, int mode, off_t offset, off_t length)
{
    if (beforeReserving) {
        std::exchange(beforeReserving, nullptr)();
    }
    struct stat found {
    };
    if (fstat(file, &found) != 0) {
        return -1;
    }
    const bool keepsSize = (mode & FALLOC_FL_KEEP_SIZE) != 0;
    errno = posix_fallocate(file, offset, keepsSize ? std::min(length, found.st_size - offset) : length);
    return errno == 0 ? 0 : -1;
}

namespace kest::sim::test
{

namespace
{

/// A child process that runs a function and ends. Its exit status is 0 when the function returned true.
class Child
{
public:
    explicit Child(const std::function<bool()>& body) : m_number{fork()}
    {
        if (m_number == 0) {
            _exit(body() ? 0 : 1);
        }
    }
    int wait() const
    {
        int status = -1;
        waitpid(m_number, &status, 0);
        return status;
    }
    void kill() const { ::kill(m_number, SIGKILL); }

private:
    pid_t m_number;
};

class Processes : public MachineTest
{
protected:
    void SetUp() override
    {
        power(chip("24C512", "0xA0", "image = \"a.bin\"\nwrite_cycle_ms = 0") + chip("PCA9552", "0xC0") +
              chip("PCA9554", "0x40"));
    }
    std::unique_ptr<User> reopened()
    {
        machine = openMachine(home.path, false);
        return std::make_unique<User>(machine->findBus("planar", ""));
    }
};

// Each transaction holds the bus: a joined pair of bytes is never torn by another process.
TEST_F(Processes, TransactionsFollowOneAnother)
{
    std::vector<Child> children;
    for (std::uint8_t id = 1; id <= 4; ++id) {
        children.emplace_back([this, id] {
            bool whole = true;
            for (int i = 0; whole && i < 500; ++i) {
                on->write(0xC0, {0x12, id, id, id, id});
                const Bytes read = on->readAt(0xC0, {0x12}, 4).data;
                whole = read == Bytes(4, read.at(0)) && read.at(0) >= 1 && read.at(0) <= 4;
            }
            return whole;
        });
    }
    for (const auto& one : children) {
        EXPECT_EQ(0, one.wait());
    }
}

TEST_F(Processes, BusTimeIsOfAllUsers)
{
    std::vector<Child> children;
    for (int id = 0; id < 4; ++id) {
        children.emplace_back([this] {
            for (int i = 0; i < 250; ++i) {
                on->probe(0x40);
            }
            return true;
        });
    }
    for (const auto& one : children) {
        EXPECT_EQ(0, one.wait());
    }
    EXPECT_EQ(on->planar->busTimeNs(), 1000U * 11 * 2500);
}

TEST_F(Processes, ThreadsShareTheBus)
{
    std::atomic<int> torn = 0;
    std::vector<std::jthread> threads;
    for (std::uint8_t id = 1; id <= 4; ++id) {
        threads.emplace_back([this, id, &torn] {
            User own{machine->findBus("planar", "")};
            for (int i = 0; i < 300; ++i) {
                own.write(0xC0, {0x12, id, id, id, id});
                const Bytes read = own.readAt(0xC0, {0x12}, 4).data;
                torn += read != Bytes(4, read.at(0));
            }
        });
    }
    threads.clear();
    EXPECT_EQ(0, torn);
}

TEST_F(Processes, OpenedAtTheSameTimeForTheFirstTime)
{
    on.reset();
    machine.reset();
    std::filesystem::remove(home.path / "machine.state");
    std::filesystem::remove(home.path / "a.bin");
    std::vector<Child> children;
    for (int id = 0; id < 8; ++id) {
        children.emplace_back([this] { return reopened()->probe(0x40) == outcome::done; });
    }
    for (const auto& one : children) {
        EXPECT_EQ(0, one.wait());
    }
    EXPECT_EQ(reopened()->planar->busTimeNs(), 8U * 11 * 2500);
    EXPECT_EQ(home.content("a.bin"), Bytes(65536, 0xFF));
}

// A writer reports each acknowledged page over a pipe, and is killed at some point. Every reported page is in the image,
// no page is torn, and the bus is free.
TEST_F(Processes, WhatWasAcknowledgedSurvivesAKill)
{
    for (unsigned round = 0; round < 30; ++round) {
        int told[2];
        ASSERT_EQ(0, pipe(told));
        const auto id = static_cast<std::uint8_t>(round + 1);
        const Child writer{[this, id, &told] {
            for (unsigned page = 0; page < 512; ++page) {
                const Bytes offset{static_cast<std::uint8_t>(page >> 1), static_cast<std::uint8_t>(page << 7)};
                // the write cycle takes no time, so a page is refused once at most
                if (on->write(0xA0, offset + Bytes(128, id)).end != outcome::done &&
                    on->write(0xA0, offset + Bytes(128, id)).end != outcome::done) {
                    return false;
                }
                const auto number = static_cast<std::uint16_t>(page);
                if (::write(told[1], &number, sizeof number) != sizeof number) {
                    return false;
                }
            }
            return true;
        }};
        close(told[1]);
        std::uint16_t page = 0;
        for (unsigned i = 0; i <= round * 7; ++i) {
            ASSERT_EQ(::read(told[0], &page, sizeof page), static_cast<ssize_t>(sizeof page));
        }
        writer.kill();
        writer.wait();
        while (::read(told[0], &page, sizeof page) == static_cast<ssize_t>(sizeof page)) {}
        close(told[0]);
        // also does again what the state still holds
        EXPECT_EQ(on->readAt(0xA0, {0, 0}, 1).data, Bytes{id});
        const Bytes image = home.content("a.bin");
        for (std::size_t i = 0; i < 512; ++i) {
            const Bytes content(image.begin() + static_cast<std::ptrdiff_t>(i * 128),
                                image.begin() + static_cast<std::ptrdiff_t>(i * 128 + 128));
            ASSERT_EQ(content, Bytes(128, content[0])) << "page " << i;
            ASSERT_TRUE(i > page || content[0] == id) << "page " << i;
        }
    }
}

// The moment between the state and the image, made by hand: the page is still in the state.
TEST_F(Processes, PageLeftInTheStateReachesItsImage)
{
    // an even number of turns: the first record is current
    on->write(0xC0, {0x12, 1});
    on->write(0xC0, {0x12, 2});
    const std::string text = home.text("machine.state");
    std::string left = text;
    constexpr std::size_t block = 4096, record = block + 2048;
    const std::size_t at = record + (left[block] == 0 ? 0 : busStateBytes + 3 * chipStateBytes);
    // pending, chip 0, offset 0x180, 128 bytes
    const Bytes head{1, 0, 0, 0, 0, 0x80, 0x01, 0, 0, 128, 0, 0, 0};
    std::copy(head.begin(), head.end(), left.begin() + static_cast<std::ptrdiff_t>(at));
    std::fill_n(left.begin() + static_cast<std::ptrdiff_t>(at + head.size()), 128, '\x5C');
    {
        std::fstream state{home.path / "machine.state", std::ios::in | std::ios::out | std::ios::binary};
        state << left;
    }
    // any use of the bus
    EXPECT_EQ(outcome::done, on->probe(0x40));
    const Bytes image = home.content("a.bin");
    EXPECT_EQ(Bytes(image.begin() + 0x180, image.begin() + 0x200), Bytes(128, 0x5C));
    EXPECT_EQ(0xFF, image[0x17F]);
    EXPECT_EQ(0xFF, image[0x200]);
}

/// Called in every fork, after the machine has prepared for it: handlers that are registered later run earlier.
std::atomic<const std::function<void()>*> inTheFork = nullptr;

void callInTheFork()
{
    if (const auto* const body = inTheFork.load()) {
        (*body)();
    }
}

[[gnu::constructor(101)]] void registerBeforeTheMachine() { pthread_atfork(callInTheFork, nullptr, nullptr); }

/// Starts `action` in another thread in the middle of a fork. @return whether it ended within the fork
bool endsWithinAFork(const std::function<void()>& action)
{
    constexpr int turnsToBegin = 10'000'000, turnsToEnd = 20'000;
    std::atomic<bool> asked = false, begun = false, ended = false;
    bool endedWithin = false;
    std::jthread other{[&] {
        asked.wait(false);
        begun = true;
        action();
        ended = true;
    }};
    const std::function<void()> body = [&] {
        asked = true;
        asked.notify_one();
        for (int turn = 0; turn < turnsToBegin && !begun; ++turn) {
            sched_yield();
        }
        for (int turn = 0; turn < turnsToEnd && !ended; ++turn) {
            sched_yield();
        }
        endedWithin = ended;
    };
    inTheFork = &body;
    const Child one{[] { return true; }};
    inTheFork = nullptr;
    EXPECT_EQ(0, one.wait());
    EXPECT_TRUE(begun);
    return endedWithin;
}

TEST_F(Processes, StateFilesAreNotMadeOrDroppedWithinAFork)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    const std::size_t recordBytes[] = {64};
    std::unique_ptr<stateFile> file;
    EXPECT_FALSE(endsWithinAFork([&] { file = std::make_unique<stateFile>(home.path / "other", recordBytes); }));
    EXPECT_NE(file, nullptr);
    EXPECT_FALSE(endsWithinAFork([&] { file.reset(); }));
    EXPECT_EQ(nullptr, file);
    EXPECT_FALSE(endsWithinAFork([&] { openMachine(home.path, false); }));
}

// A thread or process that has the lock of bus 0 may wait there, in real time.
TEST_F(Processes, OpeningDoesNotWaitForATransactionOnTheFirstBus)
{
    home.put("machine.toml", home.text("machine.toml") +
                                 "[[bus]]\nname = \"other\"\n[[chip]]\nbus = \"other\"\ntype = \"PCA9554\"\n"
                                 "address = 0x40\n");
    reopened();
    const Child one{[this] {
        // ends a child that waits
        alarm(20);
        const std::size_t recordBytes[] = {busStateBytes + 3 * chipStateBytes, busStateBytes + chipStateBytes};
        stateFile another{home.path / "machine.state", recordBytes};
        const stateFile::hold transaction{another, 0};
        User other{openMachine(home.path, false)->findBus("other", "")};
        return transaction.held() && other.probe(0x40) == outcome::done;
    }};
    EXPECT_EQ(0, one.wait());
}

// Two processes with machine files of two sizes: the first has looked at the file's size when the second makes it anew.
TEST_F(Processes, AFileThatAnotherMakesSmallerMeanwhileStaysSo)
{
    const std::size_t large[] = {1 << 20, 1 << 20}, small[] = {1 << 20};
    {
        stateFile whole{home.path / "other", large};
        const stateFile::hold all{whole};
        whole.renew(1);
    }
    stateFile smaller{home.path / "other", small};
    beforeReserving = [&] {
        const stateFile::hold all{smaller};
        smaller.renew(2);
        smaller.seal();
    };
    const stateFile larger{home.path / "other", large};
    EXPECT_FALSE(beforeReserving);
    EXPECT_TRUE(smaller.seemsUsable(2));
    EXPECT_FALSE(larger.seemsUsable(1));
}

TEST_F(Processes, ForkOfAThreadedProcessLeavesTheBusUsable)
{
    KEST_SKIP_FORK_OF_BUSY_THREADS();
    std::atomic<bool> stop = false;
    std::jthread busy{[this, &stop] {
        User own{machine->findBus("planar", "")};
        while (!stop) {
            own.probe(0x40);
        }
    }};
    for (int i = 0; i < 20; ++i) {
        const Child one{[this] { return on->probe(0x40) == outcome::done; }};
        EXPECT_EQ(0, one.wait());
    }
    stop = true;
}

// A child has the parent's descriptors: it must not share the parent's lock, nor keep it.
TEST_F(Processes, ChildAndParentExcludeEachOther)
{
    const Child other{[this] {
        bool whole = true;
        for (int i = 0; whole && i < 1000; ++i) {
            on->write(0xC0, {0x12, 7, 7, 7, 7});
            const Bytes read = on->readAt(0xC0, {0x12}, 4).data;
            whole = read == Bytes(4, read.at(0));
        }
        return whole;
    }};
    for (int i = 0; i < 1000; ++i) {
        on->write(0xC0, {0x12, 9, 9, 9, 9});
        const Bytes read = on->readAt(0xC0, {0x12}, 4).data;
        ASSERT_EQ(read, Bytes(4, read.at(0)));
    }
    EXPECT_EQ(0, other.wait());
}

} // namespace
} // namespace kest::sim::test
