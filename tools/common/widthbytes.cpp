#include "tools/common/widthbytes.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <cstddef>

namespace kest::tools
{
namespace
{

constexpr std::size_t fewestValues = 4;

bool repeats(std::span<const std::uint8_t> bytes, std::size_t period)
{
    return std::ranges::equal(bytes.subspan(period), bytes.first(bytes.size() - period));
}

bool isNoisyCopy(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other)
{
    std::size_t differing = 0;
    for (std::size_t at = 0; at < one.size(); ++at) {
        differing += static_cast<std::size_t>(std::popcount(static_cast<unsigned>(one[at] ^ other[at])));
    }
    return differing <= 2 * one.size();
}

} // namespace

bool isUniform(std::span<const std::uint8_t> bytes)
{
    return std::ranges::all_of(bytes, [&bytes](std::uint8_t byte) { return byte == bytes.front(); });
}

bool isPeriodic(std::span<const std::uint8_t> bytes)
{
    for (std::size_t period = 1; period <= bytes.size() / 2; ++period) {
        if (repeats(bytes, period)) {
            return true;
        }
    }
    return false;
}

bool isVaried(std::span<const std::uint8_t> bytes)
{
    std::bitset<256> values;
    for (const std::uint8_t byte : bytes) {
        values.set(byte);
    }
    return values.count() >= fewestValues && !isPeriodic(bytes);
}

bool areAlike(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other)
{
    for (std::size_t shift = 0; shift <= one.size() / 4 * 3; ++shift) {
        const std::size_t both = one.size() - shift;
        if (isNoisyCopy(one.subspan(shift), other.first(both)) || isNoisyCopy(one.first(both), other.subspan(shift))) {
            return true;
        }
    }
    return false;
}

} // namespace kest::tools
