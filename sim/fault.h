/// A fault of a machine, as its users ask for it and see it listed.
#pragma once

#include <cstdint>
#include <string>

namespace kest::sim
{

/// kind               what happens at a matching transaction                                   value
/// nack               the address is not acknowledged
/// nack-data          data byte `byte` of a write is not acknowledged
/// hold-sda           SDA is held from `byte` (0: the address) until a bus reset               resets outlasted
/// hold-scl           SCL is held from `byte` (0: the address); no reset of the bus frees it: `count` is how many
///                    attempts meet it held, and it ends after `lastsMs`, too
/// short              a STOP in the middle of data byte `byte`
/// arbitration        another controller wins at `byte` (0: the address)
/// corrupt            data byte `byte` is changed                                              XOR mask, 0 is 0xFF
/// stuck-write-cycle  the write cycle it starts does not end, and the page is lost             ms, 0 for ever
/// gone               the adapter is gone                                                      1: it reports time-outs
/// hub-status         a transfer through the hub ends with a status                            the status
/// hub-silent         the hub does not acknowledge
/// hub-bad-first-byte a read through the hub begins with a byte that is no status              that byte, 0 is 0xA5
/// hub-hold-sda,      the sub-bus of the transfer's port is held until a sub-bus reset         resets outlasted
/// hub-hold-scl
/// power-cut          the chips of the bus lose power until the end of the transaction; counts bytes, addresses too
struct faultDescription {
    std::string kind{};
    /// Empty: every bus, each counting for itself. "NODE:BUS" on a node that is not the local one.
    std::string bus{};
    std::string node{}; ///< without a bus: the buses of this node alone; empty: of every node
    std::uint8_t address = 0; ///< 0: every address; that of the chip for stuck-write-cycle, also behind a hub
    std::string way{}; ///< "", "read" or "write"
    /// Strikes first at the n-th matching transaction from now on, counted from 1; 0: at once.
    std::uint64_t nth = 0;
    double probability = 1.0;
    std::uint64_t seed = 0; ///< of the probability; 0: the machine's, with choices of this fault's own
    std::uint64_t count = 0; ///< how many times it strikes; 0 until cleared
    std::uint32_t value = 0; ///< hub status, XOR mask of a corrupted byte, ...
    std::uint64_t byte = 0; ///< data byte it strikes at, counted from 0 after the START
    /// Ends for good with a reset: of the sub-buses or the hub's own line for hub-..., else of the bus.
    bool untilReset = false;
    std::uint32_t lastsMs = 0; ///< of hold-scl: bus time after which it ends by itself, 0 none; an hour at most
};

struct listedFault {
    std::uint32_t number;
    faultDescription what;
    std::uint64_t struck;
};

} // namespace kest::sim
