/// First-failure data.
#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <sys/uio.h>
#include <sys/wait.h>

#include "platform/host/iic/bus_sim.h"
#include "platform/host/iic/ffdc.h"
#include "tests/sanitizers.h"
#include "tests/system/iic_machine.h"

namespace
{

bool killsAtNextWrite = false;

} // namespace

/// Replaces the C library's function.
extern "C" ssize_t pwrite(int descriptor, const void* data, size_t size, off_t offset)
{
    if (killsAtNextWrite) {
        raise(SIGKILL);
    }
    const iovec whole{const_cast<void*>(data), size};
    return pwritev(descriptor, &whole, 1, offset);
}

namespace kest::test
{
namespace
{

class IicFirstFailure : public IicMachine
{
protected:
    static nlohmann::json recordOf(OpenDevice& device)
    {
        const std::string text = device.firstFailure();
        EXPECT_FALSE(text.empty());
        EXPECT_GE(4096U, text.size());
        return nlohmann::json::parse(text, nullptr, false);
    }
    void failRead(OpenDevice& device, const char* kind, int error, std::size_t length = 4)
    {
        const auto fault = machine->addFault({.kind = kind, .bus = "planar", .count = 1});
        Bytes data(length);
        EXPECT_EQ(error, device.read(data).error);
        machine->clearFault(fault);
        wires->reset();
    }
    [[nodiscard]] std::filesystem::path recordFile() const { return folder() / "iic.planar.A0.ffdc"; }
    /// The error of the record in the machine's folder, which every process can read; empty when there is none.
    [[nodiscard]] std::string sharedError() const
    {
        std::ifstream file(recordFile());
        const nlohmann::json record = nlohmann::json::parse(file, nullptr, false);
        return record.is_object() ? record.value("error", "") : "";
    }
};

TEST_F(IicFirstFailure, NamesWhatFailedAndTheLastTransactions)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    device.readAll(3);
    device.seek(0x1234);
    failRead(device, "short", EIO, 9);
    const nlohmann::json record = recordOf(device);
    EXPECT_EQ("read", record["operation"]);
    EXPECT_EQ("A0", record["target"]);
    EXPECT_EQ(0x1234, record["position"]);
    EXPECT_EQ(2, record["offsetLength"]);
    EXPECT_EQ(9, record["length"]);
    EXPECT_EQ(0, record["moved"]);
    EXPECT_EQ(EIO, record["errno"]);
    EXPECT_EQ("EIO", record["error"]);
    EXPECT_EQ("sim:planar", record["bus"]);
    EXPECT_EQ("simulated machine " + std::filesystem::canonical(folder()).string(), record["adapter"]);
    EXPECT_EQ(getpid(), record["process"]);
    ASSERT_EQ(2U, record["transactions"].size());
    const auto& first = record["transactions"][0];
    const auto& last = record["transactions"][1];
    EXPECT_EQ("0000", first["head"]);
    EXPECT_EQ("done", first["end"]);
    EXPECT_EQ("A0", last["address"]);
    EXPECT_EQ("1234", last["head"]);
    EXPECT_EQ(2, last["written"]);
    EXPECT_EQ(9, last["read"]);
    EXPECT_EQ("short", last["end"]);
    EXPECT_LT(first["ns"], last["ns"]);
}

TEST_F(IicFirstFailure, NoneWithoutAFailure)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    device.readAll(3);
    EXPECT_EQ("", device.firstFailure());
    EXPECT_EQ(0, mern_iic_ffdc_unlock(device.handle(), 0));
}

TEST_F(IicFirstFailure, TheFirstIsKeptUntilItIsUnlocked)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    failRead(device, "short", EIO);
    failRead(device, "hold-scl", ETIME);
    EXPECT_EQ("EIO", recordOf(device)["error"]);
    // reading the record does not remove it
    EXPECT_EQ("EIO", recordOf(device)["error"]);
    EXPECT_EQ(0, mern_iic_ffdc_unlock(device.handle(), 0));
    EXPECT_EQ("", device.firstFailure());
    failRead(device, "hold-scl", ETIME);
    EXPECT_EQ("ETIME", recordOf(device)["error"]);
}

