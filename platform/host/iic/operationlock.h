/// Locks on devices for whole operations: from the first read to the last verification of one command.
///
/// They are apart from the layer's own locks (items 17 and 18, and that of a page being written): those are taken within
/// an operation and know nothing of it. So an operation's lock is taken before any of them, and before a device is
/// opened. Operations that read share a device; one that writes has it alone. Whoever waits has those behind him wait,
/// too: a writer waits for the readers of that moment, not for all that ever come.
#pragma once

#include <chrono>
#include <compare>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/unshared.h"
#include "platform/host/iic/bus.h"
#include "platform/host/iic/operationrecord.h"
#include "platform/mern.h"

namespace kest::host::iic
{

enum class operationUse : std::uint8_t {
    read, ///< shares the device with others that read
    write, ///< has it alone
};

/// The lock of one operation on one device. It ends with release(), with this object, and with the process, at once; a
/// child of a fork does not have it.
///
/// All locks of a bus are bytes of one file beside the bus's other lock file, taken through an open file description for
/// each lock. The file's contents are records of those who hold a lock. Not for use by two threads at once.
class operationLock
{
public:
    /// @param path  device path, with or without an address
    /// @param[out] error  why there is no such bus, as opening a device there would report it; 0 when there is
    /// @return null when there is no such bus
    static std::unique_ptr<operationLock> of(const std::string& path, NodeType node, const operationPlace& place,
                                             operationUse use, int& error);
    operationLock(busIdentity identity, const operationPlace& place, operationUse use);
    operationLock(const operationLock&) = delete;
    operationLock& operator=(const operationLock&) = delete;
    ~operationLock() { release(); }

    /// Tries once. After EAGAIN it waits in line until it is tried again, given up or released.
    /// @param who  what others are told while it is held
    /// @return 0; EAGAIN when others have the device; EACCES, ENOMEM or EIO when the file can't be had
    int attempt(const operationRecord& who);
    /// Tries until the time is up, in real time.
    /// @param stop  asked again and again while it waits; true ends the wait
    /// @return 0; EBUSY when not had in time; EINTR when stopped; else as attempt()
    int wait(const operationRecord& who, std::chrono::nanoseconds timeout, const std::function<bool()>& stop);
    void release();

    /// Those who have the device now and keep this lock from being had, as far as they say so themselves: at most as
    /// many as there are records. A dead one is not among them. Call it after an attempt in vain.
    [[nodiscard]] std::vector<operationRecord> holders() const;

    /// The order in which one process takes several locks, so that two never wait for each other. Equal for one device.
    [[nodiscard]] std::strong_ordering operator<=>(const operationLock& other) const;
    /// Of the bus: says where the file is.
    [[nodiscard]] const busIdentity& identity() const { return m_identity; }

private:
    [[nodiscard]] std::string fileName() const { return m_identity.name + ".operations"; }
    int openFile();
    int tryDevice(const operationRecord& who);
    void publish(const operationRecord& who) const;
    void leaveLine();

    busIdentity m_identity;
    operationPlace m_place;
    operationUse m_use;
    unsharedFile m_file;
    bool m_inLine = false; ///< the next one to have the device
};

} // namespace kest::host::iic
