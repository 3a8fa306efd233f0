/// Device paths, nodes, handles.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <latch>
#include <mutex>
#include <set>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>

#include "tests/places.h"
#include "tests/sanitizers.h"
#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

using IicPaths = IicMachine;

TEST_F(IicPaths, EveryMalformedPathIsNoSuchDevice)
{
    const std::string paths[] = {"",
                                 "@",
                                 "@A0",
                                 "sim",
                                 "sim:",
                                 "sim:@A0",
                                 "sim:planar@",
                                 "sim:planar@A",
                                 "sim:planar@A00",
                                 "sim:planar@0xA0",
                                 "sim:planar@-2",
                                 "sim:planar@+2",
                                 "sim:planar@ A",
                                 "sim:planar@G0",
                                 "sim:planar @A0",
                                 " sim:planar",
                                 "SIM:planar",
                                 "sim:other",
                                 "sim:planar/../planar",
                                 "sim:../machine",
                                 "sim:planar@A0@A0",
                                 "sim:three:planar",
                                 "/dev/i2c-",
                                 "/dev/i2c-x",
                                 "/dev/i2c--1",
                                 "/dev/i2c-+1",
                                 "/dev/i2c-0x1",
                                 "/dev/i2c-01",
                                 "/dev/i2c- 1",
                                 "/dev/i2c-1 ",
                                 "/dev/i2c-1048576",
                                 "/dev/i2c-99999999999999999999",
                                 "/dev/i2c-1/../i2c-1",
                                 "/dev/../dev/i2c-1",
                                 "dev/i2c-1",
                                 "/dev/i2c-1@",
                                 "/dev/i2c-1@@A0",
                                 "/dev/i2c-1@A0x",
                                 "/dev/null",
                                 "/etc/passwd",
                                 "/dev/i2c-1048575@A0",
                                 std::string(300, 'a'),
                                 "sim:" + std::string(100'000, 'a'),
                                 "sim:pl%61nar",
                                 "sim:planar\n",
                                 "sim:\xFF\xFE"};
    for (const std::string& path : paths) {
        EXPECT_EQ(ENOENT, OpenDevice(path).error()) << path.substr(0, 60);
    }
    EXPECT_EQ(ENOENT, OpenDevice("sim:three").error());
}

TEST_F(IicPaths, OddOrZeroAddressIsAnInvalidArgument)
{
    EXPECT_EQ(EINVAL, OpenDevice("sim:planar@A1").error());
    EXPECT_EQ(EINVAL, OpenDevice("sim:planar@FF").error());
    EXPECT_EQ(EINVAL, OpenDevice("sim:planar@00").error());
}

TEST_F(IicPaths, AddressOfThePathIsTheTarget)
{
    OpenDevice upper("sim:planar@A0");
    OpenDevice lower("sim:planar@a0");
    OpenDevice none("sim:planar");
    EXPECT_EQ(0xA0U, upper.number(3));
    EXPECT_EQ(0xA0U, lower.number(3));
    EXPECT_EQ(0U, none.number(3));
}

TEST_F(IicPaths, NodesNameOtherBuses)
{
    OpenDevice far("sim:planar@A0", 3);
    ASSERT_EQ(0, far.error());
    far.set(main256());
    EXPECT_EQ(pattern(16, 7), far.readAll(16));
    for (const NodeType node : {0, 1, 2, 4, 5, 6, 7, 8, 100, -2, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(ENODEV, OpenDevice("sim:planar@A0", node).error()) << node;
    }
    EXPECT_EQ(ENODEV, OpenDevice("/dev/i2c-1", 3).error());
}

TEST_F(IicPaths, NullPathAndOtherFlagsAreRefused)
{
    const MernNode local;
    errno = 0;
    mern_t handle = mern_iic_open(local, nullptr, MERN_OPEN_READ_WRITE_SYNC);
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(0, std::memcmp(&handle, &MERN_INVALID, sizeof handle));
    errno = 0;
    EXPECT_EQ(0, std::memcmp(&MERN_INVALID, &(handle = mern_iic_open(local, "sim:planar", 0)), sizeof handle));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(IicPaths, WithoutAMachineThereIsNoSimulatedBus)
{
    settings.use("state = \"state\"\n");
    EXPECT_EQ(ENOENT, OpenDevice("sim:planar").error());
    settings.use("state = \"state\"\n[machine]\nfolder = \"nowhere\"\n");
    EXPECT_EQ(ENOENT, OpenDevice("sim:planar").error());
    // a folder, but no machine
    settings.use("state = \"state\"\n[machine]\nfolder = \"state\"\n");
    EXPECT_EQ(ENODEV, OpenDevice("sim:planar").error());
}

TEST_F(IicPaths, BusThatAnotherNodeDoesNotHaveIsNotThere)
{
    EXPECT_EQ(ENOENT, OpenDevice("sim:nosuch@A0", 3).error());
    // the node's name is not the name of one of its buses
    EXPECT_EQ(ENOENT, OpenDevice("sim:three@A0", 3).error());
}

/// Opens with one more free descriptor each time. Until it succeeds, every failure is reported as a lack of memory.
TEST_F(IicPaths, WithoutADescriptorLeftThereIsNoMemory)
{
    if (underSanitizer) {
        GTEST_SKIP() << "the sanitizer reads the exception through a pipe and does not recognise it as an object";
    }
    rlimit usual{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &usual));
    wires.reset();
    // opening a device opens several files
    machine.reset();
    const int free = dup(0);
    ASSERT_LE(0, free);
    close(free);
    std::vector<int> errors;
    for (int more = 0; errors.empty() || (errors.back() != 0 && more < 20); ++more) {
        rlimit few = usual;
        few.rlim_cur = static_cast<rlim_t>(free + more);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
        {
            const OpenDevice device("sim:planar@A0");
            errors.push_back(device.error());
        }
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &usual));
    }
    ASSERT_LE(2U, errors.size());
    EXPECT_EQ(0, errors.back());
    errors.pop_back();
    EXPECT_THAT(errors, testing::Each(ENOMEM));
}