TEST_F(IicFirstFailure, IsKeptAcrossProcesses)
{
    const pid_t child = fork();
    if (child == 0) {
        OpenDevice device("sim:planar");
        Bytes data(4);
        device.set({.address = 0xAE, .busyWaitMs = 0});
        _exit(device.read(data).error == ENXIO ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    OpenDevice device("sim:planar@AE");
    device.setNumber(2, 100);
    Bytes data(4);
    // a later failure, not the first
    EXPECT_EQ((Answer{0, ENXIO}), device.read(data));
    EXPECT_EQ(child, recordOf(device)["process"]);
    EXPECT_EQ("absent", recordOf(device)["silence"]);
}

TEST_F(IicFirstFailure, EachAddressHasItsOwn)
{
    OpenDevice one("sim:planar@A0");
    OpenDevice other("sim:planar@C0");
    failRead(one, "short", EIO);
    EXPECT_NE("", one.firstFailure());
    EXPECT_EQ("", other.firstFailure());
    failRead(other, "hold-sda", ETIME);
    EXPECT_EQ("ETIME", recordOf(other)["error"]);
    EXPECT_EQ("EIO", recordOf(one)["error"]);
}

TEST_F(IicFirstFailure, SilenceAfterAPageIsBusyAndBeforeOneAbsent)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    machine->addFault({.kind = "stuck-write-cycle", .bus = "planar", .count = 1});
    EXPECT_EQ((Answer{0, ETIME}), device.write({1}));
    EXPECT_EQ("busy", recordOf(device)["silence"]);
    EXPECT_EQ(0, mern_iic_ffdc_unlock(device.handle(), 0));
    OpenDevice absent("sim:planar@AE");
    Bytes data(1);
    EXPECT_EQ((Answer{0, ENXIO}), absent.read(data));
    const auto record = recordOf(absent);
    EXPECT_EQ("absent", record["silence"]);
    // equal transactions are one line
    ASSERT_EQ(1U, record["transactions"].size());
    EXPECT_LT(100, record["transactions"][0]["times"]);
}

TEST_F(IicFirstFailure, OtherCallsAreRecordedToo)
{
    OpenDevice device("sim:planar@A0");
    EXPECT_EQ(-1, mern_iic_seek(device.handle(), 0, 1));
    EXPECT_EQ("seek", recordOf(device)["operation"]);
    EXPECT_EQ("EINVAL", recordOf(device)["error"]);
}

TEST_F(IicFirstFailure, RecordStaysWithinItsSize)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    for (long position = 0; position < 40; ++position) {
        device.seek(position * 0x101);
        device.readAll(1);
    }
    failRead(device, "short", EIO);
    const auto record = recordOf(device);
    EXPECT_FALSE(record.is_discarded());
    EXPECT_EQ(16U, record["transactions"].size());
    EXPECT_EQ("short", record["transactions"].back()["end"]);
}

TEST_F(IicFirstFailure, WhatIsNoRecordIsNotGivenOut)
{
    OpenDevice device("sim:planar@A0");
    const auto path = folder() / "iic.planar.A0.ffdc";
    for (const std::string& junk :
         {std::string("{"), std::string(), std::string(5000, ' ') + "{}", std::string("\xFF\xFE")}) {
        std::ofstream(path, std::ios::binary) << junk;
        EXPECT_EQ("", device.firstFailure());
    }
    std::filesystem::remove(path);
    std::filesystem::create_symlink("/etc/passwd", path);
    EXPECT_EQ("", device.firstFailure());
    EXPECT_EQ(0, mern_iic_ffdc_unlock(device.handle(), 0));
    EXPECT_FALSE(std::filesystem::is_symlink(path));
    failRead(device, "short", EIO);
    EXPECT_EQ("EIO", recordOf(device)["error"]);
}

