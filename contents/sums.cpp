#include "contents/sums.h"

#include <numeric>

#include "base/crc32.h"

namespace kest::contents
{
namespace
{

std::uint32_t byteSum(std::span<const std::uint8_t> bytes)
{
    return std::accumulate(bytes.begin(), bytes.end(), std::uint32_t{0}) & 0xFFU;
}

std::uint32_t crc16Xmodem(std::span<const std::uint8_t> bytes)
{
    constexpr std::uint32_t polynomial = 0x1021;
    constexpr std::uint32_t top = 0x8000;
    std::uint32_t crc = 0;
    for (const std::uint8_t byte : bytes) {
        crc ^= static_cast<std::uint32_t>(byte) << 8;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & top) != 0 ? crc << 1 ^ polynomial : crc << 1;
        }
    }
    return crc & 0xFFFFU;
}

} // namespace

std::size_t bytesOfSum(sumKind which)
{
    switch (which) {
    case sumKind::zero8:
    case sumKind::low8:
        return 1;
    case sumKind::crc16Xmodem:
        return 2;
    case sumKind::crc32Big:
        return 4;
    default:
        return 0;
    }
}

std::uint32_t computeSum(sumKind which, std::span<const std::uint8_t> range)
{
    switch (which) {
    case sumKind::zero8:
        return (0x100U - byteSum(range)) & 0xFFU;
    case sumKind::low8:
        return byteSum(range);
    case sumKind::crc16Xmodem:
        return crc16Xmodem(range);
    case sumKind::crc32Big:
        return crc32(range);
    default:
        return 0;
    }
}

std::uint32_t storedSum(sumKind which, std::span<const std::uint8_t> bytes)
{
    std::uint32_t value = 0;
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        value = value << 8 | bytes[which == sumKind::crc16Xmodem ? bytes.size() - 1 - index : index];
    }
    return value;
}

void storeSum(sumKind which, std::uint32_t value, std::span<std::uint8_t> bytes)
{
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        bytes[which == sumKind::crc16Xmodem ? index : bytes.size() - 1 - index] = static_cast<std::uint8_t>(value);
        value >>= 8;
    }
}

const char* sumName(sumKind which)
{
    switch (which) {
    case sumKind::zero8:
        return "sum to zero";
    case sumKind::low8:
        return "sum";
    case sumKind::crc16Xmodem:
        return "CRC-16";
    case sumKind::crc32Big:
        return "CRC-32";
    default:
        return "none";
    }
}

} // namespace kest::contents
