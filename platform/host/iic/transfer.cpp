#include "platform/host/iic/transfer.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include "base/clock.h"

namespace kest::host::iic
{
namespace
{

// by far more than the pages of the largest chip take
constexpr std::uint32_t longestForeignWriteMs = 10'000;
constexpr std::uint64_t bitsOfStart = 1;
// it takes a set-up time more, up to half a bit
constexpr std::uint64_t bitsOfRepeatedStart = 2;
constexpr std::uint64_t bitsOfStop = 1;
// with its acknowledge
constexpr std::uint64_t bitsOfByte = 9;
// of a message behind another one: repeated START and address
constexpr std::uint64_t headBits = bitsOfRepeatedStart + bitsOfByte;
constexpr std::uint64_t nsPerUs = 1000;
constexpr std::uint64_t usPerSecond = 1'000'000;
// What a hub makes of a transaction's wire time at most: behind a bus of 1 MHz it holds SCL for 2.5 bits in each.
constexpr std::uint64_t stretching = 4;

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

std::uint64_t wireNsOf(std::span<const segment> segments, std::uint64_t clockHz)
{
    std::uint64_t bits = bitsOfStop;
    for (const segment& part : segments) {
        bits += headBits + bitsOfByte * part.bytes.size();
    }
    return bits * nsPerSecond / std::max<std::uint64_t>(clockHz, 1);
}

std::size_t bytesInTime(std::uint64_t wireNs, std::uint64_t clockHz, const transferSettings& settings, direction way,
                        std::size_t messageBytes)
{
    const std::uint64_t mostBits = clockHz * (wireNs / nsPerUs) / usPerSecond;
    const std::uint64_t offsetBits = bitsOfStart + bitsOfByte * (1U + settings.offsetLength) + bitsOfStop;
    const std::uint64_t dataBits = mostBits - std::min(mostBits, offsetBits);
    if (way == direction::write) {
        return std::max<std::size_t>(static_cast<std::size_t>(dataBits / bitsOfByte), 1);
    }
    const std::uint64_t messageBits = headBits + bitsOfByte * messageBytes;
    const std::uint64_t lastBits = dataBits % messageBits;
    const std::uint64_t bytes =
        dataBits / messageBits * messageBytes + (lastBits - std::min(lastBits, headBits)) / bitsOfByte;
    return std::max<std::size_t>(static_cast<std::size_t>(bytes), leastBytes(settings, direction::read));
}

bool takeShorter(transferLimits& takes, const transferSettings& settings, std::span<const segment> givenUp,
                 std::uint64_t lastedNs, std::uint64_t clockHz)
{
    const segment& last = givenUp.back();
    const bool isLeast = givenUp.size() <= 2 && last.bytes.size() <= leastBytes(settings, last.way);
    if (isLeast || lastedNs >= stretching * wireNsOf(givenUp, clockHz)) {
        return false;
    }
    takes.wireNs = std::max<std::uint64_t>(lastedNs / stretching, 1);
    return true;
}

const char* lackOf(outcome end)
{
    return end == outcome::notSupported ? lacksCall : end == outcome::tooLong ? lacksLength : lacksNothing;
}

transferReport checkTransfer(const transferSettings& settings, const transferLimits& limits, direction way,
                             std::size_t length)
{
    const bool reads = way == direction::read;
    if (settings.offsetLength == 0) {
        const bool fits = length <= (reads ? limits.readBytes : limits.writeBytes);
        return {.error = fits ? 0 : EINVAL, .lacks = fits ? lacksNothing : lacksLength};
    }
    if (!positionFits(settings)) {
        return {.error = EINVAL};
    }
    const std::uint32_t start = settings.position & countingMask(settings);
    if (!reads && length > std::size_t{countingMask(settings)} + 1 - start) {
        return {.error = EINVAL};
    }
    if (reads && throughHub(settings) && !limits.repeatedStart) {
        return {.error = ENOSYS, .lacks = lacksRepeatedStart};
    }
    const bool fits = limits.writeBytes >= settings.offsetLength + (reads ? 0U : 1U);
    return {.error = fits ? 0 : ENOSYS, .lacks = fits ? lacksNothing : lacksLength};
}

} // namespace kest::host::iic
