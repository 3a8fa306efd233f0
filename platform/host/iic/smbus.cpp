#include "platform/host/iic/smbus.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace kest::host::iic
{
namespace
{

constexpr std::uint8_t longestBlock = I2C_SMBUS_BLOCK_MAX;

bool can(unsigned long functions, unsigned long wanted) { return (functions & wanted) == wanted; }

std::optional<smbusCall> callForWrite(const segment& part, unsigned long functions)
{
    const std::span<const std::uint8_t> sent = part.bytes;
    smbusCall call{.address = part.address, .way = direction::write};
    if (sent.empty()) {
        return can(functions, I2C_FUNC_SMBUS_QUICK) ? std::optional(call) : std::nullopt;
    }
    call.command = sent[0];
    if (sent.size() == 1) {
        call.kind = I2C_SMBUS_BYTE;
        return can(functions, I2C_FUNC_SMBUS_WRITE_BYTE) ? std::optional(call) : std::nullopt;
    }
    call.hasData = true;
    if (sent.size() == 2 && can(functions, I2C_FUNC_SMBUS_WRITE_BYTE_DATA)) {
        call.kind = I2C_SMBUS_BYTE_DATA;
        call.data.byte = sent[1];
        return call;
    }
    if (sent.size() == 3 && can(functions, I2C_FUNC_SMBUS_WRITE_WORD_DATA)) {
        call.kind = I2C_SMBUS_WORD_DATA;
        // the low byte goes first
        call.data.word = static_cast<std::uint16_t>(sent[1] | sent[2] << 8);
        return call;
    }
    if (sent.size() <= longestBlock + 1U && can(functions, I2C_FUNC_SMBUS_WRITE_I2C_BLOCK)) {
        call.kind = I2C_SMBUS_I2C_BLOCK_DATA;
        call.data.block[0] = static_cast<std::uint8_t>(sent.size() - 1);
        std::ranges::copy(sent.subspan(1), &call.data.block[1]);
        return call;
    }
    return std::nullopt;
}

std::optional<smbusCall> callForRead(const segment& part, unsigned long functions)
{
    if (part.bytes.size() != 1 || !can(functions, I2C_FUNC_SMBUS_READ_BYTE)) {
        return std::nullopt;
    }
    return smbusCall{.address = part.address, .way = direction::read, .kind = I2C_SMBUS_BYTE, .hasData = true};
}

/// A read behind one byte that is written: a register's number.
std::optional<smbusCall> callForRegisterRead(std::uint8_t command, const segment& part, unsigned long functions)
{
    const std::size_t wanted = part.bytes.size();
    smbusCall call{.address = part.address, .way = direction::read, .command = command, .hasData = true};
    if (wanted == 1 && can(functions, I2C_FUNC_SMBUS_READ_BYTE_DATA)) {
        call.kind = I2C_SMBUS_BYTE_DATA;
        return call;
    }
    if (wanted == 2 && can(functions, I2C_FUNC_SMBUS_READ_WORD_DATA)) {
        call.kind = I2C_SMBUS_WORD_DATA;
        return call;
    }
    if (wanted != 0 && wanted <= longestBlock && can(functions, I2C_FUNC_SMBUS_READ_I2C_BLOCK)) {
        call.kind = I2C_SMBUS_I2C_BLOCK_DATA;
        call.data.block[0] = static_cast<std::uint8_t>(wanted);
        return call;
    }
    return std::nullopt;
}

} // namespace

std::optional<smbusCall> smbusCallFor(std::span<const segment> segments, unsigned long functions)
{
    const segment& first = segments.front();
    if (segments.size() == 1) {
        return first.way == direction::write ? callForWrite(first, functions) : callForRead(first, functions);
    }
    const segment& second = segments[1];
    if (segments.size() == 2 && first.way == direction::write && first.bytes.size() == 1 &&
        second.way == direction::read && second.address == first.address) {
        return callForRegisterRead(first.bytes[0], second, functions);
    }
    return std::nullopt;
}

bool takeData(const smbusCall& call, const segment& into)
{
    if (call.way == direction::write) {
        return true;
    }
    const std::span<std::uint8_t> wanted = into.bytes;
    switch (call.kind) {
    case I2C_SMBUS_BYTE:
    case I2C_SMBUS_BYTE_DATA:
        wanted[0] = call.data.byte;
        return true;
    case I2C_SMBUS_WORD_DATA:
        wanted[0] = static_cast<std::uint8_t>(call.data.word);
        wanted[1] = static_cast<std::uint8_t>(call.data.word >> 8);
        return true;
    default:
        std::copy_n(&call.data.block[1], wanted.size(), wanted.begin());
        return call.data.block[0] == wanted.size();
    }
}

transferLimits smbusLimits(unsigned long functions)
{
    struct limitRow {
        unsigned long function;
        std::size_t bytes;
    };
    // the first that the adapter has
    constexpr std::array writes{
        limitRow{.function = I2C_FUNC_SMBUS_WRITE_I2C_BLOCK, .bytes = longestBlock + 1U},
        limitRow{.function = I2C_FUNC_SMBUS_WRITE_WORD_DATA, .bytes = 3},
        limitRow{.function = I2C_FUNC_SMBUS_WRITE_BYTE_DATA, .bytes = 2},
        limitRow{.function = I2C_FUNC_SMBUS_WRITE_BYTE, .bytes = 1},
        limitRow{.function = 0, .bytes = 0},
    };
    constexpr std::array reads{
        limitRow{.function = I2C_FUNC_SMBUS_READ_I2C_BLOCK, .bytes = longestBlock},
        limitRow{.function = I2C_FUNC_SMBUS_READ_WORD_DATA, .bytes = 2},
        limitRow{.function = 0, .bytes = 1},
    };
    const auto has = [functions](const limitRow& row) { return can(functions, row.function); };
    return {.writeBytes = std::ranges::find_if(writes, has)->bytes,
            .readBytes = std::ranges::find_if(reads, has)->bytes,
            .segments = 2,
            .plain = false};
}

} // namespace kest::host::iic
