/// Device paths, nodes, handles.
#include <fcntl.h>
#include <sys/wait.h>
#include <thread>

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
    errno         = 0;
    mern_t handle = mern_iic_open(local, nullptr, 0x1002);
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
    settings.use("state = \"state\"\n[machine]\nfolder = \"state\"\n"); // a folder, but no machine
    EXPECT_EQ(ENODEV, OpenDevice("sim:planar").error());
}

TEST_F(IicPaths, EveryCopyOfAHandleIsTheSameDevice)
{
    OpenDevice device("sim:planar");
    mern_t     copy = device.handle();
    device.set(main256());
    EXPECT_EQ(0, mern_iic_seek(copy, 100, 0));
    EXPECT_EQ(part(pattern(32768, 1), 100, 4), device.readAll(4));
    bytes data(4);
    EXPECT_EQ(4, mern_iic_read(copy, data.data(), 4));
    EXPECT_EQ(part(pattern(32768, 1), 104, 4), data); // the position is the device's, not the copy's
}

/// Every function on a handle that is none. @return the errno each answered
std::vector<int> errnosOf(mern_t handle)
{
    std::vector<int> seen;
    std::uint8_t     byte = 0;
    std::uint32_t    word = 0;
    void*            data = nullptr;
    const auto       note = [&seen](int result, int expected) { seen.push_back(result == expected ? errno : -1); };
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
    const MernNode         local;
    EXPECT_EQ(all, errnosOf(MERN_INVALID));
    EXPECT_EQ(all, errnosOf(mern_t{}));
    mern_t handle = mern_iic_open(local, "sim:planar@A0", 0x1002);
    for (int word = 0; word < 5; ++word) {
        mern_t other = handle;
        other.words[word] ^= 1;
        EXPECT_EQ(all, errnosOf(other)) << word;
    }
    mern_t copy = handle;
    EXPECT_EQ(0, mern_iic_close(handle));
    EXPECT_EQ(all, errnosOf(copy));
    mern_t next = mern_iic_open(local, "sim:planar@A0", 0x1002); // takes the place, not the ticket
    EXPECT_EQ(all, errnosOf(copy));
    EXPECT_EQ(0, mern_iic_close(next));
}

TEST_F(IicPaths, HandleOfAnotherProcessIsForeign)
{
    int pipes[2];
    ASSERT_EQ(0, pipe(pipes));
    const pid_t child = fork();
    if (child == 0) {
        const MernNode local;
        // As another program's: a process that never shared this one's table has numbers of its own. Here: the table is inherited, so
        // the child closes what it opened and hands the ticket out.
        mern_t     handle = mern_iic_open(local, "sim:planar@A0", 0x1002);
        const bool sent   = write(pipes[1], &handle, sizeof handle) == static_cast<ssize_t>(sizeof handle);
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

TEST_F(IicPaths, ManyThreadsOpenUseAndClose)
{
    std::vector<std::thread> threads;
    std::atomic<int>         good{0};
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&good, this] {
            for (int round = 0; round < 20; ++round) {
                OpenDevice device("sim:planar");
                device.set(main256());
                device.seek(round * 8);
                good += device.readAll(8) == part(pattern(32768, 1), static_cast<std::size_t>(round) * 8, 8) ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(160, good);
}

TEST_F(IicPaths, CallsOnOneHandleFollowOneAnother)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    std::vector<std::thread> threads;
    std::atomic<int>         moved{0};
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&] {
            bytes data(16);
            for (int round = 0; round < 50; ++round) {
                moved += mern_iic_read(device.handle(), data.data(), 16);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(3200, moved);
    EXPECT_EQ(part(pattern(32768, 1), 3200, 4), device.readAll(4)); // each call moved the position once
}

} // namespace
} // namespace kest::test
