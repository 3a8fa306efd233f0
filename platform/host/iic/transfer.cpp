#include "platform/host/iic/transfer.h"

#include <algorithm>
#include <cerrno>
#include <limits>

namespace kest::host::iic
{
namespace
{

// by far more than the pages of the largest chip take
constexpr std::uint32_t longestForeignWriteMs = 10'000;

/// The part of a position that counts up.
std::uint32_t countingMask(const transferSettings& settings)
{
    return settings.offsetLength % 2 == 1 ? 0xFFU : 0xFFFFU;
}

bool positionFits(const transferSettings& settings)
{
    return throughHub(settings) || settings.position <= countingMask(settings);
}

} // namespace

std::uint32_t patienceMs(const transferSettings& settings)
{
    return settings.pace.timeoutMs != 0 ? settings.pace.timeoutMs : longestForeignWriteMs;
}

std::uint32_t positionPlus(const transferSettings& settings, std::size_t moved)
{
    const std::uint32_t mask = countingMask(settings);
    return (settings.position & ~mask) | static_cast<std::uint32_t>((settings.position + moved) & mask);
}

std::uint32_t positionAfter(const transferSettings& settings, direction way, std::size_t length)
{
    if (settings.offsetLength == 0) {
        return settings.position;
    }
    if (throughHub(settings)) {
        // a status byte is none of the device's
        return positionPlus(settings, way == direction::read ? length - 1 : length);
    }
    // past the end it stays there: wrapped, the next write would overwrite the start
    return settings.position + static_cast<std::uint32_t>(length);
}

offsetBytes::offsetBytes(std::uint32_t position, std::size_t count) : m_count(count)
{
    for (std::size_t index = 0; index < count; ++index) {
        m_bytes.at(index) = static_cast<std::uint8_t>(position >> (8 * (count - 1 - index)));
    }
}

std::size_t leastBytes(const transferSettings& settings, direction way)
{
    if (settings.offsetLength == 0) {
        return std::numeric_limits<std::size_t>::max();
    }
    if (way == direction::write) {
        return settings.offsetLength + std::size_t{1};
    }
    return throughHub(settings) ? 2 : 1;
}

bool takeLess(transferLimits& takes, const transferSettings& settings, std::span<const segment> refused)
{
    const segment& last = refused.back();
    const std::size_t least = leastBytes(settings, last.way);
    if (refused.size() > 2) {
        takes.segments = 2;
        return true;
    }
    if (last.bytes.size() <= least) {
        return false;
    }
    std::size_t& most = last.way == direction::read ? takes.readBytes : takes.writeBytes;
    most = std::max(last.bytes.size() / 2, least);
    return true;
}

int checkTransfer(const transferSettings& settings, const transferLimits& limits, direction way, std::size_t length)
{
    const bool reads = way == direction::read;
    if (settings.offsetLength == 0) {
        return length > (reads ? limits.readBytes : limits.writeBytes) ? EINVAL : 0;
    }
    if (!positionFits(settings)) {
        return EINVAL;
    }
    const std::uint32_t start = settings.position & countingMask(settings);
    if (!reads && length > std::size_t{countingMask(settings)} + 1 - start) {
        return EINVAL;
    }
    return limits.writeBytes < settings.offsetLength + (reads ? 0U : 1U) ? ENOSYS : 0;
}

} // namespace kest::host::iic