TEST_F(IicPaths, EveryCopyOfAHandleIsTheSameDevice)
{
    OpenDevice device("sim:planar");
    mern_t copy = device.handle();
    device.set(main256());
    EXPECT_EQ(0, mern_iic_seek(copy, 100, 0));
    EXPECT_EQ(part(pattern(32768, 1), 100, 4), device.readAll(4));
    Bytes data(4);
    EXPECT_EQ(4, mern_iic_read(copy, data.data(), 4));
    // the position belongs to the device, not to the copy of the handle
    EXPECT_EQ(part(pattern(32768, 1), 104, 4), data);
}

/// Calls every function with an invalid handle. @return the errno of each
std::vector<int> errnosOf(mern_t handle)
{
    std::vector<int> seen;
    std::uint8_t byte = 0;
    std::uint32_t word = 0;
    void* data = nullptr;
    const auto note = [&seen](int result, int expected) { seen.push_back(result == expected ? errno : -1); };
    note(mern_iic_config(handle, 1, WOBU_IIC_SPEED, &word, 4), -1);
    note(mern_iic_seek(handle, 0, 0), -1);
    note(mern_iic_read(handle, &byte, 1), 0);
    note(mern_iic_write(handle, &byte, 1), 0);
    note(mern_iic_reset(handle, 1), -1);
    note(mern_iic_ffdc_extract(handle, 0, &data), -1);
    note(mern_iic_ffdc_unlock(handle, 0), -1);
    note(mern_iic_close(handle), -1);
    return seen;
}

TEST_F(IicPaths, ClosedAndForeignHandlesAreBadDescriptors)
{
    const std::vector<int> all(8, EBADF);
    const MernNode local;
    EXPECT_EQ(all, errnosOf(MERN_INVALID));
    EXPECT_EQ(all, errnosOf(mern_t{}));
    mern_t handle = mern_iic_open(local, "sim:planar@A0", MERN_OPEN_READ_WRITE_SYNC);
    for (int word = 0; word < 5; ++word) {
        mern_t other = handle;
        other.words[word] ^= 1;
        EXPECT_EQ(all, errnosOf(other)) << word;
    }
    mern_t copy = handle;
    EXPECT_EQ(0, mern_iic_close(handle));
    EXPECT_EQ(all, errnosOf(copy));
    // it takes the same place, with another ticket
    mern_t next = mern_iic_open(local, "sim:planar@A0", MERN_OPEN_READ_WRITE_SYNC);
    EXPECT_EQ(all, errnosOf(copy));
    EXPECT_EQ(0, mern_iic_close(next));
}

constexpr const char* ticketVariable = "KEST_TEST_TICKET";

