#include "base/crc32.h"

#include <array>

namespace kest
{

namespace
{

constexpr std::uint32_t reflectedPolynomial = 0xEDB88320;
constexpr std::size_t step = 8; ///< bytes that go into the sum at once

/// Row r: what a byte adds to the sum when r more bytes follow it.
using sumTable = std::array<std::array<std::uint32_t, 256>, step>;

constexpr sumTable makeTable()
{
    sumTable table{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t sum = byte;
        for (int bit = 0; bit < 8; ++bit) {
            sum = sum >> 1 ^ ((sum & 1) != 0 ? reflectedPolynomial : 0U);
        }
        table[0][byte] = sum;
    }
    for (std::size_t row = 1; row < step; ++row) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t before = table[row - 1][byte];
            table[row][byte] = before >> 8 ^ table[0][before & 0xFF];
        }
    }
    return table;
}

constexpr sumTable table = makeTable();

/// Four bytes as a number, the first the lowest, whatever the host's byte order.
constexpr std::uint32_t lowestFirst(const std::uint8_t* at)
{
    return std::uint32_t{at[0]} | std::uint32_t{at[1]} << 8 | std::uint32_t{at[2]} << 16 | std::uint32_t{at[3]} << 24;
}

/// What four bytes add to the sum when `behind` more follow them in the same step.
constexpr std::uint32_t fourBytes(std::uint32_t bytes, std::size_t behind)
{
    return table[behind + 3][bytes & 0xFF] ^ table[behind + 2][bytes >> 8 & 0xFF] ^
           table[behind + 1][bytes >> 16 & 0xFF] ^ table[behind][bytes >> 24];
}

} // namespace

std::uint32_t crc32(std::span<const std::uint8_t> bytes) noexcept
{
    std::uint32_t sum = 0xFFFFFFFF;
    for (; bytes.size() >= step; bytes = bytes.subspan(step)) {
        sum = fourBytes(sum ^ lowestFirst(bytes.data()), 4) ^ fourBytes(lowestFirst(bytes.data() + 4), 0);
    }
    for (const std::uint8_t byte : bytes) {
        sum = sum >> 8 ^ table[0][(sum ^ byte) & 0xFF];
    }
    return ~sum;
}

} // namespace kest
