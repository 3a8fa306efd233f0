/// Locks of device addresses on a bus, between processes and between the handles of one process.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>

#include <sys/types.h>

#include "base/unshared.h"
#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// The time in which locks are waited for: real time on every bus, since their holders live in it. Tests drive it.
class lockClock
{
public:
    virtual ~lockClock() = default;
    virtual std::chrono::nanoseconds now(); ///< since any moment
    virtual void pause(std::chrono::nanoseconds time);
};

/// The one that is used from now on. @param clock  null: the system's. Owned by the caller.
void useLockClock(lockClock* clock);
[[nodiscard]] lockClock& usedLockClock();

/// The locks that one handle holds. They end with it, and with the process.
///
/// One file for each bus, one byte for each address, locked through an open file description for each lock: the kernel
/// lets go of it when its holder dies. A second byte for each address is a turnstile: each waiter for an address holds
/// its turnstile, so a handle that has just let go must queue behind. The layer's own locks on addresses that are being
/// written have bytes and turnstiles of the same kind behind those.
class addressLocks
{
public:
    explicit addressLocks(const busIdentity& identity) : m_identity(identity) {}
    addressLocks(const addressLocks&) = delete;
    addressLocks& operator=(const addressLocks&) = delete;
    ~addressLocks() { releaseAll(); }

    /// Takes an advisory lock.
    /// @return 0; EBUSY when not had within `timeout`; EDEADLK when held already; EACCES, ENOMEM or EIO when the file
    /// can't be had
    int lock(std::uint8_t address, std::chrono::milliseconds timeout);
    /// @return 0; EINVAL when not held; EIO when the file refuses
    int unlock(std::uint8_t address);

    /// Keeps other writers away from an address until endWrite(). Without a file or memory for that it may be written
    /// all the same.
    /// @return whether it may be written; false when another wrote to it for all of `timeout`
    bool beginWrite(std::uint8_t address, std::chrono::milliseconds timeout);
    void endWrite();
    /// Whether another handle, of any process, is between beginWrite() and endWrite(); false while this one is.
    [[nodiscard]] bool isWrittenByAnother(std::uint8_t address) const;

    void releaseAll();

private:
    int take(unsharedFile& file, off_t byte, std::chrono::milliseconds timeout) const;
    int takeInSharedFile(unsharedFile& file, off_t byte, std::chrono::nanoseconds deadline) const;

    busIdentity m_identity;
    std::map<std::uint8_t, unsharedFile> m_held; ///< a child of a fork finds them closed
    unsharedFile m_writing;
    off_t m_writingByte = 0;
};

} // namespace kest::host::iic
