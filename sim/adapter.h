/// What the controller of a bus and its driver take, and how they report what went wrong. It limits transactions; the
/// bus itself is the same behind every one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kest::sim
{

/// The bytes that the longest SMBus calls carry behind their command.
enum class smbusCalls : std::uint8_t {
    none, ///< no such limit: it takes plain messages
    words, ///< 2
    blocks, ///< 32, without a count on the wire
};

constexpr std::size_t smbusWordBytes = 2, smbusBlockBytes = 32;

/// Highest values of a machine file.
constexpr std::size_t mostMessageBytes = 8192, mostMessages = 42;
constexpr std::uint32_t longestAdapterTimeoutMs = 60'000, longestStretchLimitUs = 1'000'000;

/// One that takes everything, unless a field says otherwise.
struct adapterKind {
    std::size_t messageBytes = 0; ///< of the longest message; 0: any
    std::size_t messages = 0; ///< of one transaction; 0: any
    smbusCalls smbus = smbusCalls::none;
    std::uint32_t timeoutMs = 0; ///< it ends a transaction that takes longer; 0: never
    bool absentTimesOut = false; ///< it reports a time-out where nobody acknowledges an address
    bool noEmptyMessages = false; ///< it sends no address without data
    std::uint32_t stretchLimitUs = 25'000; ///< how long it waits for SCL; the default is t_TIMEOUT of SMBus 3.1
    bool losesBits = false; ///< it now and then misses the first bit behind a stretched clock
    bool stopBetween = false; ///< it sends a STOP and a START where a repeated START belongs

    bool operator==(const adapterKind&) const = default;
};

/// How long an adapter waits for SCL, in nanoseconds, before it gives a transaction up.
constexpr std::uint64_t patienceNs(const adapterKind& kind)
{
    const std::uint64_t limitNs = kind.stretchLimitUs * std::uint64_t{1000};
    const std::uint64_t timeoutNs = kind.timeoutMs * std::uint64_t{1'000'000};
    return timeoutNs == 0 ? limitNs : std::min(limitNs, timeoutNs);
}

/// How long its driver waits, in nanoseconds, for a controller that does nothing any more.
constexpr std::uint64_t vainWaitNs(const adapterKind& kind)
{
    return kind.timeoutMs == 0 ? patienceNs(kind) : kind.timeoutMs * std::uint64_t{1'000'000};
}

/// What an adapter lacks, one short text each, for people. Empty: nothing.
std::vector<std::string> adapterLimits(const adapterKind& kind);

} // namespace kest::sim
