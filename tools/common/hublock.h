/// Keeps the library and other tools off a hub: several transfers to a hub belong together, because it keeps a status
/// between them.
#pragma once

#include <chrono>
#include <cstdint>

#include "platform/mern.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{

/// Longer than a long read of the library through a hub, which has the lock all that time.
constexpr std::chrono::seconds usualHubWait{10};

/// A hub's lock, the same that the library takes for a transfer through the hub. Ends with the object.
class hubLock
{
public:
    /// Tries for up to `longest`, and no longer once a signal came. An operation's lock is taken before it.
    /// @param address  8-bit form
    hubLock(const busName& bus, std::uint8_t address, std::chrono::nanoseconds longest = usualHubWait);
    hubLock(const hubLock&) = delete;
    hubLock& operator=(const hubLock&) = delete;
    ~hubLock();

    /// 0 while it is held, else the errno: EBUSY when somebody else has it.
    [[nodiscard]] int error() const { return m_error; }

private:
    mern_t m_handle;
    bool m_isOpen;
    int m_error = 0;
};

} // namespace kest::tools
