/// One IIC bus, as the layer sees it: transactions, a probe, a reset, and what the adapter is able to do.
///
/// A bus never repeats anything by itself: pages, polling, repeats and time-outs of transfers are written once, above
/// it. Addresses are in the 8-bit form, even. Implementations: bus_linux.cpp, bus_sim.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kest::host::iic
{

enum class direction : std::uint8_t {
    write,
    read
};

/// Part of a transaction; each begins with a START or a repeated START and the address.
struct segment {
    std::uint8_t address = 0;
    direction way = direction::write;
    std::span<std::uint8_t> bytes; ///< sent, or filled
};

/// How a transaction ended.
enum class outcome : std::uint8_t {
    done,
    addressNotAcknowledged,
    dataNotAcknowledged,
    notAcknowledged, ///< the adapter does not say whether address or data
    arbitrationLost,
    interrupted, ///< by a signal; may be repeated
    sclHeld,
    sdaHeld,
    busBusy,
    timedOut,
    shortTransfer,
    gone,
    notSupported,
    tooLong, ///< the adapter takes less at once; nothing was sent
    notPermitted,
    noMemory,
    failed,
};

/// Whether nobody acknowledged.
constexpr bool isSilence(outcome end)
{
    return end == outcome::addressNotAcknowledged || end == outcome::notAcknowledged;
}
/// @return the errno of a call that ends so; 0 for `done`
int errnoOf(outcome end);
/// For traces and first-failure data.
const char* nameOf(outcome end);
/// Whether an errno of the system means that memory or descriptors have run out.
bool isShortage(int error);

struct transferResult {
    outcome end = outcome::done;
    std::size_t segment = 0; ///< in which it ended, when not done
    std::size_t bytesMoved = 0; ///< data bytes moved in that segment, when not done
    std::uint64_t nowNs = 0; ///< the bus's clock after it
};

/// What fits into a transaction.
struct transferLimits {
    std::size_t writeBytes = 0; ///< of one written segment
    std::size_t readBytes = 0; ///< of one read segment
    std::size_t segments = 0;
    bool repeatedStart = true; ///< not a STOP and a START in its place; a kernel's bus does not tell
    bool plain = true; ///< messages of any kind, not SMBus calls alone
    /// The longest wire time, ns, with which the adapter is not expected to give a transaction up; 0: not known.
    std::uint64_t wireNs = 0;

    bool operator==(const transferLimits&) const = default;
};

/// Clock and time-out of a transaction.
struct transferPace {
    std::uint32_t speedKhz = 0; ///< 0: the bus's own
    std::uint32_t timeoutMs = 0; ///< 0: the adapter's own
};

/// How to ask whether a device is there.
enum class probeMethod : std::uint8_t {
    safe, ///< by the range of the address: an address alone upsets some devices, a read others
    target, ///< of a device that somebody named: by a read, where the adapter can't send the address alone
    addressOnly, ///< the address in write direction and nothing else: a hub must not be asked by a read
};

/// What identifies a bus to every process and configuration: where its shared files are, and how their names begin.
struct busIdentity {
    std::filesystem::path folder;
    std::string name; ///< file-name safe
    mode_t mode; ///< permissions of the shared files: anyone who may use the bus may lock it
    gid_t group; ///< of the shared files
    std::string text; ///< for people: the path without the device's address
    /// Of the shared files that root makes, and of the folder: trusted beside root and the process's own user.
    uid_t owner = 0;
};

class bus
{
public:
    virtual ~bus() = default;
    /// Runs the segments as one transaction: START, repeated STARTs, STOP.
    virtual transferResult transfer(std::span<const segment> segments, const transferPace& pace) = 0;
    /// @return done when something acknowledged, addressNotAcknowledged when nothing did
    virtual transferResult probe(std::uint8_t address, probeMethod method, const transferPace& pace) = 0;
    /// Frees a held bus where the bus can; else starts the adapter afresh and asks `address` (0: nothing) for a sign of
    /// life.
    virtual outcome reset(std::uint8_t address) = 0;
    /// What the kind of adapter takes. One that takes less ends a transaction with `tooLong`.
    [[nodiscard]] virtual transferLimits limits() const = 0;
    /// The clock that a transaction of this pace is reckoned with, Hz.
    [[nodiscard]] virtual std::uint64_t clockHz(const transferPace& pace) const = 0;
    [[nodiscard]] virtual const busIdentity& identity() const = 0;
    [[nodiscard]] virtual std::string adapterName() const = 0;
    /// What the adapter can do, one short text each.
    [[nodiscard]] virtual std::vector<std::string> capabilities() const = 0;
    /// What it can't do, one short text each; empty: nothing is known.
    [[nodiscard]] virtual std::vector<std::string> lacks() const = 0;
    /// The kernel's number of the adapter; none for a bus that is not the kernel's.
    [[nodiscard]] virtual std::optional<unsigned int> kernelNumber() const { return std::nullopt; }
    /// Whether a kernel driver has taken the address.
    virtual bool heldByDriver(std::uint8_t address) = 0;
    /// The bus's clock, ns: bus time of a simulated bus, else real time.
    virtual std::uint64_t nowNs() = 0;
    /// Lets time pass on the bus's clock.
    virtual void pause(std::uint64_t nanoseconds) = 0;
    /// How long to leave the bus alone between two questions to a busy device, ns; 0 not at all.
    [[nodiscard]] virtual std::uint64_t questionPauseNs() const = 0;
};

} // namespace kest::host::iic
