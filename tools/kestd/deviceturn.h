/// The turn of a request at its device: nobody else works on it meanwhile.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/host/iic/operationlock.h"
#include "tools/kestd/permissions.h"

namespace kest::service
{

/// The operation's lock of a request's device. It is tried again and again, by whatever thread is at work on the request,
/// and no thread waits for it. It ends with this object.
class deviceTurn
{
public:
    enum class state : std::uint8_t {
        had,
        waiting, ///< others have the device
        refused, ///< the service may not lock it
    };

    /// Tries to get the device. Each call after the first must name the same one.
    /// @param text  device text. One that names no device, or no bus, needs no lock: the library says what is wrong
    /// @param peer  whose request it is
    state enter(const std::string& text, bool writes, const peerProcess& peer);
    /// Who has the device, or why it can't be locked. One line, not escaped.
    [[nodiscard]] std::string trouble() const;

private:
    std::unique_ptr<host::iic::operationLock> m_lock;
    host::iic::operationRecord m_who;
    int m_error = 0;
    bool m_known = false; ///< whether there is a lock
};

} // namespace kest::service
