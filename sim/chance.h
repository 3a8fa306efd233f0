/// The machine's random choices. One seed decides all of them: the same seed gives the same run on every host.
#pragma once

#include "base/hash.h"

#include <cstdint>
#include <string_view>

namespace kest::sim
{

/// One source of random numbers. A number is a hash of the source and of the number of an event, so a source has no
/// state: who draws counts the events, and keeps the count in the state file.
///
/// The hash is the output function of SplitMix64: Steele, Lea, Flood, "Fast splittable pseudorandom number generators",
/// with the constants of its reference implementation.
class chance
{
public:
    constexpr explicit chance(std::uint64_t seed = defaultSeed) : m_key{seed} {}

    /// A source of its own for a part, independent of the whole and of the other parts. Parts with a name and parts
    /// with a number are different ones.
    [[nodiscard]] constexpr chance of(std::uint64_t part) const { return chance{bits(part)}; }
    [[nodiscard]] constexpr chance of(std::string_view part) const { return of(fnvHash64(part)); }

    /// 64 even bits.
    [[nodiscard]] constexpr std::uint64_t bits(std::uint64_t event) const { return mixed(m_key + event * step); }
    /// Even spread over 0 to count - 1. @param count  not 0
    [[nodiscard]] constexpr std::uint32_t below(std::uint64_t event, std::uint32_t count) const
    {
        return static_cast<std::uint32_t>((bits(event) >> 32) * count >> 32);
    }
    /// Even spread over [0, 1).
    [[nodiscard]] constexpr double fraction(std::uint64_t event) const
    {
        return static_cast<double>(bits(event) >> 11) / 9007199254740992.0;
    }

    static constexpr std::uint64_t defaultSeed = 1;

private:
    static constexpr std::uint64_t step = 0x9E3779B97F4A7C15;

    static constexpr std::uint64_t mixed(std::uint64_t number)
    {
        number = (number ^ number >> 30) * 0xBF58476D1CE4E5B9;
        number = (number ^ number >> 27) * 0x94D049BB133111EB;
        return number ^ number >> 31;
    }

    std::uint64_t m_key;
};

} // namespace kest::sim
