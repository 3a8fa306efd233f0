/// Plain transactions for the tools: offset bytes, a repeated START, a read. Nothing else is ever sent: no SMBus call,
/// no address alone, no write without a read behind it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace kest::host::iic
{

class bus;

struct exchangeOrder {
    std::uint8_t address = 0; ///< 8-bit form
    std::span<const std::uint8_t> offset; ///< at most 4 bytes; none: the read alone, for a hub's status
    std::span<std::uint8_t> into; ///< filled; at least one byte
    std::uint32_t speedKhz = 0; ///< 0: the bus's own
    /// Whether silence may be that of a write cycle: the transaction is then sent again, for up to 50 ms.
    bool waits = true;
};

enum class exchangeEnd : std::uint8_t {
    done,
    silent, ///< the address was not acknowledged; or a byte was not, where the adapter does not say which
    refused, ///< an offset byte was not acknowledged
    tooLong, ///< the adapter takes less at once, or gave up for the time that it takes
    failed,
};

struct exchangeResult {
    exchangeEnd end = exchangeEnd::done;
    int error = 0; ///< the errno that a transfer would end with; 0 when done
};

/// Runs one such transaction. Behind one or two offset bytes the read goes on in further messages where the adapter
/// takes shorter ones only. A lost arbitration and a busy bus are tried again, for up to 50 ms. Leaves no
/// first-failure data.
/// @param[in,out] messageBytes  that a message is known to take; less after longer ones were refused
exchangeResult exchange(bus& wires, const exchangeOrder& order, std::size_t& messageBytes);

/// Why the adapter makes no such transactions, as far as it is known beforehand; empty when it does.
std::string exchangeTrouble(const bus& wires);

/// Bytes that one such read takes at most: by what is known of the adapter, and within 250 ms.
std::size_t longestExchange(const bus& wires, std::uint32_t speedKhz);

} // namespace kest::host::iic