TEST_F(IicFirstFailure, WhatIsNoRecordIsReplacedByTheNextOne)
{
    OpenDevice device("sim:planar@A0");
    for (const std::string& junk : {std::string(), std::string("{\"operation\":\"re"), std::string(9000, '\0')}) {
        std::ofstream(recordFile(), std::ios::binary) << junk;
        failRead(device, "short", EIO);
        EXPECT_EQ("EIO", sharedError()) << junk.substr(0, 20);
        EXPECT_EQ(0, mern_iic_ffdc_unlock(device.handle(), 0));
    }
}

TEST_F(IicFirstFailure, LinksAndPipesInTheWayAreReplaced)
{
    OpenDevice device("sim:planar@A0");
    std::filesystem::create_symlink("nowhere", recordFile());
    failRead(device, "short", EIO);
    EXPECT_FALSE(std::filesystem::exists(folder() / "nowhere"));
    EXPECT_EQ("EIO", sharedError());
    EXPECT_EQ(0, mern_iic_ffdc_unlock(device.handle(), 0));
    ASSERT_EQ(0, mkfifo(recordFile().c_str(), 0600));
    EXPECT_EQ("", device.firstFailure());
    failRead(device, "hold-sda", ETIME);
    EXPECT_TRUE(std::filesystem::is_regular_file(recordFile()));
    EXPECT_EQ("ETIME", sharedError());
}

TEST_F(IicFirstFailure, WithoutADescriptorItIsAFailureAndNotNone)
{
    if (underSanitizer) {
        GTEST_SKIP() << "the check of virtual tables needs descriptors of its own";
    }
    OpenDevice device("sim:planar@A0");
    failRead(device, "short", EIO);
    struct rlimit before {
    };
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit nothing{0, before.rlim_max};
    void* data = &device;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &nothing));
    errno = 0;
    const int result = mern_iic_ffdc_extract(device.handle(), 0, &data);
    const int error = errno;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ((Answer{-1, ENOMEM}), (Answer{result, error}));
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ("EIO", recordOf(device)["error"]);
}

TEST_F(IicFirstFailure, ProcessKilledWhileItRecordsLeavesNothingInTheWay)
{
    const pid_t child = fork();
    if (child == 0) {
        std::shared_ptr<host::iic::bus> bus;
        if (host::iic::openSimulatedBus(folder(), false, "planar", "", bus) == 0) {
            killsAtNextWrite = true;
            host::iic::keepFirstFailure(*bus, {.operation = "read", .target = 0xA0, .error = EIO}, {});
        }
        _exit(1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    OpenDevice device("sim:planar@A0");
    EXPECT_EQ("", device.firstFailure());
    failRead(device, "hold-sda", ETIME);
    EXPECT_EQ("ETIME", sharedError());
    std::vector<std::string> records;
    for (const auto& entry : std::filesystem::directory_iterator(folder())) {
        if (entry.path().filename().string().find("ffdc") != std::string::npos) {
            records.push_back(entry.path().filename().string());
        }
    }
    EXPECT_EQ(std::vector<std::string>{"iic.planar.A0.ffdc"}, records);
}

TEST_F(IicFirstFailure, ReservedArgumentsAreZero)
{
    OpenDevice device("sim:planar@A0");
    void* data = &device;
    errno = 0;
    EXPECT_EQ(-1, mern_iic_ffdc_extract(device.handle(), 1, &data));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(nullptr, data);
    errno = 0;
    EXPECT_EQ(-1, mern_iic_ffdc_unlock(device.handle(), 1));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(-1, mern_iic_ffdc_extract(device.handle(), 0, nullptr));
    EXPECT_EQ(EFAULT, errno);
}

} // namespace
} // namespace kest::test