/// Runs in a process of its own, and writes the ticket of a place into a file.
TEST(IicOfAFreshProcess, DISABLED_LeavesATicket)
{
    const char* const named = std::getenv(ticketVariable);
    ASSERT_NE(nullptr, named);
    std::fstream file(named, std::ios::binary | std::ios::in | std::ios::out);
    mern_t wanted{};
    std::vector<std::unique_ptr<OpenDevice>> devices;
    ASSERT_TRUE(file.read(reinterpret_cast<char*>(&wanted), sizeof wanted));
    do {
        devices.push_back(std::make_unique<OpenDevice>("sim:planar@A0"));
        ASSERT_EQ(0, devices.back()->error());
    } while (devices.back()->handle().words[1] != wanted.words[1] && devices.size() < 100);
    file.seekp(0);
    file.write(reinterpret_cast<const char*>(&devices.back()->handle()), sizeof wanted);
}

TEST_F(IicPaths, HandleOfAnotherProcessIsForeign)
{
    std::vector<std::unique_ptr<OpenDevice>> devices;
    // repeated until a new process uses the same place for the first time
    do {
        devices.push_back(std::make_unique<OpenDevice>("sim:planar@A0"));
        ASSERT_EQ(0, devices.back()->error());
    } while (devices.back()->handle().words[2] != 1);
    const mern_t own = devices.back()->handle();
    const auto ticket = settings.folder() / "ticket";
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
    const std::string command = std::string(ticketVariable) + "=" + ticket.string() + " " + emulator + " " + program +
                                " --gtest_also_run_disabled_tests --gtest_filter=IicOfAFreshProcess.DISABLED_* > " +
                                (settings.folder() / "said").string();
    std::ofstream(ticket, std::ios::binary).write(reinterpret_cast<const char*>(&own), sizeof own);
    ASSERT_EQ(0, std::system(command.c_str()));
    mern_t foreign{};
    ASSERT_TRUE(std::ifstream(ticket, std::ios::binary).read(reinterpret_cast<char*>(&foreign), sizeof foreign));
    for (int word = 0; word < 3; ++word) {
        EXPECT_EQ(own.words[word], foreign.words[word]) << "the same place, taken the same number of times";
    }
    EXPECT_NE(0, std::memcmp(&own, &foreign, sizeof own));
    EXPECT_EQ(std::vector<int>(8, EBADF), errnosOf(foreign));
    EXPECT_EQ(0xA0U, devices.back()->number(3)) << "the device in that place is still open";
}

/// A child inherits the places of handles, but what it does with them does not affect the parent.
TEST_F(IicPaths, HandleOpenedByAForkedChildIsForeign)
{
    int pipes[2];
    ASSERT_EQ(0, pipe(pipes));
    const pid_t child = fork();
    if (child == 0) {
        const MernNode local;
        mern_t handle = mern_iic_open(local, "sim:planar@A0", MERN_OPEN_READ_WRITE_SYNC);
        const bool sent = write(pipes[1], &handle, sizeof handle) == static_cast<ssize_t>(sizeof handle);
        _exit(sent ? 0 : 1);
    }
    mern_t handle{};
    ASSERT_EQ(static_cast<ssize_t>(sizeof handle), read(pipes[0], &handle, sizeof handle));
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    EXPECT_EQ(std::vector<int>(8, EBADF), errnosOf(handle));
    close(pipes[0]);
    close(pipes[1]);
}

TEST_F(IicPaths, ErrnoIsLeftAloneBySuccess)
{
    OpenDevice device("sim:planar@A0");
    errno = 1234;
    EXPECT_EQ(0, mern_iic_seek(device.handle(), 0, 0));
    std::uint8_t byte = 0;
    EXPECT_EQ(1, mern_iic_read(device.handle(), &byte, 1));
    EXPECT_EQ(1234, errno);
}

