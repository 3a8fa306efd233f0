/// The simulated machine: a folder of buses and chips that any number of processes use at the same time.
///
/// The folder holds machine.toml (buses and chips), one raw image file for each chip with memory, and a mapped state
/// file for the volatile registers, bus times and faults. Each bus transaction holds its bus, across processes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kest::sim
{

enum class direction : std::uint8_t {
    write,
    read
};

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
};

struct transferResult {
    outcome end = outcome::done;
    std::size_t segment = 0; ///< index of the segment in which it ended, when not done
    std::size_t bytesMoved = 0; ///< data bytes acknowledged or read in that segment, when not done
    std::uint64_t busTimeNs = 0; ///< bus time after it
};

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
    /// Nine clocks and a STOP. @return done, or who still holds the bus
    virtual outcome reset() = 0;
    /// Clock pulses alone, with SDA released and without a STOP: half of a recovery. @return as reset()
    virtual outcome clocks(unsigned) { return lines(); }
    /// Whether a line is held low right now: done, sclHeld, sdaHeld, or gone.
    virtual outcome lines() = 0;
    /// Bus time so far, of all users, in nanoseconds.
    virtual std::uint64_t busTimeNs() = 0;
    /// Lets bus time pass with the bus idle (in real mode waits for it).
    virtual void idle(std::uint64_t nanoseconds) = 0;
    [[nodiscard]] virtual std::uint32_t defaultSpeedKhz() const = 0;
    [[nodiscard]] virtual const std::string& name() const = 0;
};

/// What a chip of the machine file is; for listings.
struct chipInfo {
    std::string bus;
    std::string node; ///< of the bus; "" the local one
    std::string type; ///< as in machine.toml
    std::uint8_t address = 0;
    bool behindHub = false;
    std::uint8_t hubAddress = 0;
    std::uint8_t port = 0;
    std::filesystem::path image; ///< empty for chips without memory
};

/// A machine opened in this process. Cheap to open twice: one folder is one object.
class machine
{
public:
    virtual ~machine() = default;
    /// @param node  "" for the local node. @return null when there is no such bus
    virtual std::shared_ptr<bus> findBus(const std::string& name, const std::string& node) = 0;
    [[nodiscard]] virtual std::vector<std::string> busNames(const std::string& node) const = 0;
    [[nodiscard]] virtual std::vector<chipInfo> chips() const = 0;
    [[nodiscard]] virtual const std::filesystem::path& folder() const = 0;
    /// Registers of every chip for people: name, value, what the pins do.
    struct registerValue {
        std::string chip;
        std::string name;
        std::uint32_t value;
        std::string meaning;
    };
    virtual std::vector<registerValue> registers() = 0;
    /// Registers to their defaults, hubs out of reset, held lines free, write cycles over; images stay.
    virtual void powerCycle() = 0;

    /// kind             what happens at a matching transaction                                   value
    /// nack               the address is not acknowledged
    /// nack-data          data byte `byte` of a write is not acknowledged
    /// hold-sda, hold-scl the line is held from `byte` (0: the address) until a bus reset        resets outlasted
    /// short              a STOP in the middle of data byte `byte`
    /// arbitration        another controller wins at `byte` (0: the address)
    /// corrupt            data byte `byte` is changed                                            XOR mask, 0 is 0xFF
    /// stuck-write-cycle  the write cycle it starts does not end, and the page is lost           ms, 0 for ever
    /// gone               the adapter is gone
    /// hub-status         a transfer through the hub ends with a status                          the status
    /// hub-silent         the hub answers nothing
    /// hub-bad-first-byte a read through the hub begins with a byte that is no status            that byte, 0 is 0xA5
    /// hub-hold-sda,      the sub-bus of the transfer's port is held until a sub-bus reset       resets outlasted
    /// hub-hold-scl
    struct fault {
        std::string kind{};
        std::string
            bus{}; ///< empty: every bus, each counting for itself. "NODE:BUS" on a node that is not the local one
        std::string node{}; ///< without a bus: the buses of this node alone; empty: of every node
        std::uint8_t address = 0; ///< 0: every address; that of the chip for stuck-write-cycle, also behind a hub
        std::string way{}; ///< "", "read" or "write"
        std::uint64_t nth =
            0; ///< strikes first at the n-th matching transaction from now on, counted from 1; 0 at once
        double probability = 1.0;
        std::uint64_t seed = 1;
        std::uint64_t count = 0; ///< how many times it strikes; 0 until cleared
        std::uint32_t value = 0; ///< hub status, XOR mask of a corrupted byte, ...
        std::uint64_t byte = 0; ///< data byte it strikes at, counted from 0 after the START
        bool untilReset =
            false; ///< ends for good with a reset: of the sub-buses or the hub's own line for hub-..., else of the bus
    };
    /// @return a number to clear it by. Throws std::invalid_argument for an unknown kind, bus, node or value.
    virtual std::uint32_t addFault(const fault& what) = 0;
    virtual bool clearFault(std::uint32_t number) = 0;
    virtual void clearFaults() = 0;
    struct listedFault {
        std::uint32_t number;
        fault what;
        std::uint64_t struck;
    };
    virtual std::vector<listedFault> faults() = 0;

    /// Records what goes over a bus, by all processes, as a VCD file (SCL, SDA) until stopped. Ends the recording under
    /// way when it begins. @return false with errno: EEXIST when the file holds anything but a waveform
    virtual bool startWave(const std::string& busName, const std::filesystem::path& file) = 0;
    /// @return false with errno, ENOENT when nothing is being recorded, also because the file was lost
    virtual bool stopWave(const std::string& busName) = 0;
};

/// @param realTime  transactions also take their bus time
/// A damaged state file is kept as machine.state.damaged, which a line on standard error says,
/// and the machine starts anew.
/// Throws std::runtime_error with "FILE:LINE: what" for an unusable folder, among them std::system_error with the code
/// of what the system refused.
std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, bool realTime);

/// Real time as a machine sees it: nanoseconds from any begin, which never go back.
struct realClock {
    virtual ~realClock() = default;
    virtual std::uint64_t nowNs() = 0;
    /// Waits until nowNs() has reached a time.
    virtual void sleepUntil(std::uint64_t nanoseconds) = 0;
};
/// A machine in the real time of a clock. @param clock  outlives the machine and all its buses
std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, realClock& clock);

} // namespace kest::sim
