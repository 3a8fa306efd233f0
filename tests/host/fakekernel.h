/// Stands in for the kernel under a Linux bus: adapters with chips, a log of what went over the wires, a clock, and
/// failures on demand.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <map>
#include <set>
#include <span>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

#include "platform/host/iic/systemcalls.h"

namespace kest::test
{

/// An EEPROM on a fake adapter, by its 7-bit address.
struct FakeChip {
    std::vector<std::uint8_t> memory;
    std::size_t offsetBytes = 2;
    std::uint64_t writeCycleNs = 0;
    std::uint64_t busyUntilNs = 0;
    std::size_t pointer = 0;
    bool refusesData = false;
    std::deque<std::uint8_t> hubStatus{}; ///< when set: each read begins with the next one; the last one is kept
};

class FakeKernel : public host::iic::systemCalls
{
public:
    static constexpr unsigned long i2cAdapter = I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL;

    FakeKernel() { host::iic::useSystemCalls(this); }
    FakeKernel(const FakeKernel&) = delete;
    FakeKernel& operator=(const FakeKernel&) = delete;
    ~FakeKernel() override { host::iic::useSystemCalls(nullptr); }

    unsigned long functions = i2cAdapter;
    int openError = 0;
    int funcsError = 0;
    mode_t nodeMode = S_IFCHR | 0600;
    gid_t nodeGroup = getgid();
    unsigned int minorNumber = 7;
    std::size_t longestRead = 8192; ///< quirk: longer ones are refused
    std::size_t longestWrite = 8192; ///< likewise
    std::size_t shortestMessage = 0; ///< likewise: shorter ones
    std::size_t mostMessages = 42; ///< likewise
    int absentError = ENXIO; ///< when nobody acknowledges
    std::uint64_t absentNs = 0; ///< that it takes to find out
    std::size_t mostBytes = SIZE_MAX; ///< of a transfer: after them it is given up, and the chip keeps what it took
    std::uint64_t giveUpNs = 0; ///< that it takes until then
    std::map<std::uint8_t, FakeChip> chips;
    std::set<std::uint8_t> held; ///< 7-bit addresses that a driver has
    std::deque<int> failures; ///< errno for each of the next transfers; 0 lets one pass
    int lastingFailure = 0; ///< errno for all after those
    std::function<void()> beforeTransfer;
    std::uint64_t clockNs = 1'000'000'000;
    std::uint64_t messageNs = 100'000; ///< what each transfer takes
    std::vector<std::string> log; ///< transfers: "50W 0010 50R 32"
    std::vector<std::string> calls; ///< everything else: "open /dev/i2c-7", "timeout 30"
    std::string name = "fake adapter";
    std::uint32_t adapterHz = 0; ///< from the device tree; 0: it has none
    int openFlags = 0;
    int openNodes = 0;

    int openNode(const char* path, int flags) override
    {
        calls.push_back(std::string("open ") + path);
        openFlags = flags;
        openNodes += openError == 0 ? 1 : 0;
        return fail(openError, m_nextDescriptor++);
    }
    int closeNode(int descriptor) override
    {
        --openNodes;
        m_slaves.erase(descriptor);
        return 0;
    }
    int statNode(int /*descriptor*/, struct stat& about) override
    {
        about = {};
        about.st_mode = nodeMode;
        about.st_rdev = makedev(89, minorNumber);
        about.st_gid = nodeGroup;
        return 0;
    }
    int control(int descriptor, unsigned long request, std::uintptr_t argument) override;
    std::string adapterName(unsigned int /*number*/) override { return name; }
    std::uint32_t adapterClockHz(unsigned int number) override { return number == minorNumber ? adapterHz : 0; }
    std::uint64_t nowNs() override { return clockNs; }
    void pause(std::uint64_t nanoseconds) override { clockNs += nanoseconds; }

private:
    static int fail(int error, int success)
    {
        errno = error != 0 ? error : errno;
        return error != 0 ? -1 : success;
    }
    static std::string hex(unsigned int value);
    int ordered();
    int messages(const i2c_rdwr_ioctl_data& request);
    int onWires(std::span<i2c_msg> all);
    static void give(FakeChip& chip, std::span<std::uint8_t> wanted);
    bool take(FakeChip& chip, std::span<const std::uint8_t> sent);
    int smbus(std::uint8_t slave, const i2c_smbus_ioctl_data& request);

    std::map<int, std::uint8_t> m_slaves; ///< by open file: the address that SMBus calls go to
    int m_nextDescriptor = 1000;
};

} // namespace kest::test
