/// What the tools ask of a bus beyond the layer's functions: what is on it, what its adapter can do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/iic/exchange.h"
#include "platform/host/iic/pagewaits.h"
#include "platform/mern.h"

namespace kest::host::iic
{

class bus;

enum class presence : std::uint8_t {
    present,
    absent,
    heldByDriver, ///< a kernel driver has the address; it was not asked
    uncertain, ///< nobody can find out
};

struct scanResult {
    std::uint8_t address = 0; ///< 8-bit form
    presence state = presence::absent;
    std::string reason; ///< when uncertain
    int error = 0; ///< when uncertain: the errno that a transfer would have ended with
};

/// The addresses that devices can have, 8-bit form: the ones outside are reserved.
constexpr std::uint8_t firstScanned = 0x10;
constexpr std::uint8_t lastScanned = 0xEE;

/// A bus opened by a tool. Not for use by two threads at once.
class toolBus
{
public:
    /// @param path    `/dev/i2c-N` or `sim:BUS`, with or without `@HH`
    /// @param node    -1 the local one, else 0-7
    /// @param[out] error  the errno that mern_iic_open() would set
    /// @return null on failure
    static std::unique_ptr<toolBus> open(const std::string& path, NodeType node, int& error);
    ~toolBus();

    /// Asks every address from firstScanned to lastScanned once, in the way that is safe for it. It does not wait for a
    /// busy device.
    std::vector<scanResult> scan();
    /// Asks one address, likewise. @param address  8-bit form, even, not 0
    /// @param speedKhz  of a simulated bus; 0: its own
    scanResult probe(std::uint8_t address, std::uint32_t speedKhz = 0);
    bool heldByDriver(std::uint8_t address);
    /// Asks one address again and again until something acknowledges, or the time of the bus's clock is up.
    /// @param speedKhz  of a simulated bus; 0: its own
    /// @return as probe(); absent when nothing acknowledged in all that time
    scanResult awaitAnswer(std::uint8_t address, std::uint32_t milliseconds, std::uint32_t speedKhz);
    /// Whether a handle of any process is writing pages to the address right now.
    [[nodiscard]] bool isBeingWritten(std::uint8_t address) const;
    /// What the address showed after the pages that this process wrote to it.
    [[nodiscard]] pageWaits waitsAfterPages(std::uint8_t address) const;
    /// @return 0 or an errno
    int reset();
    /// Sends one plain transaction. See exchange.h
    exchangeResult exchange(const exchangeOrder& order);
    /// Why exchange() can't work on this bus, as far as it is known beforehand; empty when it can.
    [[nodiscard]] std::string exchangeTrouble() const;
    /// Bytes that one exchange() reads at most.
    [[nodiscard]] std::size_t longestExchange(std::uint32_t speedKhz) const;

    [[nodiscard]] std::string adapterName() const;
    /// The kernel's number of the adapter; none for a simulated bus.
    [[nodiscard]] std::optional<unsigned int> kernelNumber() const;
    [[nodiscard]] std::vector<std::string> capabilities() const;
    [[nodiscard]] std::string path() const; ///< of the bus, without a device's address

private:
    explicit toolBus(std::shared_ptr<bus> wires);
    std::shared_ptr<bus> m_wires;
    std::size_t m_messageBytes; ///< that a message of exchange() takes, as far as it is known
};

/// Why the locks of a bus are refused to everybody, and the command that makes it right; empty when they are not, or
/// there is no such bus.
std::string lockFolderTrouble(const std::string& path, NodeType node);

/// What the adapter of a bus lacks, one short text each; empty when nothing is known, or there is no such bus.
std::vector<std::string> adapterLimits(const std::string& path, NodeType node);

/// Paths of the buses of a node: those of the simulated machine, and the `/dev/i2c-N` that exist. Sorted.
std::vector<std::string> listBuses(NodeType node);

} // namespace kest::host::iic
