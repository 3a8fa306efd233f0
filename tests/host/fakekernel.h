/// Stands in for the kernel under a Linux bus: adapters with chips, a log of what went over the wires, a clock,
/// failures to order.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <map>
#include <set>
#include <span>
#include <string>
#include <sys/sysmacros.h>
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
    std::deque<std::uint8_t> hubStatus{}; ///< not empty: each read begins with the next of them, the last stays
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
    std::uint32_t adapterHz = 0; ///< what the device tree says; 0 nothing
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
    int control(int descriptor, unsigned long request, std::uintptr_t argument) override
    {
        switch (request) {
        case I2C_FUNCS:
            *reinterpret_cast<unsigned long*>(argument) = functions;
            return fail(funcsError, 0);
        case I2C_TIMEOUT:
            calls.push_back("timeout " + std::to_string(argument));
            return 0;
        case I2C_SLAVE:
            return fail(held.contains(static_cast<std::uint8_t>(argument)) ? EBUSY : 0, 0);
        case I2C_SLAVE_FORCE:
            m_slaves[descriptor] = static_cast<std::uint8_t>(argument);
            return 0;
        case I2C_RDWR:
            return messages(*reinterpret_cast<i2c_rdwr_ioctl_data*>(argument));
        case I2C_SMBUS:
            return smbus(m_slaves[descriptor], *reinterpret_cast<i2c_smbus_ioctl_data*>(argument));
        default:
            return fail(ENOTTY, 0);
        }
    }
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
    static std::string hex(unsigned int value)
    {
        char text[8];
        std::snprintf(text, sizeof text, "%02X", value);
        return text;
    }
    int ordered()
    {
        int error = lastingFailure;
        if (!failures.empty()) {
            error = failures.front();
            failures.pop_front();
        }
        return error;
    }
    int messages(const i2c_rdwr_ioctl_data& request)
    {
        std::string line;
        const auto all = std::span(request.msgs, request.nmsgs);
        if (request.nmsgs > mostMessages || std::ranges::any_of(all, [this](const i2c_msg& message) {
                return message.len > ((message.flags & I2C_M_RD) != 0 ? longestRead : longestWrite) ||
                       message.len < shortestMessage;
            })) {
            // the kernel's check of an adapter's quirks
            return fail(EOPNOTSUPP, 0);
        }
        clockNs += messageNs;
        if (beforeTransfer) {
            beforeTransfer();
        }
        for (const i2c_msg& message : all) {
            const bool read = (message.flags & I2C_M_RD) != 0;
            line += (line.empty() ? "" : " ") + hex(message.addr) + (read ? "R " + std::to_string(message.len) : "W ");
            for (std::size_t index = 0; !read && index < message.len && message.len <= 12; ++index) {
                line += hex(message.buf[index]);
            }
            line += !read && message.len > 12 ? std::to_string(message.len) : "";
        }
        log.push_back(line);
        const int error = ordered();
        return error != 0 ? fail(error, 0) : onWires(all);
    }
    int onWires(std::span<i2c_msg> all)
    {
        for (i2c_msg& message : all) {
            const auto found = chips.find(static_cast<std::uint8_t>(message.addr));
            if (found == chips.end() || found->second.busyUntilNs > clockNs) {
                return fail(ENXIO, 0);
            }
            FakeChip& chip = found->second;
            if ((message.flags & I2C_M_RD) != 0) {
                give(chip, {message.buf, message.len});
            } else if (!take(chip, {message.buf, message.len})) {
                return fail(ENXIO, 0);
            }
        }
        return static_cast<int>(all.size());
    }
    static void give(FakeChip& chip, std::span<std::uint8_t> wanted)
    {
        if (!chip.hubStatus.empty() && !wanted.empty()) {
            wanted[0] = chip.hubStatus.front();
            if (chip.hubStatus.size() > 1) {
                chip.hubStatus.pop_front();
            }
            wanted = wanted.subspan(1);
        }
        for (std::uint8_t& byte : wanted) {
            byte = chip.memory[chip.pointer++ % chip.memory.size()];
        }
    }
    bool take(FakeChip& chip, std::span<const std::uint8_t> sent)
    {
        if (sent.size() >= chip.offsetBytes) {
            chip.pointer = 0;
            for (const std::uint8_t byte : sent.first(chip.offsetBytes)) {
                chip.pointer = chip.pointer << 8 | byte;
            }
            const auto data = sent.subspan(chip.offsetBytes);
            if (!data.empty() && chip.refusesData) {
                return false;
            }
            for (const std::uint8_t byte : data) {
                chip.memory[chip.pointer++ % chip.memory.size()] = byte;
            }
            chip.busyUntilNs = data.empty() ? chip.busyUntilNs : clockNs + chip.writeCycleNs;
        }
        return true;
    }
    int smbus(std::uint8_t slave, const i2c_smbus_ioctl_data& request)
    {
        const char* kinds[] = {"quick", "byte",       "byte data", "word data", "call",
                               "block", "i2c broken", "call",      "i2c block"};
        const bool read = request.read_write == I2C_SMBUS_READ;
        std::string line = hex(slave) + (read ? "R " : "W ") + kinds[request.size] + " " + hex(request.command);
        clockNs += messageNs;
        if (request.size == I2C_SMBUS_BYTE_DATA && read) {
            request.data->byte = static_cast<std::uint8_t>(0xA0 + request.command);
        } else if (request.size == I2C_SMBUS_BYTE && read) {
            request.data->byte = 0x5A;
        } else if (request.size == I2C_SMBUS_WORD_DATA && read) {
            request.data->word = 0x2211;
        } else if (request.size == I2C_SMBUS_BYTE_DATA) {
            line += " " + hex(request.data->byte);
        } else if (request.size == I2C_SMBUS_WORD_DATA) {
            line += " " + hex(request.data->word & 0xFF) + hex(request.data->word >> 8);
        } else if (request.size == I2C_SMBUS_I2C_BLOCK_DATA) {
            line += " " + std::to_string(request.data->block[0]);
            for (unsigned int index = 1; index <= request.data->block[0]; ++index) {
                if (read) {
                    request.data->block[index] = static_cast<std::uint8_t>(request.command + index - 1);
                } else {
                    line += (index == 1 ? ":" : "") + hex(request.data->block[index]);
                }
            }
        }
        log.push_back(line);
        return fail(ordered(), 0);
    }

    std::map<int, std::uint8_t> m_slaves; ///< of each open file, the address that SMBus calls go to
    int m_nextDescriptor = 1000;
};

} // namespace kest::test
