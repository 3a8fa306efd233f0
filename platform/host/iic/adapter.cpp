#include "platform/host/iic/adapter.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include "platform/host/iic/smbus.h"

namespace kest::host::iic
{
namespace
{

// the kernel refuses longer ones
constexpr std::size_t longestMessage = 8192;
constexpr std::size_t mostMessages = I2C_RDWR_IOCTL_MAX_MSGS;

struct functionRow {
    unsigned long mask;
    const char* name;
};
constexpr std::array functionNames{
    functionRow{.mask = I2C_FUNC_I2C, .name = "I2C messages"},
    functionRow{.mask = I2C_FUNC_10BIT_ADDR, .name = "10-bit addresses"},
    functionRow{.mask = I2C_FUNC_NOSTART, .name = "joined messages"},
    functionRow{.mask = I2C_FUNC_SMBUS_QUICK, .name = "SMBus quick command"},
    functionRow{.mask = I2C_FUNC_SMBUS_WRITE_BYTE, .name = "SMBus send byte"},
    functionRow{.mask = I2C_FUNC_SMBUS_READ_BYTE, .name = "SMBus receive byte"},
    functionRow{.mask = I2C_FUNC_SMBUS_WRITE_BYTE_DATA, .name = "SMBus write byte"},
    functionRow{.mask = I2C_FUNC_SMBUS_READ_BYTE_DATA, .name = "SMBus read byte"},
    functionRow{.mask = I2C_FUNC_SMBUS_WRITE_WORD_DATA, .name = "SMBus write word"},
    functionRow{.mask = I2C_FUNC_SMBUS_READ_WORD_DATA, .name = "SMBus read word"},
    functionRow{.mask = I2C_FUNC_SMBUS_WRITE_I2C_BLOCK, .name = "I2C block write"},
    functionRow{.mask = I2C_FUNC_SMBUS_READ_I2C_BLOCK, .name = "I2C block read"},
};

/// Where an address alone is known to upset a device (write-protect registers, a clock chip with an EEPROM), a byte is
/// read instead.
bool mindsAddressAlone(std::uint8_t address)
{
    const unsigned int address7 = address >> 1;
    return (address7 >= 0x30 && address7 <= 0x37) || (address7 >= 0x50 && address7 <= 0x5F);
}

/// Where a hub can be: a read would take its status from it.
bool mayBeHub(std::uint8_t address) { return (address & 0xF0U) == 0x80; }

transferResult ask(bus& wires, std::uint8_t address, std::span<std::uint8_t> into, const transferPace& pace)
{
    const segment question{.address = address, .way = into.empty() ? direction::write : direction::read, .bytes = into};
    return wires.transfer({&question, 1}, pace);
}

bool isRefusal(outcome end) { return end == outcome::notSupported || end == outcome::tooLong; }

} // namespace

transferLimits limitsOf(unsigned long functions)
{
    return hasFunctions(functions, I2C_FUNC_I2C)
               ? transferLimits{.writeBytes = longestMessage, .readBytes = longestMessage, .segments = mostMessages}
               : smbusLimits(functions);
}

outcome checkSegments(std::span<const segment> segments, unsigned long functions)
{
    if (!hasFunctions(functions, I2C_FUNC_I2C)) {
        return smbusCallFor(segments, functions) ? outcome::done : outcome::notSupported;
    }
    const bool takesEmpty = hasFunctions(functions, I2C_FUNC_SMBUS_QUICK);
    const auto isImpossible = [takesEmpty](const segment& part) {
        return part.bytes.size() > longestMessage || (part.bytes.empty() && !takesEmpty);
    };
    if (segments.size() > mostMessages) {
        return outcome::tooLong;
    }
    return std::ranges::any_of(segments, isImpossible) ? outcome::notSupported : outcome::done;
}

/// A target that somebody named, where the adapter has no address alone, is asked by a read of two bytes: of the
/// devices that can be there none minds, and a sensor may hold SDA after one. SMBus knows no such read.
transferResult askAddress(bus& wires, std::uint8_t address, probeMethod method, unsigned long functions,
                          const transferPace& pace)
{
    std::array<std::uint8_t, 2> bytes{};
    const std::span<std::uint8_t> into = bytes;
    const bool readsByte = method != probeMethod::addressOnly && mindsAddressAlone(address);
    transferResult result = ask(wires, address, into.first(readsByte ? 1 : 0), pace);
    const bool mayRead = method == probeMethod::target && !readsByte && !mayBeHub(address);
    if (isRefusal(result.end) && mayRead && hasFunctions(functions, I2C_FUNC_I2C)) {
        result = ask(wires, address, into, pace);
    }
    if (result.end == outcome::notAcknowledged) {
        // nothing but the address was asked
        result.end = outcome::addressNotAcknowledged;
    } else if (isRefusal(result.end)) {
        // Some adapters refuse an address alone only when it is sent.
        result.end = outcome::notSupported;
    }
    return result;
}

std::vector<std::string> functionTexts(unsigned long functions)
{
    std::vector<std::string> names;
    for (const functionRow& row : functionNames) {
        if (hasFunctions(functions, row.mask)) {
            names.emplace_back(row.name);
        }
    }
    return names;
}

std::vector<std::string> lackTexts(unsigned long functions)
{
    std::vector<std::string> texts;
    if (!hasFunctions(functions, I2C_FUNC_I2C)) {
        // behind their command
        const std::size_t bytes = smbusLimits(functions).writeBytes - 1;
        texts.push_back("SMBus calls only, with at most " + std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes"));
    }
    if (!hasFunctions(functions, I2C_FUNC_SMBUS_QUICK)) {
        texts.emplace_back("no messages without data");
    }
    return texts;
}

} // namespace kest::host::iic