/// Runs `work(number)` in several threads that start together.
void together(int count, const std::function<void(int)>& work)
{
    std::latch begun(count);
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number) {
        threads.emplace_back([&work, &begun, number] {
            begun.arrive_and_wait();
            work(number);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(IicPaths, ManyThreadsOpenUseAndClose)
{
    std::atomic<int> good{0};
    together(8, [&](int) {
        for (int round = 0; round < 20; ++round) {
            OpenDevice device("sim:planar");
            device.set(main256());
            device.seek(round * 8);
            good += device.readAll(8) == part(pattern(32768, 1), static_cast<std::size_t>(round) * 8, 8) ? 1 : 0;
        }
    });
    EXPECT_EQ(160, good);
}

// Each thread has its own chip: two that write to one without its lock may wait for each other longer than a write
// cycle.
TEST_F(IicPaths, ThreadsWithHandlesOfTheirOwnMixNothingOnOneBus)
{
    const struct {
        Block settings;
        long start;
        // precedes the data of a read through a hub
        std::size_t statusBytes;
        const char* image;
    } chips[] = {{main256(), 1024, 0, "main.bin"},
                 {{.address = 0xA4, .offsetLength = 2, .pageSize = 128}, 1024, 0, "large.bin"},
                 {{.address = 0xA8, .offsetLength = 1, .pageSize = 8}, 100, 0, "small.bin"},
                 {hub128(), onRiser + 1024, 1, "riser.bin"}};
    together(4, [&](int number) {
        const auto& chip = chips[number];
        OpenDevice device("sim:planar");
        for (unsigned int round = 0; round < 10; ++round) {
            const Bytes fresh = pattern(100, 50 + round + 10 * static_cast<unsigned int>(number));
            EXPECT_EQ((Answer{0, 0}), device.set(chip.settings));
            EXPECT_EQ((Answer{0, 0}), device.seek(chip.start));
            EXPECT_EQ((Answer{100, 0}), device.write(fresh));
            EXPECT_EQ((Answer{0, 0}), device.seek(chip.start));
            Bytes expected(chip.statusBytes);
            expected.insert(expected.end(), fresh.begin(), fresh.end());
            EXPECT_EQ(expected, device.readAll(expected.size())) << chip.image;
        }
    });
    for (unsigned int number = 0; number < 4; ++number) {
        const std::size_t start = number == 2 ? 100 : 1024;
        EXPECT_EQ(pattern(100, 59 + 10 * number), part(image(chips[number].image), start, 100)) << number;
    }
}

TEST_F(IicPaths, CallsOnOneHandleFollowOneAnother)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    const auto textOf = [](const Bytes& data) { return std::string(data.begin(), data.end()); };
    std::mutex guard;
    std::set<std::string> pieces;
    together(4, [&](int) {
        for (int round = 0; round < 50; ++round) {
            const Bytes data = device.readAll(16);
            const std::lock_guard hold(guard);
            EXPECT_TRUE(pieces.insert(textOf(data)).second);
        }
    });
    std::set<std::string> expected;
    for (std::size_t at = 0; at < 3200; at += 16) {
        expected.insert(textOf(part(pattern(32768, 1), at, 16)));
    }
    EXPECT_EQ(200U, expected.size());
    // each call read 16 consecutive bytes
    EXPECT_EQ(expected, pieces);
    // and moved the position once only
    EXPECT_EQ(part(pattern(32768, 1), 3200, 4), device.readAll(4));
}

TEST_F(IicPaths, EveryCallOfEveryThreadOnAHandleEndsWithAResultOrABadDescriptorOnceItIsClosed)
{
    const MernNode local;
    const mern_t shared = mern_iic_open(local, "sim:planar@A0", MERN_OPEN_READ_WRITE_SYNC);
    const std::vector<std::function<int()>> calls{
        [handle = shared]() mutable {
            std::uint32_t value = 0;
            return mern_iic_config(handle, 1, WOBU_IIC_DETECT_STATE, &value, 4) == 0 ? 1 : 0;
        },
        [handle = shared]() mutable { return mern_iic_seek(handle, 0x100, 0) == 0 ? 1 : 0; },
        [handle = shared]() mutable {
            Bytes data(8);
            return mern_iic_read(handle, data.data(), 8) == 8 ? 1 : 0;
        },
        [handle = shared]() mutable {
            Bytes raw = main256().raw();
            return mern_iic_config(handle, 2, WOBU_IIC_BLOCK, raw.data(), 44) == 0 ? 1 : 0;
        },
        [handle = shared]() mutable { return mern_iic_reset(handle, 1) == 0 ? 1 : 0; },
        [handle = shared]() mutable { return mern_iic_ffdc_unlock(handle, 0) == 0 ? 1 : 0; },
    };
    // calls before the close
    std::atomic<int> done{0};
    std::atomic<int> closed{0};
    together(static_cast<int>(calls.size()) + 1, [&](int number) {
        if (number == static_cast<int>(calls.size())) {
            mern_t handle = shared;
            while (done < 200) {
                std::this_thread::yield();
            }
            closed += mern_iic_close(handle) == 0 ? 1 : 0;
            return;
        }
        auto call = calls[static_cast<std::size_t>(number)];
        while (call() == 1) {
            ++done;
        }
        EXPECT_EQ(EBADF, errno) << number;
    });
    EXPECT_EQ(1, closed);
}

} // namespace
} // namespace kest::test
