/// Advisory locks of device addresses on a bus, between processes and between the handles of one process.
#pragma once

#include <bitset>
#include <chrono>
#include <cstdint>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// The locks that one handle holds. They end with it, and with the process.
///
/// One file for each bus, one byte for each address, locked through an open file description of the handle's own: the kernel lets go of
/// them when their holder dies. A second byte for each address is a turnstile: whoever waits for an address holds its turnstile, so one
/// who has just let go must queue behind.
class addressLocks
{
public:
    explicit addressLocks(const busIdentity& identity);
    addressLocks(const addressLocks&)            = delete;
    addressLocks& operator=(const addressLocks&) = delete;
    ~addressLocks();

    /// @return 0; EBUSY when not had within `timeout`; EDEADLK when held already; EACCES, ENOMEM or EIO when the file can't be had
    int lock(std::uint8_t address, std::chrono::milliseconds timeout);
    /// @return 0; EINVAL when not held; EIO when the file refuses
    int unlock(std::uint8_t address);

    void releaseAll();

    /// In a process just forked: the parent's locks are not its own.
    void forgetAfterFork();

private:
    int open();

    busIdentity      m_identity;
    int              m_descriptor = -1;
    std::bitset<256> m_held;
};

} // namespace kest::host::iic
