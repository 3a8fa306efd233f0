/// Serves one request: checks it, has the library serve it, and settles what the library leaves behind.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "tools/client/frame.h"
#include "tools/kestd/devices.h"
#include "tools/kestd/deviceturn.h"
#include "tools/kestd/permissions.h"

namespace kest::service
{

/// Error entries about requests that were refused. One user can make only so many, so that nobody can push out the
/// log's other entries.
class refusalLog
{
public:
    /// Makes and commits an entry. @return its log id; 0 when this user has used up the current share
    std::uint32_t add(std::uint32_t code, const peerProcess& peer, std::uint16_t type, std::uint32_t length,
                      const std::string& text);

private:
    bool takesShare(uid_t user);

    struct userShare {
        std::int64_t sinceMs = 0;
        unsigned used = 0;
    };
    std::mutex m_lock;
    std::unordered_map<uid_t, userShare> m_shares;
};

/// A frame that refuses a request.
client::frame refusal(const client::frame& request, std::uint32_t code, std::uint32_t logId, const std::string& text);

/// May block for as long as the devices take, but not for others who have them. Any thread.
/// @param turn  of this request, the same for all calls
/// @param lastTry  whether it is refused when others have the device
/// @return nothing while others have the device: it is to be called again later, with the same request
std::optional<client::frame> dispatch(const client::frame& request, const peerProcess& peer, permissionSet permission,
                                      const deviceDirectory& devices, refusalLog& refusals, deviceTurn& turn,
                                      bool lastTry);

/// After a reload: makes the library look up the read mode again, which it otherwise does only once.
void adoptReadMode();

} // namespace kest::service
