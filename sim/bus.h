/// One bus of a simulated machine, as its users see it.
#pragma once

#include "sim/adapter.h"
#include "sim/signals.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace kest::sim
{

/// Part of a transaction. A segment whose address and direction are those of the one before it and that has `joined`
/// set goes on without a repeated START.
struct segment {
    std::uint8_t address = 0; ///< 8-bit form, even
    direction way = direction::write;
    std::span<std::uint8_t> bytes; ///< sent, or filled
    bool joined = false;
};

/// How a transaction ended.
enum class outcome : std::uint8_t {
    done,
    addressNotAcknowledged,
    dataNotAcknowledged,
    arbitrationLost,
    sclHeld,
    sdaHeld,
    shortTransfer, ///< STOP came before the last byte
    gone, ///< the adapter is gone
    timedOut, ///< the adapter gave it up; some report so where nobody acknowledges
    refused, ///< the adapter does not take it; nothing was sent
};

struct transferResult {
    outcome end = outcome::done;
    std::size_t segment = 0; ///< index of the segment in which it ended, when not done
    std::size_t bytesMoved = 0; ///< data bytes acknowledged or read in that segment, when not done
    std::uint64_t busTimeNs = 0; ///< bus time after it
};

/// The fastest clock of a bus; a transaction that asks for more runs at this one.
constexpr std::uint32_t fastestKhz = 1000;

/// The clock of a transaction, kHz.
/// @param asked  0: the bus's own
constexpr std::uint32_t clockKhz(std::uint32_t asked, std::uint32_t own)
{
    return std::clamp(asked == 0 ? own : asked, std::uint32_t{1}, fastestKhz);
}

/// One bus of a machine. Transactions of all threads and processes follow one another.
class bus
{
public:
    virtual ~bus() = default;
    /// Runs the segments as one transaction: START, a repeated START where a segment begins, STOP. Never retries.
    /// @param speedKhz  clock to use; 0 the bus's own
    virtual transferResult transfer(std::span<segment> segments, std::uint32_t speedKhz) = 0;
    /// Sends an address alone, in write direction, and a STOP.
    virtual transferResult probe(std::uint8_t address, std::uint32_t speedKhz) = 0;
    /// Nine clocks and a STOP. @return done, who still holds the bus, or as lines()
    virtual outcome reset() = 0;
    /// Clock pulses alone, with SDA released and without a STOP: half of a recovery. @return as reset()
    virtual outcome clocks(unsigned) { return lines(); }
    /// Whether a line is held low right now: done, sclHeld, sdaHeld; gone or timedOut from an adapter that is not there.
    virtual outcome lines() = 0;
    /// Bus time so far, of all users, in nanoseconds.
    virtual std::uint64_t busTimeNs() = 0;
    /// Lets bus time pass with the bus idle (in real mode waits for it).
    virtual void idle(std::uint64_t nanoseconds) = 0;
    [[nodiscard]] virtual std::uint32_t defaultSpeedKhz() const = 0;
    [[nodiscard]] virtual const std::string& name() const = 0;
    /// The kind of adapter, which limits transfers and probes.
    [[nodiscard]] virtual const adapterKind& adapter() const = 0;
};

} // namespace kest::sim
