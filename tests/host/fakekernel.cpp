#include "tests/host/fakekernel.h"

#include <algorithm>
#include <cstdio>

namespace kest::test
{

int FakeKernel::control(int descriptor, unsigned long request, std::uintptr_t argument)
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

std::string FakeKernel::hex(unsigned int value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%02X", value);
    return text;
}

int FakeKernel::ordered()
{
    int error = lastingFailure;
    if (!failures.empty()) {
        error = failures.front();
        failures.pop_front();
    }
    return error;
}

int FakeKernel::messages(const i2c_rdwr_ioctl_data& request)
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

int FakeKernel::onWires(std::span<i2c_msg> all)
{
    std::size_t left = mostBytes;
    for (i2c_msg& message : all) {
        const auto found = chips.find(static_cast<std::uint8_t>(message.addr));
        if (found == chips.end() || found->second.busyUntilNs > clockNs) {
            clockNs += absentNs;
            return fail(absentError, 0);
        }
        FakeChip& chip = found->second;
        const std::span<std::uint8_t> bytes{message.buf, std::min<std::size_t>(message.len, left)};
        if ((message.flags & I2C_M_RD) != 0) {
            give(chip, bytes);
        } else if (!take(chip, bytes)) {
            return fail(ENXIO, 0);
        }
        left -= bytes.size();
        if (bytes.size() < message.len) {
            clockNs += giveUpNs;
            return fail(ETIMEDOUT, 0);
        }
    }
    return static_cast<int>(all.size());
}

void FakeKernel::give(FakeChip& chip, std::span<std::uint8_t> wanted)
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

bool FakeKernel::take(FakeChip& chip, std::span<const std::uint8_t> sent)
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

int FakeKernel::smbus(std::uint8_t slave, const i2c_smbus_ioctl_data& request)
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

} // namespace kest::test
